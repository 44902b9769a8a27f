#pragma once

#include <QString>

#include <cstdint>
#include <vector>

namespace Morva {
class XmlList;
}

namespace Replication {

/// The body of a message that requires a resynchronisation: for which rules, of which source, why.
///
///  key                      type    value
///  "ResyncRequiredList"     list    one "ResyncRequiredPolicy" (uint32) for each rule
///  "ResyncRequiredSource"   string
///  "ResyncRequiredReason"   string
class ResyncRequiredBody {
public:
    ResyncRequiredBody() = default;
    ResyncRequiredBody(std::vector<std::uint32_t> policies, QString source, QString reason);
    /// Reads a message body. What is missing stays empty; what can't be read is traced and left
    /// out.
    explicit ResyncRequiredBody(Morva::XmlList const& body);

    /// Sets the three values in `body`; its other values stay.
    void append(Morva::XmlList& body) const;

    /// Adds the other's rules that are not there yet; takes its reason only if there is none yet.
    void add(ResyncRequiredBody const& other);

    [[nodiscard]] std::vector<std::uint32_t> const& policies() const { return policies_; }
    [[nodiscard]] QString const& source() const { return source_; }
    [[nodiscard]] QString const& reason() const { return reason_; }

private:
    std::vector<std::uint32_t> policies_;
    QString source_;
    QString reason_;
};

} // namespace Replication
