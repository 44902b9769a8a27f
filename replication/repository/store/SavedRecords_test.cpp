#include "replication/repository/store/SavedRecords.h"

#include "base/files/FaultyFiles.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace Replication {
namespace {

using Morva::Extent;
using Morva::Status;
using Section = SavedRecords::Section;
using Model = std::map<QByteArray, QByteArray>;

class SavedRecordList : public testing::Test {
protected:
    static Extent extent(QByteArray const& bytes) { return Extent(bytes); }
    static void put(SavedRecords& records, Model const& model) {
        records.begin();
        for (auto const& [key, body] : model)
            records.put(Section::Handle, extent(key), extent(body));
    }
    static Model all(SavedRecords const& records) {
        Model model;
        EXPECT_TRUE(records.forEach(Section::Handle, [&](Extent key, Extent body) -> Status {
            model[key.toByteArray()] = body.toByteArray();
            return {};
        }));
        return model;
    }
    [[nodiscard]] QByteArray bytes() const {
        QFile file(path_);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir directory_;
    QString path_ = directory_.filePath("state");
};

TEST_F(SavedRecordList, HasTheBytesOfItsDescription) {
    SavedRecords records(path_);
    ASSERT_TRUE(records.load());
    EXPECT_FALSE(records.found());
    put(records, {{"k", "body"}});
    ASSERT_TRUE(records.commit());
    put(records, {});
    ASSERT_TRUE(records.commit());
    // Behind the list's header: the size, the check, section 4, a key of one byte, key and body;
    // then that there is no such record any more.
    auto const list = bytes().mid(40);
    EXPECT_EQ(list.left(4).toHex(), "15000000");
    EXPECT_EQ(list.mid(12, 13).toHex(), "04000000010000006b626f6479");
    EXPECT_EQ(list.mid(25, 4).toHex(), "11000000");
    EXPECT_EQ(list.mid(37).toHex(), "04000000010000806b");
}

TEST_F(SavedRecordList, KeepsTheLatestOfEachKeyAndWritesOnlyWhatChanged) {
    auto const seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    SavedRecords records(path_);
    ASSERT_TRUE(records.load());
    Model model;
    std::uint64_t greatest = 0;
    for (int round = 0; round < 400; ++round) {
        for (auto changes = random() % 4; changes != 0; --changes) {
            auto const key = QByteArray::number(random() % 50);
            if (random() % 3 == 0)
                model.erase(key);
            else
                model[key] = QByteArray(static_cast<qsizetype>(random() % 2000), 'x');
        }
        put(records, model);
        auto const before = records.listBytes();
        ASSERT_TRUE(records.commit());
        auto const after = records.listBytes();
        put(records, model);
        ASSERT_TRUE(records.commit());
        EXPECT_EQ(records.listBytes(), after) << "nothing changed";
        EXPECT_TRUE(after <= before + 8 * 2100 || after < before);
        greatest = std::max(greatest, after);
        if (round % 40 == 0) {
            ASSERT_TRUE(records.close());
            ASSERT_TRUE(records.load());
        }
        ASSERT_EQ(all(records), model);
    }
    EXPECT_LE(greatest, 2 * 50 * 2100U + 65536U) << "what is out of date goes";
}

TEST_F(SavedRecordList, EveryChangedByteIsFound) {
    {
        SavedRecords records(path_);
        ASSERT_TRUE(records.load());
        put(records, {{"one", "first"}, {"two", "second"}});
        ASSERT_TRUE(records.commit());
        ASSERT_TRUE(records.close());
    }
    auto const whole = bytes();
    for (qsizetype at = 0; at < whole.size(); ++at) {
        SCOPED_TRACE(at);
        auto spoilt = whole;
        spoilt[at] = static_cast<char>(spoilt[at] ^ 0x10);
        QFile file(path_);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(spoilt);
        file.close();
        SavedRecords records(path_);
        EXPECT_TRUE(records.load().is(Status::Code::Corruption));
        EXPECT_TRUE(all(records).empty());
        // And it can be saved anew.
        put(records, {{"three", "third"}});
        EXPECT_TRUE(records.commit());
        EXPECT_TRUE(records.close());
        EXPECT_TRUE(records.load());
        EXPECT_EQ(all(records), (Model{{"three", "third"}}));
    }
}

TEST_F(SavedRecordList, WhatCouldNotBeWrittenIsWrittenByTheNextSave) {
    Morva::FaultyFiles files;
    SavedRecords records(path_);
    ASSERT_TRUE(records.load());
    put(records, {{"one", "first"}});
    ASSERT_TRUE(records.commit());
    files.failWritesAfter(0);
    Model const model{{"one", "changed"}, {"two", "second"}};
    put(records, model);
    EXPECT_FALSE(records.commit());
    files.heal();
    put(records, model);
    ASSERT_TRUE(records.commit());
    ASSERT_TRUE(records.close());
    ASSERT_TRUE(records.load());
    EXPECT_EQ(all(records), model);
}

} // namespace
} // namespace Replication
