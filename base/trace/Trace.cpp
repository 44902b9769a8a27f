#include "base/trace/Trace.h"

#include "base/trace/TracedLock.h"
#include "base/values/PosixText.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

#include <unistd.h>

namespace Morva {

namespace {

std::atomic<Trace*> processTrace{nullptr};

/// "2026-11-22 20:43:40.123 [thread] "
std::size_t stamp(char* to, std::size_t size) {
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    auto const ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    std::time_t const seconds = ms / 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    thread_local pid_t const thread = ::gettid();
    std::size_t const length = std::strftime(to, size, "%Y-%m-%d %H:%M:%S", &local);
    return length +
           static_cast<std::size_t>(std::snprintf(to + length, size - length, ".%03d [%d] ",
                                                  static_cast<int>(ms % 1000), thread));
}

/// Text from outside (a file name) must not be able to start a line of its own.
void appendOneLine(std::string& line, std::string_view text) {
    for (char c : text) {
        if (c == '\n')
            line += "\\n";
        else if (c == '\r')
            line += "\\r";
        else
            line += c;
    }
}

} // namespace

std::atomic<int> Trace::currentLevel{-1};

Trace* Trace::object() {
    return processTrace.load(std::memory_order_acquire);
}

void Trace::install(QString const& fileName, Limits limits) {
    remove();
    processTrace.store(new Trace(fileName, limits), std::memory_order_release);
    currentLevel.store(static_cast<int>(TraceLevel::Always), std::memory_order_relaxed);
}

void Trace::remove() {
    currentLevel.store(-1, std::memory_order_relaxed);
    delete processTrace.exchange(nullptr, std::memory_order_acq_rel);
}

Trace::Trace(QString const& fileName, Limits limits)
    : name_(encodePosixText(fileName).toStdString()), limits_(limits) {
    open();
}

void Trace::open() {
    if (!name_.empty())
        file_ = std::fopen(name_.c_str(), "ae");
    if (!file_)
        file_ = stderr;
}

void Trace::nextFile() {
    std::fclose(std::exchange(file_, nullptr));
    lines_ = 0;
    auto const numbered = [this](std::uint32_t number) {
        return number == 0 ? name_ : name_ + '.' + std::to_string(number);
    };
    // The last one is overwritten by the one before it; a lone file is begun anew.
    if (limits_.filesToKeep <= 1)
        std::remove(name_.c_str());
    for (std::uint32_t to = limits_.filesToKeep; to-- > 1;)
        std::rename(numbered(to - 1).c_str(), numbered(to).c_str());
    open();
}

Trace::~Trace() {
    if (file_ != stderr)
        std::fclose(file_);
}

TraceLevel Trace::getLevel(std::uint32_t moduleId) const {
    int const level = moduleId == module ? currentLevel.load(std::memory_order_relaxed) : 0;
    return static_cast<TraceLevel>(std::max(level, 0));
}

void Trace::setLevel(TraceLevel level, std::uint32_t moduleId) {
    if (moduleId == module)
        currentLevel.store(static_cast<int>(level), std::memory_order_relaxed);
}

void Trace::lowerLevel(TraceLevel level, std::uint32_t moduleId) {
    if (level < getLevel(moduleId))
        setLevel(level, moduleId);
}

std::vector<std::pair<QString, std::uint32_t>> Trace::moduleList() {
    return {{QStringLiteral("Repository"), module}};
}

void Trace::write(TraceLevel level, char const* file, int line, std::string_view text) {
    std::array<char, 64> when;
    char const* const slash = std::strrchr(file, '/');
    std::string whole(when.data(), stamp(when.data(), when.size()));
    whole.reserve(whole.size() + text.size() + 64);
    whole.append(slash ? slash + 1 : file).append(1, '(').append(std::to_string(line)).append(") ");
    appendOneLine(whole, text);
    whole += '\n';

    std::lock_guard const hold(lock_);
    std::fwrite(whole.data(), 1, whole.size(), file_);
    if (++lines_ == limits_.linesPerFile && file_ != stderr)
        return nextFile();
    // Errors must be there after a crash; the flood of the finer levels must not cost a call each.
    if (level == TraceLevel::Always)
        std::fflush(file_);
}

TraceLine::~TraceLine() {
    if (Trace* const trace = Trace::object())
        trace->write(level_, file_, line_, text_.view());
}

void TraceLine::separate() {
    if (!packed_)
        text_ << ' ';
    packed_ = false;
}

TraceLine& TraceLine::operator<<(char const* text) {
    return *this << std::string_view(text ? text : "(null)");
}

TraceLine& TraceLine::operator<<(std::string_view text) {
    separate();
    text_ << text;
    return *this;
}

TraceLine& TraceLine::operator<<(QString const& text) {
    return *this << encodePosixText(text);
}

TraceLine& TraceLine::operator<<(QByteArray const& bytes) {
    return *this << std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

TraceLine& TraceLine::operator<<(bool value) {
    return *this << std::string_view(value ? "true" : "false");
}

TraceLine& TraceLine::operator<<(void const* address) {
    separate();
    text_ << address;
    return *this;
}

TraceLine& TraceLine::operator<<(TraceErrorCode error) {
    return *this << std::system_category().message(error.code) + " (" + std::to_string(error.code) +
                        ")";
}

TraceLine& hex(TraceLine& line) {
    line.text_ << std::hex;
    return line;
}

TraceLine& dec(TraceLine& line) {
    line.text_ << std::dec;
    return line;
}

TraceLine& pack(TraceLine& line) {
    line.packed_ = true;
    return line;
}

void MethodScope::enter(char const* name, char const* file, int line) {
    name_ = name;
    file_ = file;
    line_ = line;
    TraceLine(TraceLevel::Debug, file, line) << "IN:" << pack << name;
}

void MethodScope::leave() {
    TraceLine trace(TraceLevel::Debug, file_, line_);
    trace << "OUT:" << pack << name_;
    if (!result_.empty())
        trace << "," << result_;
}

void TracedMutex::trace(char const* text) const {
    TraceLine line(TraceLevel::Debug, __FILE__, __LINE__);
    line << text;
    if (id_ != 0)
        line << id_;
}

} // namespace Morva
