#pragma once

#include "peers/model/PlayedStore.h"
#include "replication/common/log/LogBuilder.h"

#include <QSet>

#include <functional>
#include <set>

namespace Morva::Model {

/// Random operations of a Windows source, done on a plain tree in memory and logged into a real
/// repository. Names differ in more than case and are spelled as they were first written; files are
/// open under numbers, of which several can mean one file.
///
/// The model holds what the store is to hold: what lies outside of the source root or is excluded
/// has no object, and a number that was opened there means nothing until something brings it in,
/// which asks for a resynchronisation of the path.
class WindowsPlayer : public PlayedStore {
public:
    WindowsPlayer(QString const& rootPath, std::uint64_t seed);
    ~WindowsPlayer() override;

    void play(int operations);
    /// As `Player::differences`; also compares the paths to be resynchronised.
    [[nodiscard]] std::string differences();

private:
    enum class Type { Valid, Excluded, Unknown };
    using Parts = std::vector<QByteArray>; ///< of a path below the source root

    /// A number that the source uses. `link` tells which name of the object it was opened by.
    struct Open {
        std::uint32_t fileId = 0;
        Type type = Type::Unknown;
        ObjectPointer object;
        int link = 0;
        QByteArray stream; ///< lower case, empty for the content
        bool marked = false;
        bool directory = false; ///< of a number that means nothing: what it stands for is one
    };
    using OpenPointer = std::shared_ptr<Open>;
    /// A name, there or not.
    struct Spot {
        ObjectPointer directory; ///< null outside and where it is excluded
        Parts parts;             ///< as spelled
        ObjectPointer object;    ///< null when there is none
        Type type = Type::Valid; ///< Unknown: outside
    };
    using Change = std::function<void(Replication::LogBuilder&)>;

    void log(Replication::LogType type, Change const& change);
    /// Logs a path value: of some case in the text, of the spelling in what is preserved.
    void logPath(Replication::LogBuilder& log, Replication::LogField field, Spot const& spot,
                 QByteArray const& stream = {});

    // Operations.
    void create();
    void openExisting();
    void reopenFile();
    void write();
    void writePath();
    void truncate();
    void validLength();
    void zero();
    void setAttributes();
    void setSecurity();
    void setExtended();
    void rename();
    void renameStream();
    void link();
    void unlink();
    void closeFile();
    void askByFilter();
    void startSnapshot();

    // What they do to the model.
    OpenPointer openNew(Spot const& spot, QByteArray const& stream, std::uint32_t attributes,
                        bool directory, QByteArray const& owner, QByteArray const& security);
    OpenPointer attach(Spot const& spot, QByteArray const& stream);
    void enter(Spot const& spot, ObjectPointer const& object, int link);
    void removeName(ObjectPointer const& directory, QByteArray const& name);
    void dropNameless(Type type);
    void dropStream(Object& object, QByteArray const& stream);
    void finish(std::function<bool(Open const&)> const& fits, bool also);
    void perform(Open const& marked);
    void ask(Parts const& parts);
    [[nodiscard]] Content* contentOf(Open const& open);
    void touch(Open const& open);

    [[nodiscard]] QByteArray randomName();
    [[nodiscard]] QByteArray randomStream();
    [[nodiscard]] QByteArray cased(QByteArray const& text);
    [[nodiscard]] Spot anySpot(bool existing, bool inside);
    [[nodiscard]] Spot spotOf(Open const& open); ///< of a number that has a name
    [[nodiscard]] OpenPointer anyOpen(std::function<bool(Open const&)> const& fits);
    [[nodiscard]] OpenPointer anyValid();
    OpenPointer& numbered(std::uint32_t fileId);
    [[nodiscard]] bool hasName(Open const& open) const { return places_.contains(open.link); }

    Replication::LogBuilder builder_;
    std::uint64_t sequence_ = 0;
    std::uint32_t lastFileId_ = 0;
    /// Which name each link is, and back, by directory and lower case.
    std::map<int, std::pair<ObjectPointer, QByteArray>> places_;
    std::map<std::pair<Object const*, QByteArray>, int> links_;
    int lastLink_ = 0;
    std::map<std::uint32_t, OpenPointer> open_;
    std::vector<OpenPointer> marked_;
    std::set<QByteArray> asked_; ///< in lower case
    std::uint64_t dirtied_ = 0;  ///< streams that were marked as not all known
};

} // namespace Morva::Model
