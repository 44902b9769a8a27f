#include "replication/common/values/FileHandle.h"

#include <QByteArray>

using namespace Replication;

TEST(FileHandle, KeepsItsBytes) {
    FileHandle const handle{0x1112131415161718, StoreId{0x2122232425262728}, FileHandle::Passive,
                            Instance{7}, LinkId{3}};
    auto const bytes = handle.encode();
    EXPECT_EQ(QByteArray(reinterpret_cast<char const*>(bytes.data()), bytes.size()).toHex(),
              "181716151413121128272625242322210200000007000000"
              "0300000000000000");
    FileHandle back;
    for (std::uint32_t size = 0; size < FileHandle::packedSize; ++size) {
        EXPECT_FALSE(back.decode(Morva::Extent(bytes.data(), size))) << size;
        EXPECT_EQ(back, FileHandle{});
    }
    EXPECT_TRUE(back.decode(Morva::Extent(bytes.data(), FileHandle::packedSize)));
    EXPECT_EQ(back, handle);
}
