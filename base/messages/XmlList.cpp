#include "base/messages/XmlListTree.h"

#include "base/trace/Trace.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace Morva {

namespace {

using Tree = XmlListTree;
using TreePointer = std::shared_ptr<Tree>;

template <class T> T note(bool* found, std::optional<T> value) {
    if (found)
        *found = value.has_value();
    return value ? std::move(*value) : T{};
}

template <class T> std::optional<T> exact(Tree::Value const* value) {
    if (value) {
        if (auto const* held = std::get_if<T>(value))
            return *held;
    }
    return std::nullopt;
}

template <class T> std::optional<T> integer(Tree::Value const* value) {
    if (!value)
        return std::nullopt;
    return std::visit(
        [](auto const& held) -> std::optional<T> {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_integral_v<Held> && !std::is_same_v<Held, bool>) {
                if (std::in_range<T>(held))
                    return static_cast<T>(held);
            }
            return std::nullopt;
        },
        *value);
}

std::optional<XmlList> nested(Tree::Value const* value) {
    if (value) {
        if (auto const* held = std::get_if<TreePointer>(value))
            return Tree::wrap(*held);
    }
    return std::nullopt;
}

Tree::Value const* valueOf(TreePointer const& tree, QString const& key) {
    auto const* item = tree->find(key);
    return item ? &item->value : nullptr;
}

void setValue(Tree& tree, QString const& key, Tree::Value value, XmlList::SetTypeE how) {
    if (how == XmlList::SetTypeE::Replace) {
        auto const named = [&](Tree::Item const& item) { return item.name == key; };
        auto const first = std::find_if(tree.items.begin(), tree.items.end(), named);
        if (first != tree.items.end()) {
            first->value = std::move(value);
            tree.items.erase(std::remove_if(first + 1, tree.items.end(), named), tree.items.end());
            return;
        }
    }
    tree.items.push_back({key, std::move(value)});
}

bool equal(Tree const& left, Tree const& right) {
    if (&left == &right)
        return true;
    if (left.items.size() != right.items.size())
        return false;
    for (std::size_t i = 0; i < left.items.size(); ++i) {
        auto const& a = left.items[i];
        auto const& b = right.items[i];
        if (a.name != b.name || a.value.index() != b.value.index())
            return false;
        if (auto const* list = std::get_if<TreePointer>(&a.value)) {
            if (!equal(**list, *std::get<TreePointer>(b.value)))
                return false;
        } else if (a.value != b.value) {
            return false;
        }
    }
    return true;
}

} // namespace

XmlListTree::Item const* XmlListTree::find(QString const& name) const {
    for (auto const& item : items) {
        if (item.name == name)
            return &item;
    }
    return nullptr;
}

TreePointer XmlListTree::clone() const {
    auto copy = std::make_shared<Tree>(*this);
    for (auto& item : copy->items) {
        if (auto* list = std::get_if<TreePointer>(&item.value))
            *list = (*list)->clone();
    }
    return copy;
}

XmlList::ValueTypeE XmlListTree::type(Value const& value) {
    using E = XmlList::ValueTypeE;
    static constexpr E types[] = {E::Bool,   E::Int32,   E::Uint32, E::Uint64,
                                  E::String, E::Machine, E::Buffer, E::List};
    return types[value.index()];
}

XmlList::XmlList() : tree_(std::make_shared<Tree>()) {}

void XmlList::set(QString const& key, bool value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, std::int32_t value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, std::uint32_t value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, std::uint64_t value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, QString const& value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, char const* utf8, SetTypeE how) {
    setValue(*tree_, key, QString::fromUtf8(utf8), how);
}
void XmlList::set(QString const& key, MachineName const& value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, QByteArray const& value, SetTypeE how) {
    setValue(*tree_, key, value, how);
}
void XmlList::set(QString const& key, XmlList const& value, SetTypeE how) {
    setValue(*tree_, key, value.tree_ == tree_ ? tree_->clone() : value.tree_, how);
}

bool XmlList::remove(QString const& key) {
    return std::erase_if(tree_->items, [&](Tree::Item const& item) { return item.name == key; }) >
           0;
}

bool XmlList::getBool(bool* found, QString const& key) const {
    return note(found, exact<bool>(valueOf(tree_, key)));
}
std::int32_t XmlList::getInt32(bool* found, QString const& key) const {
    return note(found, integer<std::int32_t>(valueOf(tree_, key)));
}
std::uint32_t XmlList::getUint32(bool* found, QString const& key) const {
    return note(found, integer<std::uint32_t>(valueOf(tree_, key)));
}
std::uint64_t XmlList::getUint64(bool* found, QString const& key) const {
    return note(found, integer<std::uint64_t>(valueOf(tree_, key)));
}
QString XmlList::getString(bool* found, QString const& key) const {
    return note(found, exact<QString>(valueOf(tree_, key)));
}
MachineName XmlList::getMachine(bool* found, QString const& key) const {
    return note(found, exact<MachineName>(valueOf(tree_, key)));
}
QByteArray XmlList::getBuffer(bool* found, QString const& key) const {
    return note(found, exact<QByteArray>(valueOf(tree_, key)));
}
XmlList XmlList::getXmlList(bool* found, QString const& key) const {
    return note(found, nested(valueOf(tree_, key)));
}

bool XmlList::get(QString const& key, bool otherwise) const {
    return exact<bool>(valueOf(tree_, key)).value_or(otherwise);
}
std::int32_t XmlList::get(QString const& key, std::int32_t otherwise) const {
    return integer<std::int32_t>(valueOf(tree_, key)).value_or(otherwise);
}
std::uint32_t XmlList::get(QString const& key, std::uint32_t otherwise) const {
    return integer<std::uint32_t>(valueOf(tree_, key)).value_or(otherwise);
}
std::uint64_t XmlList::get(QString const& key, std::uint64_t otherwise) const {
    return integer<std::uint64_t>(valueOf(tree_, key)).value_or(otherwise);
}
QString XmlList::get(QString const& key, QString const& otherwise) const {
    return exact<QString>(valueOf(tree_, key)).value_or(otherwise);
}
QString XmlList::get(QString const& key, char const* otherwiseUtf8) const {
    return get(key, QString::fromUtf8(otherwiseUtf8));
}

bool XmlList::contains(QString const& key) const {
    return tree_->find(key) != nullptr;
}
XmlList::ValueTypeE XmlList::type(QString const& key) const {
    auto const* value = valueOf(tree_, key);
    return value ? Tree::type(*value) : ValueTypeE::None;
}
std::size_t XmlList::size() const {
    return tree_->items.size();
}
XmlList XmlList::clone() const {
    return XmlList(tree_->clone());
}
bool XmlList::operator==(XmlList const& other) const {
    return equal(*tree_, *other.tree_);
}

XmlListIterator::XmlListIterator(XmlList const& list) : tree_(list.tree_) {}

XmlListIterator::XmlListIterator(XmlList const& list, QString name)
    : tree_(list.tree_), only_(std::move(name)) {
    skipOthers();
}

XmlListIterator::operator bool() const {
    return position_ < tree_->items.size();
}

XmlListIterator& XmlListIterator::operator++() {
    ++position_;
    skipOthers();
    return *this;
}

void XmlListIterator::skipOthers() {
    while (only_ && *this && tree_->items[position_].name != *only_)
        ++position_;
}

QString const& XmlListIterator::name() const {
    return tree_->items[position_].name;
}
XmlList::ValueTypeE XmlListIterator::type() const {
    return Tree::type(tree_->items[position_].value);
}
bool XmlListIterator::getBool(bool* found) const {
    return note(found, exact<bool>(&tree_->items[position_].value));
}
std::int32_t XmlListIterator::getInt32(bool* found) const {
    return note(found, integer<std::int32_t>(&tree_->items[position_].value));
}
std::uint32_t XmlListIterator::getUint32(bool* found) const {
    return note(found, integer<std::uint32_t>(&tree_->items[position_].value));
}
std::uint64_t XmlListIterator::getUint64(bool* found) const {
    return note(found, integer<std::uint64_t>(&tree_->items[position_].value));
}
QString XmlListIterator::getString(bool* found) const {
    return note(found, exact<QString>(&tree_->items[position_].value));
}
MachineName XmlListIterator::getMachine(bool* found) const {
    return note(found, exact<MachineName>(&tree_->items[position_].value));
}
QByteArray XmlListIterator::getBuffer(bool* found) const {
    return note(found, exact<QByteArray>(&tree_->items[position_].value));
}
XmlList XmlListIterator::getXmlList(bool* found) const {
    return note(found, nested(&tree_->items[position_].value));
}

TraceLine& operator<<(TraceLine& line, XmlList::ValueTypeE type) {
    static constexpr char const* names[] = {"none",   "list",   "string",  "bool",  "int32",
                                            "uint32", "uint64", "machine", "buffer"};
    auto const index = static_cast<std::uint32_t>(type);
    return line << (index < std::size(names) ? names[index] : "unknown");
}

} // namespace Morva
