#include "peers/check/Checker.h"

#include "base/blocks/TestSupport.h"
#include "peers/check/SampleRepository.h"

#include <QCryptographicHash>
#include <QDirIterator>

namespace Morva {
namespace {

using Testing::SampleRepository;

std::string text(CheckReport const& report) {
    return (report.lines() + QStringList(report.summary())).join(u'\n').toStdString();
}

/// Paths, sizes and contents of all files below a path.
QByteArray everything(QString const& path) {
    QStringList files;
    for (QDirIterator it(path, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext();)
        files.append(it.next());
    files.sort();
    QCryptographicHash hash(QCryptographicHash::Sha1);
    for (QString const& name : files) {
        hash.addData(name.toUtf8());
        hash.addData(Testing::contents(name));
    }
    return hash.result();
}

TEST(Checker, NewRepositoryIsClean) {
    SampleRepository sample;
    sample.close();
    CheckReport const report = SampleRepository::check(true);
    EXPECT_TRUE(report.clean()) << text(report);
    EXPECT_EQ(report.figures.stores, 1U);
    EXPECT_EQ(report.figures.files, 0U);
}

TEST(Checker, UsedRepositoryIsCleanAndCounted) {
    SampleRepository sample;
    sample.fill();
    sample.close();
    CheckReport const report = SampleRepository::check(true);
    EXPECT_TRUE(report.clean()) << text(report);
    EXPECT_EQ(report.figures.files, 126U);
    EXPECT_EQ(report.figures.directories, 2U);
    EXPECT_EQ(report.figures.snapshots, 3U); // of instance 1, the first and the third
    EXPECT_GT(report.figures.keys, 0U);
    EXPECT_GT(report.figures.indirectBlocks, 0U);
    EXPECT_GT(report.figures.digestsVerified, 0U);
}

TEST(Checker, StaysCleanOverReopeningsAndSnapshots) {
    SampleRepository sample;
    sample.fill();
    for (int round = 0; round < 3; ++round) {
        sample.close();
        CheckReport const closed = SampleRepository::check();
        ASSERT_TRUE(closed.clean()) << "round " << round << "\n" << text(closed);
        sample.open();
        auto const name = "/docs/round" + std::to_string(round);
        sample.make(name, SampleRepository::bytes(50000, 10 + round));
        auto const snapshot = sample.snapshot();
        sample.write(name, 100, "changed");
        sample.drain();
        sample.deleteSnapshot(snapshot);
        sample.snapshot();
        sample.drain();
    }
    sample.close();
    CheckReport const report = SampleRepository::check(true);
    EXPECT_TRUE(report.clean()) << text(report);
}

TEST(Checker, ChangesNoByte) {
    SampleRepository sample;
    sample.fill();
    sample.close();
    QByteArray const before = everything(sample.path());
    (void)SampleRepository::check(true);
    EXPECT_EQ(everything(sample.path()), before);
}

} // namespace
} // namespace Morva
