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

/// File operations by path, through which replay and resynchronisation reach a store. A null
/// handle or false means failure, traced at its site. For the one writer of the live tree.
class PathOperations {
public:
    explicit PathOperations(Store& store);

    [[nodiscard]] std::shared_ptr<SinkHandle>
    openStream(FileContext const& context, QStringList const& path, QString const& stream);
    /// Opens "Data", deletes every other stream but "Security", truncates "Data" to 0.
    [[nodiscard]] std::shared_ptr<SinkHandle> supersede(FileContext const& context,
                                                        QStringList const& path);
    [[nodiscard]] std::shared_ptr<SinkHandle>
    addStream(FileContext const& context, QStringList const& path, QString const& stream);
    struct NewFile {
        std::uint32_t nodeType = fileType;
        std::uint32_t attributes = 0;
        QString owner;
        QByteArray security; ///< empty: no "Security" stream is made
        /// What has the name goes first, unless that and the new object are directories.
        bool replaces = false;
    };
    /// Makes the file (and missing parents), then opens or makes the stream.
    [[nodiscard]] std::shared_ptr<SinkHandle> createStream(FileContext const& context,
                                                           QStringList const& path,
                                                           QString const& stream,
                                                           NewFile const& file);
    [[nodiscard]] std::shared_ptr<SinkHandle>
    createObject(FileContext const& context, QStringList const& path, NewFile const& file);
    [[nodiscard]] std::shared_ptr<SinkHandle>
    openFileRestore(FileContext const& context, QStringList const& path, NewFile const& file);
    [[nodiscard]] bool link(FileContext const& context, QStringList const& from,
                            QStringList const& to);
    /// A name that is gone already is no failure.
    [[nodiscard]] bool unlink(FileContext const& context, QStringList const& path);
    /// What has the new name is deleted first; two names of one file stay both. A name that
    /// differs in case alone, in a store that compares without it, is spelled anew.
    [[nodiscard]] bool rename(FileContext const& context, NotToBackup const& exclusions,
                              QStringList const& from, QStringList const& to);
    [[nodiscard]] bool write(FileContext const& context, QStringList const& path,
                             QString const& stream, std::uint64_t offset, void const* data,
                             std::uint32_t count, std::optional<std::uint32_t> attributes = {});
    [[nodiscard]] bool truncate(FileContext const& context, QStringList const& path,
                                std::uint64_t size, std::uint32_t flags);

    // Through a handle. False on failure. On "Data" of a directory (whose handle has no stream)
    // they do nothing and are true.
    [[nodiscard]] bool write(FileContext const& context, SinkHandle& handle, std::uint64_t offset,
                             void const* data, std::uint32_t count);
    [[nodiscard]] bool truncate(FileContext const& context, SinkHandle& handle, std::uint64_t size,
                                std::uint32_t flags);
    /// Replaces a whole stream of the object (as "Security", "Link", "Ea") by these bytes; an
    /// empty array removes the stream.
    [[nodiscard]] bool replaceContent(FileContext const& context, SinkHandle& handle,
                                      QString const& stream, QByteArray const& content);

private:
    struct Found {
        bool exists = false; ///< the path names an object
        bool failed = false; ///< the disk failed: nothing is known
        DirKey key;
        ActiveHandle::Pointer handle; ///< null on failure
    };

    [[nodiscard]] bool isData(QString const& stream) const;
    [[nodiscard]] ActiveHandle::Pointer handleOf(FileContext const& context,
                                                 QStringList const& path, DirKey& key);
    [[nodiscard]] Found find(FileContext const& context, QStringList const& path);
    [[nodiscard]] Found openOrCreate(FileContext const& context, QStringList const& path,
                                     NewFile const& file);
    [[nodiscard]] bool fillNew(FileContext const& context, Found const& found, NewFile const& file);
    [[nodiscard]] static std::shared_ptr<StreamHandle> openOrMake(FileContext const& context,
                                                                  ActiveHandle& handle, LinkId link,
                                                                  QString const& stream);
    [[nodiscard]] static std::shared_ptr<SinkHandle>
    wrap(FileContext const& context, Found const& found, QStringList const& path,
         QString const& stream, std::shared_ptr<StreamHandle> streamHandle);
    [[nodiscard]] bool unlinkKey(FileContext const& context, QStringList const& path, DirKey& key);
    /// True for a directory, whose pages aren't written to by the source.
    [[nodiscard]] bool ignoreDirectory(SinkHandle const& handle) const;
    [[nodiscard]] bool replaceContent(FileContext const& context, ActiveHandle& handle, LinkId link,
                                      QString const& stream, QByteArray const& content);
    [[nodiscard]] static bool sameContent(StreamHandle& stream, QByteArray const& content);

    Store& store_;
};

} // namespace Replication
