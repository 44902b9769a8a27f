// Logs of a mail store, in any order and of any content, replayed into a store. What is stored is
// compared with a plain map of what the logs that were applied say.
//
// An input is a row of logs: the operation, a sequence text, a path or stream by number, an offset,
// a length. Operation 7 takes raw bytes as the body of a log.

#include "base/values/PosixText.h"
#include "fuzz/SinkPlace.h"
#include "replication/repository/replay/RepositoryExchange.h"
#include "replication/repository/store/NodeFile.h"
#include "replication/repository/streams/Cleanup.h"
#include "replication/repository/streams/StreamHandle.h"

#include <map>
#include <memory>

using namespace Replication;
using Morva::Extent;
using Morva::Fuzzing::Input;
using Morva::Fuzzing::require;
using Morva::Fuzzing::SinkPlace;

namespace {

char const* const sequences[] = {"1", "2", "", "a text that is longer than most", "\xFF"};
/// Some are one in a store that compares without case, some are out of place.
char const* const paths[] = {"/mail/a",    "/Mail/A",     "/mail/b",     "/mail/f/a", "/mail/F/B",
                             "/mail/f",    "/mail",       "/mail/",      "/mailing",  "",
                             "/mail/\xFF", "/mail/f/g/h", "/mail/f//g/h"};
char const* const streams[] = {"Data", "data", "Body", "BODY", "Security", "", "\xFE", "Flags"};
constexpr std::uint32_t maximumLogs = 200;
constexpr std::uint32_t maximumOffset = 20000;

QString text(char const* bytes) {
    return Morva::decodePosixText(bytes);
}

/// The store of a mail source, and what logs do to it.
struct Place : SinkPlace<RepositoryExchange> {
    Place() : SinkPlace(mailSource()) {}

    /// Whether the log was applied.
    template <class Change> bool apply(LogType type, Change&& change) {
        builder.begin(type, ++sequence).time(1000);
        change(builder);
        return take(builder) == DataSink::Outcome::Applied;
    }
    void raw(Input& input) {
        QByteArray bytes(reinterpret_cast<char const*>(input.data()),
                         static_cast<qsizetype>(input.size()));
        Extent source(bytes);
        auto const log = std::make_shared<LogEntry>();
        if (log->receive(logIo(source), static_cast<std::uint32_t>(bytes.size())) &&
            log->sequenceNumber() == 0 && log->type() >= LogType::Close)
            (void)sink->replay(log);
    }

    LogBuilder builder;

private:
    static SourceRules mailSource() {
        SourceRules source;
        source.sourceRoot = QStringLiteral("/mail");
        return source;
    }
};

/// What the logs say.
struct Object {
    std::map<QString, QByteArray> streams{{QStringLiteral("data"), QByteArray()}};
};
using ObjectPointer = std::shared_ptr<Object>;

class Mail {
public:
    explicit Mail(Place& place) : place_(place) {}

    void step(Input& input) {
        auto const operation = input.byte() % 8;
        auto const* const sequence = sequences[input.byte() % std::size(sequences)];
        auto const choice = input.byte();
        auto const* const path = paths[choice % std::size(paths)];
        auto const* const stream = streams[choice % std::size(streams)];
        switch (operation) {
        case 0:
            return open(sequence, path);
        case 1:
            return makeStream(sequence, stream);
        case 2:
        case 3:
            return write(sequence, stream, input.word() % maximumOffset, input.byte() * 16);
        case 4:
            require(place_.apply(LogType::ExchangeCloseObject,
                                 [&](LogBuilder& log) { log.text(LogField::Sque, sequence); }),
                    "a close is always done");
            open_.erase(sequence);
            return;
        case 5:
            return remove(path);
        case 6:
            return;
        default:
            // Its effects are not foreseen.
            place_.raw(input);
            foreseen_ = false;
        }
    }
    [[nodiscard]] bool foreseen() const { return foreseen_; }

    void compare() const {
        for (auto const& [path, object] : objects_) {
            auto const located =
                *place_.store->directories().locate(path.split(u'/'), PathMode::DoNotBuildPath);
            require(located.found, "an object is there");
            auto const handle = *place_.store->activeHandles().get(located.key.fileId());
            require(handle && handle->fileNode()->streamIds().size() == object->streams.size(),
                    "an object's streams");
            for (auto const& [name, content] : object->streams) {
                auto const opened = *handle->fileNode()->openStream(name);
                require(opened && opened->length() == static_cast<std::uint64_t>(content.size()),
                        "a stream's length");
                QByteArray stored(content.size(), '\0');
                require(opened->read(0, stored.data(), static_cast<std::uint32_t>(stored.size())) ==
                                static_cast<std::uint32_t>(stored.size()) &&
                            stored == content,
                        "a stream's content");
            }
        }
    }

private:
    /// The parts of a path in lower case; nothing for one outside.
    static std::optional<QStringList> translated(char const* path) {
        auto whole = text(path).toLower();
        if (whole != u"/mail" && !whole.startsWith(u"/mail/"))
            return {};
        return whole.mid(5).split(u'/', Qt::SkipEmptyParts);
    }
    [[nodiscard]] bool isFolder(QString const& path) const {
        for (auto const& folder : folders_)
            if (folder == path)
                return true;
        return path.isEmpty();
    }

    void open(char const* sequence, char const* path) {
        bool const done = place_.apply(LogType::ExchangeCreateObject, [&](LogBuilder& log) {
            log.text(LogField::Sque, sequence).text(LogField::ObjectPath, path);
        });
        auto const parts = translated(path);
        auto& entered = open_[sequence];
        entered = nullptr;
        if (!parts)
            return require(done, "what is outside is passed over");
        QStringList above;
        bool possible = !isFolder(parts->join(u'/'));
        for (auto const& part : parts->first(std::max<qsizetype>(parts->size() - 1, 0))) {
            above += part;
            possible = possible && !objects_.contains(above.join(u'/'));
            if (possible && !isFolder(above.join(u'/')))
                folders_ += above.join(u'/');
        }
        require(done == possible, "an object is made where it can be");
        if (!done)
            return;
        auto& object = objects_[parts->join(u'/')];
        if (!object)
            object = std::make_shared<Object>();
        entered = object;
    }
    /// Null with `known`: the logs of this sequence are passed over.
    [[nodiscard]] ObjectPointer find(char const* sequence, bool& known) const {
        auto const found = open_.find(sequence);
        known = found != open_.end();
        return known ? found->second : nullptr;
    }
    void makeStream(char const* sequence, char const* name) {
        bool known = false;
        auto const object = find(sequence, known);
        bool const done = place_.apply(LogType::ExchangeCreateStream, [&](LogBuilder& log) {
            log.text(LogField::Sque, sequence).text(LogField::Stream, name);
        });
        // A log with an empty name brings what can't be stored: it is taken, and left out.
        require(done == known, "a stream is made");
        if (object && *name != '\0')
            object->streams.try_emplace(text(name).toLower());
    }
    void write(char const* sequence, char const* name, std::uint32_t offset, std::uint32_t size) {
        bool known = false;
        auto const object = find(sequence, known);
        QByteArray const data(static_cast<qsizetype>(size), static_cast<char>(offset));
        bool const done = place_.apply(LogType::ExchangeWriteStream, [&](LogBuilder& log) {
            log.text(LogField::Sque, sequence).text(LogField::Stream, name);
            log.number(LogField::Offset, offset).bytes(LogField::Data, Extent(data));
        });
        auto const there = object && object->streams.contains(text(name).toLower());
        require(done == (known && (!object || there || *name == '\0')), "a write is done");
        if (!there || size == 0)
            return;
        auto& content = object->streams[text(name).toLower()];
        auto const end = static_cast<qsizetype>(offset + size);
        if (content.size() < end)
            content.append(end - content.size(), '\0');
        content.replace(static_cast<qsizetype>(offset), data.size(), data);
    }
    void remove(char const* path) {
        bool const done = place_.apply(LogType::ExchangeDeleteObject, [&](LogBuilder& log) {
            log.text(LogField::ObjectPath, path);
        });
        auto const parts = translated(path);
        require(done == (!parts || !parts->isEmpty()), "an object goes");
        if (!parts || parts->isEmpty())
            return;
        auto const gone = parts->join(u'/');
        std::erase_if(objects_, [&](auto const& each) {
            return each.first == gone || each.first.startsWith(gone + u'/');
        });
        folders_.removeIf(
            [&](QString const& each) { return each == gone || each.startsWith(gone + u'/'); });
    }

    Place& place_;
    std::map<QString, ObjectPointer> objects_; ///< by path below the root
    QStringList folders_;
    std::map<std::string, ObjectPointer> open_;
    bool foreseen_ = true;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    thread_local Place place;
    static auto const emptyNodes = place.store->nodes().freeBlocks();
    static auto const allNodes = place.store->nodes().totalBlocks();
    Input input(data, size);
    Mail mail(place);
    for (std::uint32_t i = 0; i < maximumLogs && input.size() != 0 && mail.foreseen(); ++i)
        mail.step(input);
    if (mail.foreseen())
        mail.compare();
    place.empty();
    require(place.store->nodes().totalBlocks() - place.store->nodes().freeBlocks() ==
                allNodes - emptyNodes,
            "every node is given back");
    static int runs = 0;
    if (++runs % 64 == 0)
        require(CleanupWorker(place.pool).drain(), "cleanup");
    return 0;
}
