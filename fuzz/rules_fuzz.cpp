// The four files of a rule set, one behind the other with a zero byte between them.

#include "base/process/Context.h"
#include "base/process/FixedPath.h"
#include "fuzz/Input.h"
#include "fuzz/MemoryFiles.h"
#include "replication/common/rules/DisRules.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>

using Morva::FixedPath;
using Morva::Fuzzing::MemoryFiles;
using Morva::Fuzzing::require;
using Replication::DisRules;

namespace {

char const* const names[] = {"policyrules.cfg", "dispatcherrules.cfg", "forwardrules.cfg",
                             "replayrules.cfg"};

/// A directory whose files are empty; that they are there is looked up on the disk.
struct Directory {
    Directory() {
        FixedPath::setRoot(directory.path());
        Morva::Context::machineName(Morva::MachineName(QStringLiteral("machine")));
        QDir().mkpath(FixedPath::rules(1));
        for (auto const* name : names) {
            QFile file(FixedPath::rules(1) + u'/' + QLatin1String(name));
            require(file.open(QIODevice::WriteOnly), "temporary directory");
        }
    }
    QTemporaryDir directory;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static Directory const directory;
    static MemoryFiles files;
    auto const* const end = data + size;
    for (auto const* name : names) {
        auto const* const next = std::find(data, end, 0);
        files.put(QLatin1String(name), data, static_cast<std::size_t>(next - data));
        data = next == end ? end : next + 1;
    }
    DisRules const rules(1);
    if (!rules.valid())
        require(rules.replayStreams().isEmpty() && rules.lookupPolicy(1) == 0,
                "an invalid rule set is empty");
    for (auto const& stream : rules.replayStreams()) {
        require(rules.replayStream(stream->replayId()) == stream, "a stream is found by its id");
        for (auto const policy : stream->policies()) {
            auto const found = rules.policy(policy);
            require(found != nullptr, "a stream's policy is there");
            require(rules.lookupPolicy(found->firstRule()) == policy, "a rule has its policy");
            (void)rules.policyCommsMode(policy);
            (void)rules.loggingRules(policy);
        }
        for (auto const& other : rules.streamList(stream->sourceMachine()))
            (void)rules.matchingStream(*other);
        (void)rules.localPolicyList(stream->sourceMachine());
    }
    return 0;
}
