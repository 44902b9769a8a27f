// Writes the logs of one workload to standard output, for bench/replay:
//
//     replay_logs open|path|create COUNT
//
// open: small appends to 64 open files in turn; path: small writes by name to 1,000 files in 10
// directories in turn; create: files that are made, written once and closed, 1,000 a directory.

#include "peers/source/LogFileSink.h"
#include "peers/source/OperationLogger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

using Morva::Extent;
using Replication::LogFileSink;
using Replication::LogSourceOptions;
using Replication::OperationLogger;

namespace {

constexpr std::uint32_t fileMode = S_IFREG | 0644;
constexpr std::uint32_t directoryMode = S_IFDIR | 0755;
std::array<char, 200> const content{};

Extent small() {
    return {content.data(), static_cast<std::uint32_t>(content.size())};
}

bool openWrites(OperationLogger& logger, std::uint64_t count) {
    std::vector<std::uint32_t> files(64);
    std::vector<std::uint64_t> lengths(files.size());
    for (std::size_t i = 0; i < files.size(); ++i)
        if (!logger.create("/file" + std::to_string(i), fileMode, 0, 0, files[i]))
            return false;
    for (std::uint64_t n = 0; n < count; ++n) {
        auto const i = n % files.size();
        if (!logger.write(files[i], lengths[i], small()))
            return false;
        lengths[i] += content.size();
    }
    for (auto const file : files)
        if (!logger.close(file))
            return false;
    return true;
}

bool pathWrites(OperationLogger& logger, std::uint64_t count) {
    std::vector<std::string> names;
    for (int directory = 0; directory < 10; ++directory) {
        auto const path = "/directory" + std::to_string(directory);
        if (!logger.mkdir(path, directoryMode, 0, 0))
            return false;
        for (int file = 0; file < 100; ++file) {
            std::uint32_t id = 0;
            names.push_back(path + "/file" + std::to_string(file));
            if (!logger.create(names.back(), fileMode, 0, 0, id) || !logger.close(id))
                return false;
        }
    }
    for (std::uint64_t n = 0; n < count; ++n)
        if (!logger.writePath(names[n % names.size()], n / names.size() * content.size(), small()))
            return false;
    return true;
}

bool creates(OperationLogger& logger, std::uint64_t count) {
    std::string directory;
    for (std::uint64_t n = 0; n < count / 3; ++n) {
        if (n % 1000 == 0) {
            directory = "/directory" + std::to_string(n / 1000);
            if (!logger.mkdir(directory, directoryMode, 0, 0))
                return false;
        }
        std::uint32_t id = 0;
        if (!logger.create(directory + "/file" + std::to_string(n), fileMode, 0, 0, id) ||
            !logger.write(id, 0, small()) || !logger.close(id))
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    std::string_view const kind = argc == 3 ? argv[1] : "";
    auto const work = kind == "open"     ? openWrites
                      : kind == "path"   ? pathWrites
                      : kind == "create" ? creates
                                         : nullptr;
    if (!work || isatty(STDOUT_FILENO)) {
        std::cerr << "usage: replay_logs open|path|create COUNT > FILE\n";
        return 2;
    }
    LogFileSink sink(STDOUT_FILENO);
    LogSourceOptions options;
    options.source = QStringLiteral("bench");
    options.firstSequenceNumber = 1;
    OperationLogger logger(options, sink);
    if (work(logger, std::strtoull(argv[2], nullptr, 10)) && sink.flush())
        return 0;
    std::cerr << "replay_logs: can't write the logs\n";
    return 1;
}
