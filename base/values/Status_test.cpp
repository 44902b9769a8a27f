#include "base/values/Status.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

using namespace Morva;
using Code = Status::Code;

TEST(Status, ASuccessIsOnePointer) {
    EXPECT_EQ(sizeof(Status), sizeof(void*));
    EXPECT_TRUE(Status().ok());
    EXPECT_EQ(Status().text(), QString());
}

TEST(Status, OnlyENOENTIsNotFound) {
    struct {
        int error;
        Code code;
    } const cases[] = {{ENOENT, Code::NotFound}, {ENOTDIR, Code::IoError},
                       {EACCES, Code::IoError},  {EIO, Code::IoError},
                       {ENOSPC, Code::NoSpace},  {EDQUOT, Code::NoSpace},
                       {EROFS, Code::ReadOnly},  {EWOULDBLOCK, Code::Busy},
                       {ESTALE, Code::IoError},  {EINVAL, Code::InvalidArgument},
                       {0, Code::IoError}};
    for (auto const& each : cases) {
        Status const status = Status::fromErrno(each.error, "open", QStringLiteral("f"));
        EXPECT_FALSE(status.ok());
        EXPECT_EQ(status.code(), each.code) << each.error;
    }
}

TEST(Status, TellsWhatWasDoneWhereAndWhy) {
    Status status =
        Status::fromErrno(EIO, "read", QStringLiteral("/r/data.blocks"), {Status::Unit::Page, 7});
    status.during(QStringLiteral("read stream 4"));
    Status const copy = std::move(status).during(QStringLiteral("restore a/b"));
    EXPECT_EQ(copy.text(),
              QStringLiteral("restore a/b: read stream 4: read /r/data.blocks, page 7: "
                             "Input/output error"));
    EXPECT_EQ(
        Status::corruption("read", QStringLiteral("f"), QStringLiteral("bad checksum")).text(),
        QStringLiteral("read f: bad checksum"));
}

TEST(Status, UpdateKeepsTheFirstFailure) {
    Status all;
    all.update({});
    EXPECT_TRUE(all.ok());
    all.update(Status::fromErrno(ENOSPC, "write", QStringLiteral("a")));
    all.update(Status::fromErrno(EIO, "write", QStringLiteral("b")));
    all.update({});
    EXPECT_EQ(all.file(), QStringLiteral("a"));
}

Result<int> half(int number) {
    if (number % 2 != 0)
        return Status::failure(Code::InvalidArgument, "halve", {});
    return number / 2;
}

Result<int> quarter(int number) {
    MORVA_TRY_LET(int const first, half(number));
    MORVA_TRY_LET(int const second, half(first));
    return second;
}

Status check(int number) {
    MORVA_TRY(quarter(number));
    return {};
}

TEST(Result, CarriesTheValueOrTheFailureThroughCallers) {
    EXPECT_EQ(*quarter(12), 3);
    EXPECT_EQ(quarter(6).code(), Code::InvalidArgument);
    EXPECT_TRUE(check(4));
    EXPECT_FALSE(check(5));
}

} // namespace
