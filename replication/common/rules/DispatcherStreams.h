#pragma once

#include "replication/common/rules/DisStream.h"

namespace Replication {

/// A machine that a batch stream sends to.
struct BatchTarget {
    Morva::MachineName machine;
    Morva::MsgRoute route;
};

/// A stream that a source's dispatcher sends out.
class ReplicationStream : public DisStream {
public:
    ReplicationStream(Morva::XmlList const& item, DisRules const& rules);
    [[nodiscard]] Type type() const override { return eReplication; }
    [[nodiscard]] bool networkCompression() const { return networkCompression_; }
    /// Of a batch stream; exactly one if it is valid. Empty otherwise.
    [[nodiscard]] QList<BatchTarget> const& targets() const { return targets_; }

private:
    void readTargets(Morva::XmlList const& item);
    [[nodiscard]] bool readTarget(Morva::XmlList const& list);

    bool networkCompression_ = false;
    QList<BatchTarget> targets_;
};

/// A stream that is passed on to one other machine.
class ForwardStream : public DisStream {
public:
    ForwardStream(Morva::XmlList const& item, Morva::MachineName targetMachine,
                  DisRules const& rules);
    [[nodiscard]] Type type() const override { return eForward; }
    [[nodiscard]] Morva::MachineName const& targetMachine() const { return targetMachine_; }
    [[nodiscard]] bool networkCompression() const { return networkCompression_; }

private:
    Morva::MachineName targetMachine_;
    bool networkCompression_ = false;
};

/// Operations of a source that are only logged: for each true flag of the item, one rule text.
class LoggingStream : public DisStream {
public:
    LoggingStream(Morva::XmlList const& item, DisRules const& rules);
    [[nodiscard]] Type type() const override { return eLogging; }
    [[nodiscard]] QStringList const& loggedOperations() const { return loggedOperations_; }

private:
    QStringList loggedOperations_;
};

} // namespace Replication
