#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Morva {

enum class TraceLevel : std::uint8_t {
    Always = 0,
    Testing = 1,
    Normal = 2,
    Verbose = 3,
    Debug = 4
};

/// Streamed into a trace line: the text of an operating system error code.
struct TraceErrorCode {
    int code;
};

/// The diagnostic trace of the process: one line for each event, by source file and line.
///
/// Use the macros at the end of this file. A site whose level is off costs one relaxed load and a
/// branch and evaluates none of its operands. Lines of all threads go to one sink under one lock.
class Trace {
public:
    static constexpr std::uint32_t module = 0x400;

    /// The process's trace, null until `install`.
    [[nodiscard]] static Trace* object();
    /// How much of a trace is kept: a file that has its lines becomes "NAME.1", the one before it
    /// "NAME.2" and so on, and a new one is begun. 0 lines: one file without end.
    struct Limits {
        std::uint32_t linesPerFile = 0;
        std::uint32_t filesToKeep = 1; ///< with the one that is written
    };

    /// Makes the process's trace. An empty file name sends lines to standard error, without
    /// limits. The level is `Always` at first.
    static void install(QString const& fileName = {}) { install(fileName, Limits()); }
    static void install(QString const& fileName, Limits limits);
    static void remove();

    /// Whether a line of this level would be written.
    [[nodiscard]] static bool enabled(TraceLevel level) {
        return static_cast<int>(level) <= currentLevel.load(std::memory_order_relaxed);
    }
    [[nodiscard]] TraceLevel getLevel(std::uint32_t moduleId) const;
    void setLevel(TraceLevel level, std::uint32_t moduleId);
    /// Lowers the level; a level that is lower already stays.
    void lowerLevel(TraceLevel level, std::uint32_t moduleId);
    [[nodiscard]] static std::vector<std::pair<QString, std::uint32_t>> moduleList();

    /// Writes one finished line. Thread-safe.
    void write(TraceLevel level, char const* file, int line, std::string_view text);

    ~Trace();

private:
    Trace(QString const& fileName, Limits limits);
    void open();
    /// Begins the next file, with the lock held.
    void nextFile();

    /// -1 while there is no trace object.
    static std::atomic<int> currentLevel;

    std::mutex lock_;
    std::string const name_; ///< empty for standard error
    Limits const limits_;
    std::uint32_t lines_ = 0; ///< written to this file
    std::FILE* file_ = nullptr;
};

/// One line under construction; written when it goes out of scope. Made by the macros.
class TraceLine {
public:
    TraceLine(TraceLevel level, char const* file, int line)
        : level_(level), file_(file), line_(line) {}
    ~TraceLine();
    TraceLine(TraceLine const&) = delete;
    TraceLine& operator=(TraceLine const&) = delete;

    TraceLine& operator<<(char const* text);
    TraceLine& operator<<(std::string_view text);
    TraceLine& operator<<(QString const& text);
    TraceLine& operator<<(QByteArray const& bytes);
    TraceLine& operator<<(bool value);
    TraceLine& operator<<(void const* address);
    TraceLine& operator<<(TraceErrorCode error);
    TraceLine& operator<<(TraceLine& (*manipulator)(TraceLine&)) { return manipulator(*this); }
    template <class T>
    requires(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) TraceLine& operator<<(T value) {
        separate();
        if constexpr (sizeof(T) == 1)
            text_ << static_cast<int>(value);
        else
            text_ << value;
        return *this;
    }
    template <class T>
    requires requires(T id) {
        typename T::Value;
        id.value;
    }
    TraceLine& operator<<(T id) { return *this << id.value; }

private:
    friend TraceLine& hex(TraceLine&);
    friend TraceLine& dec(TraceLine&);
    friend TraceLine& pack(TraceLine&);
    void separate();

    TraceLevel level_;
    char const* file_;
    int line_;
    std::ostringstream text_;
    bool packed_ = true;
};

/// Format switches of a line: numbers that follow in hexadecimal or decimal; the next value
/// directly behind the one before, without the usual blank.
TraceLine& hex(TraceLine&);
TraceLine& dec(TraceLine&);
TraceLine& pack(TraceLine&);

/// Makes a whole streamed line one void expression, which fits behind a bare `if`.
struct TraceLineEnd {
    void operator&(TraceLine const&) const {}
};

/// Traces "IN:name" on construction and "OUT:name", with the result if one was noted, at its end,
/// both at level Debug. Made by MORVA_METHOD.
class MethodScope {
public:
    MethodScope(char const* name, char const* file, int line) {
        if (Trace::enabled(TraceLevel::Debug)) [[unlikely]]
            enter(name, file, line);
    }
    ~MethodScope() {
        if (name_) [[unlikely]]
            leave();
    }
    MethodScope(MethodScope const&) = delete;
    MethodScope& operator=(MethodScope const&) = delete;

    /// Notes the result for the "OUT:" line and hands it through: `return scope.result(x);`
    template <class T> T result(T value) {
        if (name_) [[unlikely]]
            note(value);
        return value;
    }

private:
    void enter(char const* name, char const* file, int line);
    void leave();
    template <class T> void note(T const& value) {
        if constexpr (requires { value.status(); }) { // a Result
            if (value.ok())
                note(*value);
            else
                result_ = "failed";
            return;
        }
        std::ostringstream text;
        if constexpr (std::is_same_v<T, bool>)
            text << (value ? "true" : "false");
        else if constexpr (requires { value.ok(); }) // a Status
            text << (value.ok() ? "true" : "false");
        else if constexpr (std::is_arithmetic_v<T>)
            text << value;
        else if constexpr (requires {
                               typename T::Value;
                               value.value;
                           })
            text << value.value;
        else if constexpr (requires { static_cast<bool>(value); })
            text << (static_cast<bool>(value) ? "set" : "null");
        result_ = text.str();
    }

    char const* name_ = nullptr;
    char const* file_ = nullptr;
    int line_ = 0;
    std::string result_;
};

} // namespace Morva

/// MORVA_TRACE(Always) << "Failed to open file" << path;   Values are parted by blanks.
#define MORVA_TRACE(level)                                                                         \
    !::Morva::Trace::enabled(::Morva::TraceLevel::level)                                           \
        ? static_cast<void>(0)                                                                     \
        : ::Morva::TraceLineEnd() &                                                                \
              ::Morva::TraceLine(::Morva::TraceLevel::level, __FILE__, __LINE__)

/// At the top of a method of note. The object is called `scope`.
#define MORVA_METHOD(name) [[maybe_unused]] ::Morva::MethodScope scope(name, __FILE__, __LINE__)

/// Traces "Error: `text' failed." at level Always when the condition does not hold; goes on.
#define MORVA_CHECK(condition, text)                                                               \
    do {                                                                                           \
        if (!(condition)) [[unlikely]]                                                             \
            MORVA_TRACE(Always) << "Error: `" << ::Morva::pack << (text) << ::Morva::pack          \
                                << "' failed.";                                                    \
    } while (false)
