#pragma once

#include "base/messages/MachineName.h"
#include "base/values/Extent.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>

namespace Morva {

struct XmlListTree;

/// A tree of named, typed values: the body of every message and the form of the configuration
/// files. Names are case-exact. Values keep the order in which they were added, and several can
/// stand under one name; a getter then reads the first.
///
/// Copying shares the tree, so that a change through one copy is seen through all; `clone` makes
/// an independent one. A list set as a value is shared in the same way. Not thread-safe, but a
/// tree that nobody changes can be read from several threads.
class XmlList {
public:
    /// What `set` does: add a further value under the name, or be the only one. A replacing value
    /// takes the place of the first one under its name.
    enum class SetTypeE : std::uint32_t { Add = 0, Replace = 1 };
    enum class ValueTypeE : std::uint32_t {
        None = 0,
        List = 1,
        String = 2,
        Bool = 3,
        Int32 = 4,
        Uint32 = 5,
        Uint64 = 6,
        Machine = 7,
        Buffer = 8
    };
    /// Lists within lists that a text or binary form can have.
    static constexpr int maxDepth = 64;
    /// Bytes that a text or binary form can have.
    static constexpr qsizetype maxFormBytes = 256 << 20;

    XmlList();

    /// Writers. A list can't be set into itself: a clone is set then. Making a cycle in another
    /// way is a fault of the caller.
    void set(QString const& key, bool value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, std::int32_t value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, std::uint32_t value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, std::uint64_t value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, QString const& value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, char const* utf8, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, MachineName const& value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, QByteArray const& value, SetTypeE how = SetTypeE::Replace);
    void set(QString const& key, XmlList const& value, SetTypeE how = SetTypeE::Replace);
    /// Takes out every value under the name; false if there was none.
    bool remove(QString const& key);

    /// Typed readers of the first value under a name. `found` may be null. A missing name and a
    /// value of another type give zero or empty and false; an integer of another width or sign
    /// counts as found where its value fits.
    [[nodiscard]] bool getBool(bool* found, QString const& key) const;
    [[nodiscard]] std::int32_t getInt32(bool* found, QString const& key) const;
    [[nodiscard]] std::uint32_t getUint32(bool* found, QString const& key) const;
    [[nodiscard]] std::uint64_t getUint64(bool* found, QString const& key) const;
    [[nodiscard]] QString getString(bool* found, QString const& key) const;
    [[nodiscard]] MachineName getMachine(bool* found, QString const& key) const;
    [[nodiscard]] QByteArray getBuffer(bool* found, QString const& key) const;
    /// Shares the nested tree.
    [[nodiscard]] XmlList getXmlList(bool* found, QString const& key) const;

    /// As the readers above; the default where they would not be found.
    [[nodiscard]] bool get(QString const& key, bool otherwise) const;
    [[nodiscard]] std::int32_t get(QString const& key, std::int32_t otherwise) const;
    [[nodiscard]] std::uint32_t get(QString const& key, std::uint32_t otherwise) const;
    [[nodiscard]] std::uint64_t get(QString const& key, std::uint64_t otherwise) const;
    [[nodiscard]] QString get(QString const& key, QString const& otherwise) const;
    [[nodiscard]] QString get(QString const& key, char const* otherwiseUtf8) const;

    [[nodiscard]] bool contains(QString const& key) const;
    /// Type of the first value under the name, None if there is none.
    [[nodiscard]] ValueTypeE type(QString const& key) const;
    /// Values in the list itself, not in those within it.
    [[nodiscard]] std::size_t size() const;
    [[nodiscard]] bool empty() const { return size() == 0; }
    /// An independent copy of the whole tree.
    [[nodiscard]] XmlList clone() const;
    /// Same values of the same types in the same order, all the way down.
    [[nodiscard]] bool operator==(XmlList const& other) const;

    /// The text form, UTF-8. Empty, with a trace, if the list is nested deeper than `maxDepth`.
    [[nodiscard]] QByteArray toXml() const;
    /// Nothing on any fault in the text: bad XML, an unknown element or type, a value that doesn't
    /// fit its type, a document type declaration, too deep or too large. `error` then gets a
    /// sentence with the line.
    [[nodiscard]] static std::optional<XmlList> fromXml(QByteArray const& text,
                                                        QString* error = nullptr);

    /// The binary form. Empty, with a trace, if the list is nested deeper than `maxDepth`.
    [[nodiscard]] QByteArray toBinary() const;
    /// Nothing if the bytes aren't exactly one whole, undamaged binary form.
    [[nodiscard]] static std::optional<XmlList> fromBinary(Extent const& bytes);
    [[nodiscard]] static std::optional<XmlList> fromBinary(QByteArray const& bytes) {
        return fromBinary(Extent(bytes));
    }

private:
    friend class XmlListIterator;
    friend struct XmlListTree;
    explicit XmlList(std::shared_ptr<XmlListTree> tree) : tree_(std::move(tree)) {}

    std::shared_ptr<XmlListTree> tree_;
};

/// A position in a list: all values in their order, or those under one name.
///
///     for (XmlListIterator entry(list, "Machine"); entry; ++entry)
///         use(entry.getString());
///
/// Holds the tree. Adding values while iterating is fine, removing them is not.
class XmlListIterator {
public:
    explicit XmlListIterator(XmlList const& list);
    XmlListIterator(XmlList const& list, QString name);

    /// Whether it stands on a value; the operations below need that.
    [[nodiscard]] explicit operator bool() const;
    XmlListIterator& operator++();

    [[nodiscard]] QString const& name() const;
    [[nodiscard]] XmlList::ValueTypeE type() const;
    /// As the getters of `XmlList`, for the value at the position.
    [[nodiscard]] bool getBool(bool* found = nullptr) const;
    [[nodiscard]] std::int32_t getInt32(bool* found = nullptr) const;
    [[nodiscard]] std::uint32_t getUint32(bool* found = nullptr) const;
    [[nodiscard]] std::uint64_t getUint64(bool* found = nullptr) const;
    [[nodiscard]] QString getString(bool* found = nullptr) const;
    [[nodiscard]] MachineName getMachine(bool* found = nullptr) const;
    [[nodiscard]] QByteArray getBuffer(bool* found = nullptr) const;
    [[nodiscard]] XmlList getXmlList(bool* found = nullptr) const;

private:
    void skipOthers();

    std::shared_ptr<XmlListTree> tree_;
    std::size_t position_ = 0;
    std::optional<QString> only_;
};

TraceLine& operator<<(TraceLine& line, XmlList::ValueTypeE type);

} // namespace Morva
