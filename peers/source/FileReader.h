#pragma once

#include "base/values/Extent.h"

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

struct stat;

namespace Replication {

/// What became of a part of an object.
enum class LogOutcome {
    Done,
    Problem,   ///< something could not be read, and has been reported
    SinkFailed ///< the walk must end
};

/// Where a file's contents go, in writes of at most `FileReader::writeSize` bytes that rise.
class ContentTarget {
public:
    /// The place for up to `size` bytes of the file at `offset`; null when the sink has failed.
    [[nodiscard]] virtual std::uint8_t* beginWrite(std::uint64_t offset, std::uint32_t size) = 0;
    /// How many of them are there. False when the sink has failed, so in the next.
    [[nodiscard]] virtual bool endWrite(std::uint8_t const* data, std::uint32_t count) = 0;
    /// The file's size, where it doesn't end in what was written.
    [[nodiscard]] virtual bool truncate(std::uint64_t size) = 0;

protected:
    ~ContentTarget() = default;
};

/// Reads the contents and the extended attributes of one object after the other, for the writers of
/// trees. Everything that can't be read is reported.
class FileReader {
public:
    static constexpr std::uint32_t writeSize = 1 << 20;

    using Report = std::function<void(int error, std::string_view what)>;
    /// Takes an attribute; false when the sink has failed.
    using Attribute = std::function<bool(std::string_view name, Morva::Extent const& value)>;

    /// Reports name what could not be read of the object at hand.
    void report(Report report) { report_ = std::move(report); }
    void report(int error, std::string_view what) const { report_(error, what); }

    /// Hands on what the file held when `status` was taken, holes left out. Cut to what was read
    /// when the file has become shorter or a part of it can't be read.
    [[nodiscard]] LogOutcome contents(int file, struct stat const& status, ContentTarget& target);
    /// Bytes of contents handed on so far by all calls.
    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }

    /// Hands on the attributes of an open file or directory, in the order of their names.
    [[nodiscard]] LogOutcome attributes(int file, Attribute const& attribute);
    /// Those of an object that can't be opened, by its name in an open directory. A symbolic link
    /// is not followed.
    [[nodiscard]] LogOutcome attributes(int directory, char const* name,
                                        Attribute const& attribute);

private:
    struct AttributeSource;

    [[nodiscard]] LogOutcome range(int file, ContentTarget& target, std::uint64_t& at,
                                   std::uint64_t end);
    [[nodiscard]] LogOutcome attributes(AttributeSource const& source, Attribute const& attribute);

    Report report_;
    std::uint64_t bytes_ = 0;
    std::vector<char> names_;
    std::vector<std::string_view> sorted_;
    std::vector<char> value_;
};

} // namespace Replication
