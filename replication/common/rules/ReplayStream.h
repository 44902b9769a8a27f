#pragma once

#include "replication/common/rules/DisStream.h"

namespace Replication {

/// The data operations that a stream uses of each of its policies, by policy id.
using PolicyOps = std::map<std::uint32_t, QList<DisDataOpPointer>>;

/// A cloud store that a replay stream feeds as well.
struct CloudTarget {
    QString store;
    QString provider;
    PolicyOps policies;
};

/// A stream that is replayed on this machine, into a directory or a store. Keys of the
/// "ReplayStream" item (docs/formats/rule-files.md has them all):
///
///  key                type             failure
///  ReplayId           uint32, not 0    "No or invalid replay id supplied"
///  NodeId             uint32, not 0    "No or invalid node dataflow id supplied"
///  SourceMachine      list             "No source machine supplied", "Invalid source machine
///                                      supplied"
///  Route              list             "No route supplied", "Invalid route supplied"
///  Policies           list             "No policies supplied", "Invalid policies supplied"
///  MdsPolicies        list, optional   "Invalid MDS data supplied"
///  Clouds             list, optional   "Invalid Cloud data supplied"
///  ResyncRequired     bool, optional
///  BatchMode          bool, optional
///  ClosedGracePeriod  uint32, optional; seconds, 3600 by default
class ReplayStream : public DisStream {
public:
    static constexpr std::uint32_t defaultClosedGracePeriod = 3600;

    [[nodiscard]] std::uint32_t replayId() const override { return replayId_; }
    [[nodiscard]] Morva::MachineName sourceMachine() const override { return sourceMachine_; }
    [[nodiscard]] QString target() const override { return target_; }
    /// "Repository" or "Mirror".
    [[nodiscard]] virtual QString storeType() const = 0;

    /// "OsType" of the source machine.
    [[nodiscard]] QString const& osType() const { return osType_; }
    [[nodiscard]] Morva::MsgRoute const& route() const { return route_; }
    [[nodiscard]] PolicyOps const& policyOps() const { return policyOps_; }
    [[nodiscard]] QString const& source() const { return source_; }
    /// Lower-case `source` for a mirror; as it stands for a repository.
    [[nodiscard]] QString const& sourceLower() const { return sourceLower_; }
    [[nodiscard]] QString const& storeName() const { return storeName_; }
    /// The "Distributor" on the source machine, by the way back.
    [[nodiscard]] Morva::MsgAddress const& distributor() const { return distributor_; }
    [[nodiscard]] bool needResync() const { return needResync_; }
    [[nodiscard]] bool batchMode() const { return batchMode_; }
    [[nodiscard]] bool optimizeNetXfer() const { return optimizeNetXfer_; }
    [[nodiscard]] bool fastResync() const { return fastResync_; }
    /// Those of `policyOps` unless the item has its own.
    [[nodiscard]] PolicyOps const& mdsPolicies() const { return mdsPolicies_; }
    [[nodiscard]] QList<CloudTarget> const& clouds() const { return clouds_; }
    /// Seconds for which a handle closed by a snapshot or a rule change is kept.
    [[nodiscard]] std::uint32_t closedGracePeriod() const { return closedGracePeriod_; }

protected:
    ReplayStream(Morva::XmlList const& item, DisRules const& rules);

    /// The flags and names that the "Mirror" and the "Repository" list share.
    void readTarget(Morva::XmlList const& list);

    QString source_;
    QString sourceLower_;

private:
    void readFlags(Morva::XmlList const& item);
    [[nodiscard]] bool readRoute(Morva::XmlList const& list);
    void readPolicies(Morva::XmlList const& item, DisRules const& rules);
    [[nodiscard]] bool loadPolicies(DisRules const& rules, Morva::XmlList const& list,
                                    PolicyOps& result, bool own);
    [[nodiscard]] bool loadClouds(DisRules const& rules, Morva::XmlList const& list);
    [[nodiscard]] bool loadCloud(DisRules const& rules, Morva::XmlList const& list);

    std::uint32_t replayId_ = 0;
    Morva::MachineName sourceMachine_;
    QString osType_;
    Morva::MsgRoute route_;
    PolicyOps policyOps_;
    QString target_;
    QString storeName_;
    Morva::MsgAddress distributor_;
    bool needResync_ = false;
    bool batchMode_ = false;
    bool optimizeNetXfer_ = false;
    bool fastResync_ = true;
    PolicyOps mdsPolicies_;
    QList<CloudTarget> clouds_;
    std::uint32_t closedGracePeriod_ = defaultClosedGracePeriod;
};

/// A stream into a directory of this machine.
class MirrorStream : public ReplayStream {
public:
    MirrorStream(Morva::XmlList const& item, DisRules const& rules);
    [[nodiscard]] Type type() const override { return eMirror; }
    /// "mirror-" and the store name.
    [[nodiscard]] QString name() const override;
    [[nodiscard]] QString storeType() const override { return QStringLiteral("Mirror"); }

    [[nodiscard]] bool appendSourceMachine() const { return appendSourceMachine_; }
    [[nodiscard]] bool keepDestFiles() const { return keepDestFiles_; }
    [[nodiscard]] bool keepNewest() const { return keepNewest_; }
    [[nodiscard]] bool securityOverride() const { return securityOverride_; }
    [[nodiscard]] QString const& securityUser() const { return securityUser_; }
    [[nodiscard]] QString const& securityGroup() const { return securityGroup_; }
    [[nodiscard]] std::uint32_t securityUMask() const { return securityUMask_; }

private:
    bool appendSourceMachine_ = false;
    bool keepDestFiles_ = false;
    bool keepNewest_ = false;
    bool securityOverride_ = false;
    QString securityUser_;
    QString securityGroup_;
    std::uint32_t securityUMask_ = 0;
};

/// A stream into a store. `source` is the root of the source that the store holds: "Source" of the
/// "Repository" list, "/" if that is missing.
class RepositoryStream : public ReplayStream {
public:
    RepositoryStream(Morva::XmlList const& item, DisRules const& rules);
    [[nodiscard]] Type type() const override { return eRepository; }
    /// "repository-" and the store name.
    [[nodiscard]] QString name() const override;
    [[nodiscard]] QString storeType() const override { return QStringLiteral("Repository"); }

    [[nodiscard]] bool indexSnapshots() const { return indexSnapshots_; }
    [[nodiscard]] bool dedupSnapshots() const { return dedupSnapshots_; }
    [[nodiscard]] bool dedupVersions() const { return dedupVersions_; }
    [[nodiscard]] QStringList const& dedupExclude() const { return dedupExclude_; }

private:
    bool indexSnapshots_ = true;
    bool dedupSnapshots_ = true;
    bool dedupVersions_ = true;
    QStringList dedupExclude_;
};

} // namespace Replication
