#pragma once

#include <QString>

#include <cstdint>
#include <utility>

namespace Morva {

class Log;
class TraceLine;
class XmlList;

/// Name of a machine and its numeric id. An id of 0 is one that was never given out. Names are
/// compared exactly. A value type, cheap to copy.
class MachineName {
public:
    MachineName() = default;
    explicit MachineName(QString name, std::uint32_t id = 0) : name_(std::move(name)), id_(id) {}
    /// Reads what `toXml` wrote; an empty name if it isn't there.
    explicit MachineName(XmlList const& list);

    [[nodiscard]] QString const& name() const { return name_; }
    [[nodiscard]] std::uint32_t id() const { return id_; }
    /// Whether there is a name.
    [[nodiscard]] explicit operator bool() const { return !name_.isEmpty(); }
    [[nodiscard]] XmlList toXml() const;

    [[nodiscard]] bool operator==(MachineName const&) const = default;

private:
    QString name_;
    std::uint32_t id_ = 0;
};

[[nodiscard]] size_t qHash(MachineName const& machine, size_t seed = 0);
TraceLine& operator<<(TraceLine& line, MachineName const& machine);
/// The insert of a machine: its name.
Log& operator<<(Log& log, MachineName const& machine);

} // namespace Morva
