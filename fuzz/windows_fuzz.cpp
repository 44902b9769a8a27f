// The values of Windows objects, and whole logs of a Windows source applied to a store: whatever
// their paths, lengths and buffers say, each ends, the store stays whole, and only what names no
// file that could be asked for instead fails.
//
// An input of logs is read from its front: for each log its type, then its values in the order of
// their marshalling, a byte or a few each.

#include "fuzz/SinkPlace.h"
#include "replication/common/values/WindowsObject.h"
#include "replication/repository/replay/RepositoryWindows.h"

#include <string>
#include <vector>

using namespace Morva;
using namespace Replication;
using Fuzzing::Input;
using Fuzzing::require;

namespace {

void attributes(Extent const& record) {
    std::uint32_t left = 0;
    auto const list = WindowsAttributes::decode(record, left);
    require(left <= record.size && (list.has_value() == (left == 0)), "what is left");
    if (!list)
        return;
    auto const again = list->encode();
    auto const second = WindowsAttributes::decode(Extent(again), left);
    require(second && second->all() == list->all(), "attributes come back");
    WindowsAttributes merged;
    merged.merge(*list);
    merged.merge(*list);
    require(merged.all().size() <= list->all().size(), "names are there once");
}

void security(Extent const& descriptor) {
    if (!WindowsSecurity::valid(descriptor))
        return;
    for (std::uint32_t info = 0; info < 0x10; ++info) {
        auto const merged = WindowsSecurity::merged(descriptor, descriptor, info);
        require(WindowsSecurity::valid(Extent(merged)), "a merged descriptor is valid");
        require(WindowsSecurity::merged(Extent(merged), Extent(merged), info) == merged,
                "and stays as it is");
    }
}

/// The store of a Windows source, and what logs do to it.
struct Target : Fuzzing::SinkPlace<RepositoryWindows> {
    Target() : SinkPlace(windowsSource()) {}

    /// False when the log failed.
    [[nodiscard]] bool apply(LogBuilder& builder) {
        auto const parts = builder.encode();
        auto bytes = parts.head.toByteArray() + parts.data.toByteArray();
        Extent wire(bytes);
        LogHeader header;
        auto const log = std::make_shared<LogEntry>();
        // A path whose offsets lie beyond its text doesn't get this far.
        return !header.receive(logIo(wire)) || !log->receive(logIo(wire), header) ||
               sink->replay(log);
    }
    void check() {
        auto const root = *store->activeHandles().get(store->rootId());
        require(root && store->directories().validDirectory(*root->fileNode(), root->id()),
                "the root's names and the tree agree");
    }

private:
    static SourceRules windowsSource() {
        SourceRules source;
        source.kind = SourceKind::Windows;
        source.sourceRoot = QStringLiteral("C:\\S");
        return source;
    }
};

/// Logs whose result doesn't depend on what they say.
bool alwaysDone(LogType type) {
    switch (type) {
    case LogType::WinWritePath: // outside of the source root
    case LogType::WinUnlink:    // of the root
    case LogType::WinRename:
    case LogType::WinLink:
    case LogType::Write: // beyond the largest length
    case LogType::WinTruncate:
    case LogType::WinSetFsctl:
        return false;
    default:
        return true;
    }
}

/// Makes a log and applies it.
class Maker {
public:
    explicit Maker(Input& input) : input_(input) {}

    void run(Target& target) {
        static constexpr LogType common[] = {LogType::Close, LogType::Write};
        auto const choice = input_.byte() % 24U;
        auto const type =
            choice < 2 ? common[choice] : static_cast<LogType>(300 + (choice - 2) % 22);
        builder_.begin(type, 1).time(1700000000 + ++time_).flags(input_.byte());
        texts_.clear();
        texts_.reserve(16);
        for (auto const& value : logShape(static_cast<std::uint32_t>(type))->values)
            set(value);
        if (logSlot(static_cast<std::uint32_t>(type), LogField::Length).present() && !lies_)
            builder_.number(LogField::Length, last_);
        require(target.apply(builder_) || !alwaysDone(type), "the log is done");
    }

private:
    void set(LogValue const& value) {
        switch (value.kind) {
        case LogKind::Text:
            builder_.text(value.field, text(value.field));
            break;
        case LogKind::Bytes:
            builder_.bytes(value.field, bytes());
            break;
        default:
            builder_.number(value.field, number(value.field));
        }
    }
    [[nodiscard]] std::uint64_t number(LogField field) {
        auto const byte = input_.byte();
        switch (field) {
        case LogField::FileId:
            return byte % 4;
        case LogField::Options:
            return std::uint64_t{byte} % 7 << winDispositionShift;
        case LogField::StreamOffset: // mostly as it should be
            return byte < 0x80 ? streamOffset_ : byte - 0x80U;
        case LogField::CasePreservedStreamOffset:
            return byte < 0x80 ? preservedOffset_ : byte - 0x80U;
        case LogField::ControlCode:
            return byte < 0x80 ? winSetZeroData : byte;
        case LogField::Length:
            lies_ = byte >= 0xF0;
            return byte;
        default:
            return byte < 0xC0 ? byte : std::uint64_t{input_.word()} << (byte & 0x1F);
        }
    }
    [[nodiscard]] std::string_view text(LogField field) {
        std::string text;
        if (field == LogField::File || field == LogField::To)
            text = input_.byte() < 0xE0 ? "C:\\s\\" : "";
        auto const size = input_.byte();
        // Long names come from short inputs.
        auto const repeat = size > 0xF0 ? 200 : 1;
        std::string part;
        for (auto left = size % 16; left > 0; --left)
            if (auto const byte = static_cast<char>(input_.byte()); byte != 0)
                part += byte;
        for (int i = 0; i < repeat; ++i)
            text += part;
        auto const colon = text.find(':', text.starts_with("C:") ? 2 : 0);
        auto const offset = static_cast<std::uint32_t>(std::min(colon, text.size()));
        (field == LogField::CasePreserved ? preservedOffset_ : streamOffset_) = offset;
        return texts_.emplace_back(std::move(text));
    }
    [[nodiscard]] Extent bytes() {
        std::string value;
        for (auto left = input_.byte() % 64; left > 0; --left)
            value += static_cast<char>(input_.byte());
        last_ = value.size();
        auto const& kept = texts_.emplace_back(std::move(value));
        return {kept.data(), static_cast<std::uint32_t>(kept.size())};
    }

    Input& input_;
    LogBuilder builder_;
    std::vector<std::string> texts_;
    std::uint32_t streamOffset_ = 0;
    std::uint32_t preservedOffset_ = 0;
    std::uint64_t last_ = 0; ///< bytes of the last buffer
    bool lies_ = false;
    std::uint32_t time_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    auto const kind = input.byte();
    Extent const rest(input.data(), static_cast<std::uint32_t>(input.size()));
    if (kind == 'a') {
        attributes(rest);
        return 0;
    }
    if (kind == 's') {
        security(rest);
        return 0;
    }
    thread_local Target target;
    Maker maker(input);
    for (int left = 60; left > 0 && input.size() != 0; --left)
        maker.run(target);
    target.check();
    target.empty();
    return 0;
}
