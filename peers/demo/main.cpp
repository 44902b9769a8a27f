// morva-changes DIR AFTER [ROUNDS [SEED]]: changes a tree and writes a log of each change to
// standard output, with numbers above AFTER; tells on standard error how many of each kind it made.

#include "peers/demo/TreeChanger.h"
#include "peers/source/LogFileSink.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    if (argc < 3 || ::isatty(STDOUT_FILENO)) {
        std::cerr << "usage: morva-changes DIR AFTER [ROUNDS [SEED]] > LOG\n";
        return 2;
    }
    auto const rounds = argc > 3 ? std::atoi(argv[3]) : 20;
    auto const seed = argc > 4 ? std::strtoull(argv[4], nullptr, 0) : 1;
    try {
        Replication::LogFileSink sink(STDOUT_FILENO);
        Replication::LogSourceOptions options;
        options.process = "morva-changes";
        options.firstSequenceNumber = std::strtoull(argv[2], nullptr, 0) + 1;
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
