// What the journal knows of the checksums of its files, and how a root without them gets them.

#include "base/files/GuardedFile.h"
#include "base/files/Journal.h"
#include "base/files/JournalTable.h"
#include "base/files/PageSums.h"
#include "base/files/VerifiedContent.h"
#include "base/files/VerifiedFile.h"
#include "base/values/RandomNumber.h"

namespace Morva {

Status Journal::verifyFormat(JournalTable const& table, Format format, QString const& name) {
    auto const refused = [&name](QString const& reason) {
        return Status::failure(Status::Code::InvalidArgument, "open", name, reason);
    };
    if (table.format > JournalTable::newestFormat)
        return refused(QStringLiteral("the repository was written by a newer version, in format %1")
                           .arg(table.format));
    bool const converted = table.format == JournalTable::newestFormat && table.converted;
    if (!converted && format == Format::Newest)
        return refused(QStringLiteral("the repository is of an older format, without checksums: "
                                      "'morva upgrade' converts it"));
    return {};
}

QStringList Journal::files() const {
    std::lock_guard const hold(lock_);
    QStringList names;
    for (auto file = known_.cbegin(); file != known_.cend(); ++file)
        if (!PageSums::isSide(file.key()))
            names.append(file.key());
    names.sort();
    return names;
}

bool Journal::verifySums(QString const& name, std::function<void(Status const&)> const& fault) {
    VerifiedFile file(makeGuarded());
    Status const opened = file.open(name, RawFile::Mode::ReadOnly);
    opened ? file.verifySums(fault) : fault(opened);
    return opened.ok();
}

Status Journal::convert(std::function<Status(QString const& name)> const& step) {
    for (QString const& name : files()) {
        if (!known_.value(name).sums.isEmpty())
            continue;
        MORVA_TRY(step(name));
        auto const file = makeGuarded();
        MORVA_TRY(file->open(name, RawFile::Mode::ReadOnly));
        MORVA_TRY(adopt(*file));
        changed_ = true;
        MORVA_TRY(checkpoint());
    }
    if (converted_)
        return {};
    converted_ = changed_ = true;
    return checkpoint();
}

Status Journal::adopt(GuardedFile& file) {
    auto content = std::make_shared<VerifiedContent>(std::make_shared<PageSums>(randomNumber()));
    MORVA_TRY(content->adopt(file));
    std::lock_guard const hold(lock_);
    contents_.value(file.name())->verified(std::move(content));
    return {};
}

} // namespace Morva
