#pragma once

#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

namespace Morva {

/// The outcome of an operation: success, or what failed, where, and why.
///
/// A failure is a third answer beside "found" and "not there". An operation that looks for
/// something gives a `Result<std::optional<T>>`; it uses `NotFound` only where the thing was
/// expected to exist. A failure is never turned into an empty value, an end, or "not there".
///
/// A success is a null pointer: it costs no allocation. A failure owns a small record on the heap.
/// Copying a failure copies its record. Not thread-safe; a status belongs to whoever holds it.
class [[nodiscard]] Status {
public:
    enum class Code : std::uint8_t {
        Ok,
        NotFound,        ///< what was expected to exist doesn't (ENOENT alone)
        Corruption,      ///< bytes were read, and they are wrong
        IoError,         ///< the system could not read or write
        NoSpace,         ///< the volume or the quota is full; nothing is wrong with the data
        Busy,            ///< in use by somebody else; a retry can succeed
        InvalidArgument, ///< the caller asked for something that can't be done
        ReadOnly,        ///< the file or the medium can't be written to
        Stopped          ///< the process or thread was asked to end
    };
    /// What the offset of a failure counts.
    enum class Unit : std::uint8_t { None, Byte, Page, Block, Record };
    /// A place within a file.
    struct Place {
        Unit unit;
        std::uint64_t number;
    };

    /// Success.
    Status() noexcept = default;
    Status(Status const& other);
    Status& operator=(Status const& other);
    Status(Status&&) noexcept = default;
    Status& operator=(Status&&) noexcept = default;
    ~Status() = default;

    /// A failure. `operation` is a string literal in the form "read", "open", "apply checkpoint";
    /// `reason` says what is wrong where there is no errno. `code` isn't `Ok`.
    [[nodiscard]] static Status failure(Code code, char const* operation, QString file,
                                        QString reason = {}, Place place = {});
    /// A call to the system that failed with this errno, whose code follows from it: ENOENT is
    /// `NotFound`, ENOSPC and EDQUOT `NoSpace`, EROFS `ReadOnly`, EBUSY and EWOULDBLOCK `Busy`,
    /// EINVAL `InvalidArgument`, all else `IoError`. 0 counts as EIO.
    [[nodiscard]] static Status fromErrno(int error, char const* operation, QString file,
                                          Place place = {});
    /// Wrong bytes in a file.
    [[nodiscard]] static Status corruption(char const* operation, QString file, QString reason,
                                           Place place = {}) {
        return failure(Code::Corruption, operation, std::move(file), std::move(reason), place);
    }

    [[nodiscard]] bool ok() const noexcept { return !detail_; }
    /// True for success.
    [[nodiscard]] explicit operator bool() const noexcept { return ok(); }

    [[nodiscard]] Code code() const noexcept { return detail_ ? detail_->code : Code::Ok; }
    [[nodiscard]] bool is(Code code) const noexcept { return this->code() == code; }
    /// errno of the call that failed, 0 if there was none.
    [[nodiscard]] int error() const noexcept { return detail_ ? detail_->error : 0; }
    /// Name of the file at which it failed; empty for success and where there is none.
    [[nodiscard]] QString file() const { return detail_ ? detail_->file : QString(); }
    [[nodiscard]] Place place() const noexcept { return detail_ ? detail_->place : Place{}; }
    [[nodiscard]] char const* operation() const noexcept {
        return detail_ ? detail_->operation : "";
    }

    /// Says what was being done when the failure crossed a border between layers: "restore
    /// a/b". The latest stands first in the text. Does nothing to a success.
    Status& during(QString const& what) &;
    [[nodiscard]] Status during(QString const& what) && { return std::move(this->during(what)); }

    /// Keeps the first of several failures, for operations that go on after one.
    void update(Status&& other) noexcept {
        if (ok())
            detail_ = std::move(other.detail_);
    }

    /// One line for people and traces, without a full stop:
    /// "restore a/b: read /r/data.blocks, page 7: Input/output error". Empty for success. Names
    /// are raw; whoever prints it to a terminal escapes it.
    [[nodiscard]] QString text() const;
    /// The name of a code, "I/O error".
    [[nodiscard]] static char const* name(Code code);

private:
    struct Detail {
        Code code = Code::IoError;
        int error = 0;
        char const* operation = "";
        QString file;
        QString reason;
        QString context;
        Place place;
    };

    explicit Status(Detail&& detail) : detail_(std::make_unique<Detail>(std::move(detail))) {}

    std::unique_ptr<Detail> detail_;
};

/// A value, or the failure that prevented it. The value may only be asked for after `ok()`.
template <class T> class [[nodiscard]] Result {
public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    /// From a failure; a success has no value to give.
    Result(Status failure) : state_(std::in_place_index<1>, std::move(failure)) {}

    [[nodiscard]] bool ok() const noexcept { return state_.index() == 0; }
    /// Not for a boolean result, where `if (tree.find(key))` would read as "found": ask `ok()`.
    [[nodiscard]] explicit operator bool() const noexcept requires(!std::is_same_v<T, bool>) {
        return ok();
    }

    [[nodiscard]] T& operator*() & { return *std::get_if<0>(&state_); }
    [[nodiscard]] T const& operator*() const& { return *std::get_if<0>(&state_); }
    [[nodiscard]] T&& operator*() && { return std::move(*std::get_if<0>(&state_)); }
    [[nodiscard]] T* operator->() { return std::get_if<0>(&state_); }
    [[nodiscard]] T const* operator->() const { return std::get_if<0>(&state_); }

    /// Success if there is a value.
    [[nodiscard]] Status status() const& { return ok() ? Status() : *std::get_if<1>(&state_); }
    [[nodiscard]] Status status() && {
        return ok() ? Status() : std::move(*std::get_if<1>(&state_));
    }
    [[nodiscard]] Status::Code code() const noexcept {
        return ok() ? Status::Code::Ok : std::get_if<1>(&state_)->code();
    }

private:
    std::variant<T, Status> state_;
};

/// For `MORVA_TRY`: the failure of either kind of outcome.
inline Status failureOf(Status&& status) {
    return std::move(status);
}
template <class T> Status failureOf(Result<T>&& result) {
    return std::move(result).status();
}

} // namespace Morva

/// Ends the calling function with the failure of `expression`, a Status or a Result, if it failed.
#define MORVA_TRY(expression)                                                                      \
    do {                                                                                           \
        if (auto morvaOutcome = (expression); !morvaOutcome.ok()) [[unlikely]]                     \
            return ::Morva::failureOf(std::move(morvaOutcome));                                    \
    } while (false)

#define MORVA_CONCATENATE_INNER(a, b) a##b
#define MORVA_CONCATENATE(a, b) MORVA_CONCATENATE_INNER(a, b)
#define MORVA_TRY_LET_NAMED(result, declaration, expression)                                       \
    auto result = (expression);                                                                    \
    if (!result.ok()) [[unlikely]]                                                                 \
        return ::Morva::failureOf(std::move(result));                                              \
    declaration = *std::move(result)

/// Declares or assigns `declaration` from the value of the Result `expression`, or ends the calling
/// function with its failure: `MORVA_TRY_LET(auto const length, file.length());`
#define MORVA_TRY_LET(declaration, expression)                                                     \
    MORVA_TRY_LET_NAMED(MORVA_CONCATENATE(morvaResult, __LINE__), declaration, expression)
