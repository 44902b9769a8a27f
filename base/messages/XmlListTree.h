#pragma once

#include "base/messages/XmlList.h"

#include <variant>
#include <vector>

namespace Morva {

/// The values behind an `XmlList`; for this class's own files only.
struct XmlListTree {
    using Value = std::variant<bool, std::int32_t, std::uint32_t, std::uint64_t, QString,
                               MachineName, QByteArray, std::shared_ptr<XmlListTree>>;
    struct Item {
        QString name;
        Value value;
    };

    std::vector<Item> items;

    [[nodiscard]] Item const* find(QString const& name) const;
    [[nodiscard]] std::shared_ptr<XmlListTree> clone() const;
    [[nodiscard]] static XmlList::ValueTypeE type(Value const& value);

    /// The trees behind lists, for the forms.
    [[nodiscard]] static std::shared_ptr<XmlListTree> const& of(XmlList const& list) {
        return list.tree_;
    }
    [[nodiscard]] static XmlList wrap(std::shared_ptr<XmlListTree> tree) {
        return XmlList(std::move(tree));
    }
};

} // namespace Morva
