#include "peers/check/PageCheck.h"

#include "base/files/Journal.h"
#include "base/files/PageSums.h"
#include "base/files/RawFile.h"

#include <QFileInfo>

#include <algorithm>
#include <vector>

namespace Morva {

namespace {

constexpr std::uint32_t pageSize = PageSums::pageSize;
constexpr std::uint32_t readBytes = 256 * pageSize;

class PageCheck {
public:
    PageCheck(CheckOptions const& options, CheckReport& report)
        : options_(options), report_(report), buffer_(readBytes) {}

    void file(QString const& name) {
        auto const file = RawFile::make();
        Status opened = file->open(name, RawFile::Mode::ReadOnly);
        auto const length = opened ? file->length() : Result<std::uint64_t>(std::move(opened));
        if (!length) {
            fault(name, length.status());
            return;
        }
        for (std::uint64_t offset = 0; offset < *length; offset += readBytes) {
            auto const count =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(readBytes, *length - offset));
            if (!file->readWhole(offset, buffer_.data(), count))
                pageByPage(*file, name, offset, count);
            report_.figures.bytesRead += count;
            if (options_.progress)
                options_.progress(report_.figures.bytesRead);
        }
    }
    void fault(QString const& name, Status const& status) {
        report_.fault(FaultKind::Page, QFileInfo(name).fileName(), status.text());
    }

private:
    void pageByPage(RawFile& file, QString const& name, std::uint64_t offset, std::uint32_t count) {
        for (std::uint32_t done = 0; done < count; done += pageSize)
            if (Status read =
                    file.readWhole(offset + done, buffer_.data(), std::min(pageSize, count - done));
                !read)
                fault(name, read);
    }

    CheckOptions const& options_;
    CheckReport& report_;
    std::vector<std::uint8_t> buffer_;
};

} // namespace

void checkPages(Journal& journal, CheckOptions const& options, CheckReport& report) {
    PageCheck check(options, report);
    for (QString const& name : journal.files()) {
        bool const opens =
            journal.verifySums(name, [&](Status const& status) { check.fault(name, status); });
        if (opens && (options.readData || !name.endsWith(QLatin1String("/data.blocks"))))
            check.file(name);
    }
}

} // namespace Morva
