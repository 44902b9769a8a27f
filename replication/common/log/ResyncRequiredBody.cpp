#include "replication/common/log/ResyncRequiredBody.h"

#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace Replication {

namespace {

QString const listKey = QStringLiteral("ResyncRequiredList");
QString const policyKey = QStringLiteral("ResyncRequiredPolicy");
QString const sourceKey = QStringLiteral("ResyncRequiredSource");
QString const reasonKey = QStringLiteral("ResyncRequiredReason");

} // namespace

ResyncRequiredBody::ResyncRequiredBody(std::vector<std::uint32_t> policies, QString source,
                                       QString reason)
    : policies_(std::move(policies)), source_(std::move(source)), reason_(std::move(reason)) {}

ResyncRequiredBody::ResyncRequiredBody(Morva::XmlList const& body)
    : source_(body.getString(nullptr, sourceKey)), reason_(body.getString(nullptr, reasonKey)) {
    Morva::XmlList const list = body.getXmlList(nullptr, listKey);
    for (Morva::XmlListIterator entry(list); entry; ++entry) {
        if (entry.name() != policyKey) {
            MORVA_TRACE(Always) << "Unexpected entry in policy list" << entry.name();
            continue;
        }
        bool found = false;
        std::uint32_t const policy = entry.getUint32(&found);
        if (found)
            policies_.push_back(policy);
        else
            MORVA_TRACE(Always) << "Failed to get policy value";
    }
}

void ResyncRequiredBody::append(Morva::XmlList& body) const {
    Morva::XmlList list;
    for (std::uint32_t const policy : policies_)
        list.set(policyKey, policy, Morva::XmlList::SetTypeE::Add);
    body.set(listKey, list);
    body.set(sourceKey, source_);
    body.set(reasonKey, reason_);
}

void ResyncRequiredBody::add(ResyncRequiredBody const& other) {
    std::unordered_set<std::uint32_t> known(policies_.begin(), policies_.end());
    std::copy_if(other.policies_.begin(), other.policies_.end(), std::back_inserter(policies_),
                 [&known](std::uint32_t policy) { return known.insert(policy).second; });
    if (reason_.isEmpty())
        reason_ = other.reason_;
}

} // namespace Replication
