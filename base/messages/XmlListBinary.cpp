#include "base/messages/XmlListTree.h"

#include "base/trace/Trace.h"
#include "base/values/LittleEndian.h"

#include <array>
#include <limits>

// The binary form. Numbers of the frame are little-endian, counts and integers of the items are
// variable: seven bits a byte, low ones first, the top bit set in all bytes but the last.
//
//  off  size  field    meaning
//    0     4  magic    "MXL1"
//    4     4  size     bytes of the body
//    8     4  check    CRC-32 (ISO 3309) of the body
//   12  size  body     one list: a count, then that many items
//
//  item: tag (1 byte, the number of XmlList::ValueTypeE), name (text), value
//  text: count * 2 + wide, then count Latin-1 bytes, or count UTF-16 units if wide is 1
//
//  tag  value                      tag  value
//    1  list: count, items           5  uint32: variable
//    2  string: text                 6  uint64: variable
//    3  bool: one byte, 0 or 1       7  machine: name (text), id (variable)
//    4  int32: 4 bytes               8  buffer: count, bytes

namespace Morva {

namespace {

using Tree = XmlListTree;
using TreePointer = std::shared_ptr<Tree>;

constexpr std::uint32_t magic = 0x314C584D;
constexpr qsizetype headerBytes = 12;
/// No item is shorter: a tag, an empty name, a value of one byte.
constexpr std::size_t leastItemBytes = 3;

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t n = 0; n < 256; ++n) {
        std::uint32_t c = n;
        for (int bit = 0; bit < 8; ++bit)
            c = (c & 1) ? 0xEDB88320U ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}

std::uint32_t crc32(std::uint8_t const* bytes, std::size_t count) {
    static constexpr auto table = makeCrcTable();
    std::uint32_t c = 0xFFFFFFFFU;
    for (std::size_t i = 0; i < count; ++i)
        c = table[(c ^ bytes[i]) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFU;
}

class Writer {
public:
    QByteArray bytes = QByteArray(headerBytes, '\0');

    [[nodiscard]] bool list(Tree const& tree, int depth) {
        if (depth > XmlList::maxDepth)
            return false;
        number(tree.items.size());
        for (auto const& item : tree.items) {
            bytes.append(static_cast<char>(Tree::type(item.value)));
            text(item.name);
            if (!std::visit([&](auto const& held) { return value(held, depth); }, item.value))
                return false;
        }
        return true;
    }

private:
    void number(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7)
            bytes.append(static_cast<char>(value | 0x80));
        bytes.append(static_cast<char>(value));
    }
    void text(QString const& value) {
        bool wide = false;
        for (QChar const c : value)
            wide = wide || c.unicode() > 0xFF;
        number(static_cast<std::uint64_t>(value.size()) * 2 + (wide ? 1 : 0));
        for (QChar const c : value) {
            bytes.append(static_cast<char>(c.unicode() & 0xFF));
            if (wide)
                bytes.append(static_cast<char>(c.unicode() >> 8));
        }
    }
    bool value(bool held, int) {
        bytes.append(held ? '\1' : '\0');
        return true;
    }
    bool value(std::int32_t held, int) {
        char raw[4];
        storeLittle(raw, static_cast<std::uint32_t>(held));
        bytes.append(raw, sizeof raw);
        return true;
    }
    bool value(std::uint32_t held, int) { return number(held), true; }
    bool value(std::uint64_t held, int) { return number(held), true; }
    bool value(QString const& held, int) { return text(held), true; }
    bool value(MachineName const& held, int) {
        text(held.name());
        number(held.id());
        return true;
    }
    bool value(QByteArray const& held, int) {
        number(static_cast<std::uint64_t>(held.size()));
        bytes.append(held);
        return true;
    }
    bool value(TreePointer const& held, int depth) { return list(*held, depth + 1); }
};

class Reader {
public:
    Reader(std::uint8_t const* bytes, std::size_t count) : next_(bytes), left_(count) {}

    [[nodiscard]] bool done() const { return left_ == 0; }

    [[nodiscard]] bool list(Tree& tree, int depth) {
        std::uint64_t count = 0;
        if (depth > XmlList::maxDepth || !number(count) || count > left_ / leastItemBytes)
            return false;
        for (; count > 0; --count) {
            Tree::Item item;
            std::uint8_t const* tag = take(1);
            if (!tag || !text(item.name) || !value(*tag, item.value, depth))
                return false;
            tree.items.push_back(std::move(item));
        }
        return true;
    }

private:
    std::uint8_t const* take(std::size_t count) {
        if (count > left_)
            return nullptr;
        auto const* bytes = next_;
        next_ += count;
        left_ -= count;
        return bytes;
    }
    bool number(std::uint64_t& value) {
        value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            auto const* byte = take(1);
            if (!byte || (shift == 63 && *byte > 1))
                return false;
            value |= static_cast<std::uint64_t>(*byte & 0x7F) << shift;
            if (!(*byte & 0x80))
                return true;
        }
        return false;
    }
    bool text(QString& value) {
        std::uint64_t header = 0;
        if (!number(header))
            return false;
        std::uint64_t const count = header >> 1;
        bool const wide = header & 1;
        if (count > left_ / (wide ? 2 : 1))
            return false;
        auto const* bytes = take(static_cast<std::size_t>(wide ? count * 2 : count));
        if (!bytes)
            return false;
        if (!wide) {
            value = QString::fromLatin1(reinterpret_cast<char const*>(bytes),
                                        static_cast<qsizetype>(count));
            return true;
        }
        value.resize(static_cast<qsizetype>(count));
        for (qsizetype i = 0; i < value.size(); ++i)
            value[i] = QChar(static_cast<char16_t>(loadLittle<std::uint16_t>(bytes + 2 * i)));
        return true;
    }
    bool value(std::uint8_t tag, Tree::Value& value, int depth) {
        std::uint64_t raw = 0;
        switch (static_cast<XmlList::ValueTypeE>(tag)) {
        case XmlList::ValueTypeE::List: {
            auto tree = std::make_shared<Tree>();
            bool const fine = list(*tree, depth + 1);
            value = std::move(tree);
            return fine;
        }
        case XmlList::ValueTypeE::String: {
            QString held;
            bool const fine = text(held);
            value = std::move(held);
            return fine;
        }
        case XmlList::ValueTypeE::Bool: {
            auto const* byte = take(1);
            value = byte && *byte == 1;
            return byte && *byte <= 1;
        }
        case XmlList::ValueTypeE::Int32: {
            auto const* bytes = take(4);
            value = bytes ? static_cast<std::int32_t>(loadLittle<std::uint32_t>(bytes)) : 0;
            return bytes != nullptr;
        }
        case XmlList::ValueTypeE::Uint32:
            if (!number(raw) || raw > std::numeric_limits<std::uint32_t>::max())
                return false;
            value = static_cast<std::uint32_t>(raw);
            return true;
        case XmlList::ValueTypeE::Uint64:
            if (!number(raw))
                return false;
            value = raw;
            return true;
        case XmlList::ValueTypeE::Machine: {
            QString name;
            if (!text(name) || !number(raw) || raw > std::numeric_limits<std::uint32_t>::max())
                return false;
            value = MachineName(name, static_cast<std::uint32_t>(raw));
            return true;
        }
        case XmlList::ValueTypeE::Buffer: {
            auto const* bytes = number(raw) && raw <= left_ ? take(raw) : nullptr;
            if (!bytes)
                return false;
            value = QByteArray(reinterpret_cast<char const*>(bytes), static_cast<qsizetype>(raw));
            return true;
        }
        case XmlList::ValueTypeE::None:
            break;
        }
        return false;
    }

    std::uint8_t const* next_;
    std::size_t left_;
};

} // namespace

QByteArray XmlList::toBinary() const {
    Writer writer;
    if (!writer.list(*tree_, 0) || writer.bytes.size() > maxFormBytes) {
        MORVA_TRACE(Always) << "A list is nested too deep or too large for its binary form";
        return {};
    }
    auto* bytes = reinterpret_cast<std::uint8_t*>(writer.bytes.data());
    auto const bodyBytes = static_cast<std::uint32_t>(writer.bytes.size() - headerBytes);
    storeLittle(bytes, magic);
    storeLittle(bytes + 4, bodyBytes);
    storeLittle(bytes + 8, crc32(bytes + headerBytes, bodyBytes));
    return writer.bytes;
}

std::optional<XmlList> XmlList::fromBinary(Extent const& form) {
    if (form.size < headerBytes || form.size > maxFormBytes)
        return std::nullopt;
    auto const* bytes = form.bytes();
    std::uint32_t const bodyBytes = form.size - headerBytes;
    if (loadLittle<std::uint32_t>(bytes) != magic ||
        loadLittle<std::uint32_t>(bytes + 4) != bodyBytes ||
        loadLittle<std::uint32_t>(bytes + 8) != crc32(bytes + headerBytes, bodyBytes))
        return std::nullopt;
    auto tree = std::make_shared<Tree>();
    Reader reader(bytes + headerBytes, bodyBytes);
    if (!reader.list(*tree, 0) || !reader.done())
        return std::nullopt;
    return XmlList(std::move(tree));
}

} // namespace Morva
