// morva-changes DIR [ROUNDS [SEED]]: changes a tree and writes a log of each change to standard
// output; tells on standard error how many of each kind it made.

#include "peers/demo/TreeChanger.h"
#include "peers/source/LogFileSink.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    if (argc < 2 || ::isatty(STDOUT_FILENO)) {
        std::cerr << "usage: morva-changes DIR [ROUNDS [SEED]] > LOG\n";
        return 2;
    }
    auto const rounds = argc > 2 ? std::atoi(argv[2]) : 20;
    auto const seed = argc > 3 ? std::strtoull(argv[3], nullptr, 0) : 1;
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    try {
        Replication::LogFileSink sink(STDOUT_FILENO);
        Replication::LogSourceOptions options;
        options.process = "morva-changes";
        // Above those of every log that a command made before.
        options.firstSequenceNumber = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(now).count());
        Replication::OperationLogger logger(options, sink);
        Replication::TreeChanger changer(argv[1], logger, seed);
        changer.run(rounds);
        if (!sink.flush()) {
            std::cerr << "morva-changes: can't write the log\n";
            return 1;
        }
        for (auto const& [kind, count] : changer.counts())
            std::cerr << count << ' ' << kind << '\n';
    } catch (std::exception const& fault) {
        std::cerr << "morva-changes: " << fault.what() << '\n';
        return 1;
    }
}
