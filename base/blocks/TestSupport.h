#pragma once

#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace Morva::Testing {

/// A seeded generator that prints its seed when the test fails.
class Random {
public:
    explicit Random(std::uint64_t seed)
        : engine_(seed), trace_(__FILE__, __LINE__, "seed " + std::to_string(seed)) {}
    std::uint64_t operator()() { return engine_(); }
    std::uint64_t below(std::uint64_t end) { return engine_() % end; }

private:
    std::mt19937_64 engine_;
    ::testing::ScopedTrace trace_;
};

/// Overwrites bytes of a file behind the back of whoever reads it next.
inline void damage(QString const& path, qint64 offset, QByteArray const& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.seek(offset));
    ASSERT_EQ(file.write(bytes), bytes.size());
}

inline QByteArray contents(QString const& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace Morva::Testing
