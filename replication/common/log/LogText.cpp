#include "replication/common/log/LogEntry.h"
#include "replication/common/log/SecurityText.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace Replication {

namespace {

constexpr std::size_t maximumRulesText = 511;

__attribute__((format(printf, 1, 2))) std::string printed(char const* format, ...) {
    char text[160];
    std::va_list values;
    va_start(values, format);
    int const length = std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return {text, std::min(static_cast<std::size_t>(length), sizeof text - 1)};
}

std::string escaped(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (char const byte : bytes) {
        auto const code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7F)
            text += printed("\\x%02x", code);
        else
            text += byte;
    }
    return text;
}

/// The format with its one %s replaced.
std::string withText(std::string_view format, std::string_view value) {
    std::size_t const at = format.find("%s");
    std::string text(format.substr(0, at));
    return text.append(value).append(format.substr(at + 2));
}

std::string withNumber(char const* format, LogKind kind, std::uint64_t value) {
    char text[96];
    int const length =
        kind == LogKind::U64
            ? std::snprintf(text, sizeof text, format, static_cast<unsigned long long>(value))
            : std::snprintf(text, sizeof text, format, static_cast<unsigned>(value));
    return {text, static_cast<std::size_t>(length)};
}

std::string rulesText(std::span<std::uint32_t const> rules) {
    if (rules.empty())
        return "None";
    std::string text;
    for (std::uint32_t const rule : rules) {
        if (!text.empty())
            text += ',';
        text += printed("%04u", rule);
        if (text.size() > maximumRulesText)
            break;
    }
    return text.substr(0, maximumRulesText);
}

std::string firstLine(LogEntry const& log) {
    constexpr std::uint32_t secondsPerDay = 24 * 60 * 60;
    std::uint32_t const time = log.time() % secondsPerDay;
    std::string process = escaped(log.process());
    constexpr std::size_t processWidth = 9;
    if (process.size() < processWidth)
        process.resize(processWidth, ' ');
    return printed("SEQ:0x%08x%08x RULESET:%d RULES=",
                   static_cast<unsigned>(log.sequenceNumber() >> 32),
                   static_cast<unsigned>(log.sequenceNumber()), static_cast<int>(log.ruleSet())) +
           rulesText(log.rules()) +
           printed(" PKT:%2d FLAGS:0x%04x PROC:'", static_cast<int>(log.type()), log.flags()) +
           process +
           printed("' TIME:%02d:%02d:%02d", static_cast<int>(time / 3600),
                   static_cast<int>(time / 60 % 60), static_cast<int>(time % 60));
}

std::string secondLineStart(LogEntry const& log, char const* name) {
    return printed("%-8s:: ", name) + escaped(log.process()) +
           printed(" SHC:%lld", static_cast<long long>(log.shc()));
}

std::string valueText(LogEntry const& log, LogValue const& value) {
    switch (value.print) {
    case LogPrint::Hidden:
        return {};
    case LogPrint::Number:
        return withNumber(value.format, value.kind,
                          value.kind == LogKind::Bytes ? log.bytes(value.field).size
                                                       : log.wide(value.field));
    case LogPrint::Text:
        return withText(value.format, escaped(log.text(value.field)));
    case LogPrint::SecurityDescriptor: {
        Morva::Extent const descriptor = log.bytes(value.field);
        return withText(value.format, securityDescriptorText(descriptor)) +
               printed(" SECLEN:%u", descriptor.size);
    }
    case LogPrint::Times: {
        auto const times = FileTimes::unpack(log.bytes(value.field));
        return times ? withText(value.format, times->access.text() + ',' +
                                                  times->modification.text() + ',' +
                                                  times->change.text())
                     : std::string();
    }
    case LogPrint::Sid:
        return withText(value.format, sidText(log.bytes(value.field)));
    }
    return {};
}

} // namespace

std::string LogEntry::headerText() const {
    return firstLine(*this) + '\n' + secondLineStart(*this, "HEADER ONLY") +
           printed(" MESSAGE:%d", static_cast<int>(frame_->type));
}

std::string LogEntry::toText() const {
    LogShape const* const shape = logShape(frame_->type);
    if (!shape || !valuesRead_)
        return headerText();
    std::string text = firstLine(*this);
    if (!shape->printed)
        return text;
    text += '\n' + secondLineStart(*this, shape->name);
    for (LogValue const& value : shape->values)
        text += valueText(*this, value);
    return text;
}

} // namespace Replication
