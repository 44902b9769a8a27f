#pragma once

#include "replication/common/rules/NotToBackup.h"
#include "replication/repository/store/ActiveHandles.h"
#include "replication/repository/store/SinkHandle.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Replication {

class Store;

/// What replay and resynchronisation know of a logged operation besides its path.
struct FileContext {
    std::vector<std::uint32_t> rules; ///< rules that version the path; empty means none does
    std::uint32_t ruleSet = 0;
    QString user;
    QString process;
    std::uint32_t sourceTime = 0;                       ///< seconds since 1970 at the source
    NotToBackup::OpType opType = NotToBackup::eNothing; ///< eLiveOnly: stored without versions
    bool dedup = true;
};

/// File operations by path, through which replay and resynchronisation reach a store. Failures are
/// traced at their site. NotFound: what the operation works on isn't there; InvalidArgument: it
/// doesn't fit the tree as it is, and the path asks for a resynchronisation; all else is the disk's
/// doing. A handle is never null. For the one writer of the live tree.
class PathOperations {
public:
    explicit PathOperations(Store& store);

    using Handle = Morva::Result<std::shared_ptr<SinkHandle>>;

    [[nodiscard]] Handle openStream(FileContext const& context, QStringList const& path,
                                    QString const& stream);
    /// Opens "Data", deletes every other stream but "Security", truncates "Data" to 0.
    [[nodiscard]] Handle supersede(FileContext const& context, QStringList const& path);
    [[nodiscard]] Handle addStream(FileContext const& context, QStringList const& path,
                                   QString const& stream);
    struct NewFile {
        std::uint32_t nodeType = fileType;
        std::uint32_t attributes = 0;
        QString owner;
        QByteArray security; ///< empty: no "Security" stream is made
        /// What has the name goes first, unless that and the new object are directories. A
        /// directory with names in it never goes this way.
        bool replaces = false;
    };
    /// Makes the file (and missing parents), then opens or makes the stream.
    [[nodiscard]] Handle createStream(FileContext const& context, QStringList const& path,
                                      QString const& stream, NewFile const& file);
    [[nodiscard]] Handle createObject(FileContext const& context, QStringList const& path,
                                      NewFile const& file);
    [[nodiscard]] Handle openFileRestore(FileContext const& context, QStringList const& path,
                                         NewFile const& file);
    [[nodiscard]] Morva::Status link(FileContext const& context, QStringList const& from,
                                     QStringList const& to);
    /// A name that is gone already is no failure.
    [[nodiscard]] Morva::Status unlink(FileContext const& context, QStringList const& path);
    /// What has the new name is deleted first, unless it is a directory with names in it; two names
    /// of one file stay both. A name that differs in case alone, in a store that compares without
    /// it, is spelled anew.
    [[nodiscard]] Morva::Status rename(FileContext const& context, NotToBackup const& exclusions,
                                       QStringList const& from, QStringList const& to);
    [[nodiscard]] Morva::Status write(FileContext const& context, QStringList const& path,
                                      QString const& stream, std::uint64_t offset, void const* data,
                                      std::uint32_t count,
                                      std::optional<std::uint32_t> attributes = {});
    [[nodiscard]] Morva::Status truncate(FileContext const& context, QStringList const& path,
                                         std::uint64_t size, std::uint32_t flags);

    // Through a handle. On "Data" of a directory (whose handle has no stream) they do nothing, with
    // success.
    [[nodiscard]] Morva::Status write(FileContext const& context, SinkHandle& handle,
                                      std::uint64_t offset, void const* data, std::uint32_t count);
    [[nodiscard]] Morva::Status truncate(FileContext const& context, SinkHandle& handle,
                                         std::uint64_t size, std::uint32_t flags);
    /// Replaces a whole stream of the object (as "Security", "Link", "Ea") by these bytes; an
    /// empty array removes the stream.
    [[nodiscard]] Morva::Status replaceContent(FileContext const& context, SinkHandle& handle,
                                               QString const& stream, QByteArray const& content);

private:
    struct Found {
        bool exists = false; ///< the path names an object
        DirKey key;
        ActiveHandle::Pointer handle; ///< never null if it exists
    };

    [[nodiscard]] bool isData(QString const& stream) const;
    [[nodiscard]] Morva::Result<ActiveHandle::Pointer>
    handleOf(FileContext const& context, QStringList const& path, DirKey& key);
    [[nodiscard]] Morva::Result<Found> find(FileContext const& context, QStringList const& path);
    /// The same where the object must be there.
    [[nodiscard]] Morva::Result<Found> open(FileContext const& context, QStringList const& path);
    /// `found.exists`, also on failure, tells that the object was there.
    [[nodiscard]] Morva::Status openOrCreate(FileContext const& context, QStringList const& path,
                                             NewFile const& file, Found& found);
    [[nodiscard]] Morva::Status fillNew(FileContext const& context, Found const& found,
                                        NewFile const& file);
    [[nodiscard]] static Morva::Result<std::shared_ptr<StreamHandle>>
    openOrMake(FileContext const& context, ActiveHandle& handle, LinkId link,
               QString const& stream);
    [[nodiscard]] static std::shared_ptr<SinkHandle>
    wrap(FileContext const& context, Found const& found, QStringList const& path,
         QString const& stream, std::shared_ptr<StreamHandle> streamHandle);
    [[nodiscard]] Morva::Status unlinkKey(FileContext const& context, QStringList const& path,
                                          DirKey& key);
    /// Removes what stands where another object is to be; a directory must be empty.
    [[nodiscard]] Morva::Status makeRoom(FileContext const& context, QStringList const& path,
                                         DirKey& key);
    /// Success for a directory, whose pages aren't written to by the source.
    [[nodiscard]] Morva::Status ignoreDirectory(SinkHandle const& handle) const;
    [[nodiscard]] Morva::Status replaceContent(FileContext const& context, ActiveHandle& handle,
                                               LinkId link, QString const& stream,
                                               QByteArray const& content);
    [[nodiscard]] static Morva::Result<bool> sameContent(StreamHandle& stream,
                                                         QByteArray const& content);

    Store& store_;
};

} // namespace Replication
