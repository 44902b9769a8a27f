#include "base/values/Status.h"

#include <cerrno>
#include <system_error>

namespace Morva {

namespace {

Status::Code codeOf(int error) {
    switch (error) {
    case ENOENT:
        return Status::Code::NotFound;
    case ENOSPC:
    case EDQUOT:
        return Status::Code::NoSpace;
    case EROFS:
        return Status::Code::ReadOnly;
    case EBUSY:
    case EWOULDBLOCK:
        return Status::Code::Busy;
    case EINVAL:
        return Status::Code::InvalidArgument;
    default:
        return Status::Code::IoError;
    }
}

QString placeText(Status::Place place) {
    char const* unit = "";
    switch (place.unit) {
    case Status::Unit::None:
        return {};
    case Status::Unit::Byte:
        unit = "byte";
        break;
    case Status::Unit::Page:
        unit = "page";
        break;
    case Status::Unit::Block:
        unit = "block";
        break;
    case Status::Unit::Record:
        unit = "record";
        break;
    }
    return QStringLiteral(", %1 %2").arg(QLatin1String(unit)).arg(place.number);
}

} // namespace

Status::Status(Status const& other)
    : detail_(other.detail_ ? std::make_unique<Detail>(*other.detail_) : nullptr) {}

Status& Status::operator=(Status const& other) {
    return *this = Status(other);
}

Status Status::failure(Code code, char const* operation, QString file, QString reason,
                       Place place) {
    Detail detail;
    detail.code = code;
    detail.operation = operation;
    detail.file = std::move(file);
    detail.reason = std::move(reason);
    detail.place = place;
    return Status(std::move(detail));
}

Status Status::fromErrno(int error, char const* operation, QString file, Place place) {
    if (error == 0)
        error = EIO;
    Status status = failure(codeOf(error), operation, std::move(file), {}, place);
    status.detail_->error = error;
    return status;
}

Status& Status::during(QString const& what) & {
    if (detail_)
        detail_->context.prepend(what + QStringLiteral(": "));
    return *this;
}

QString Status::text() const {
    if (ok())
        return {};
    QString line = detail_->context + QLatin1String(detail_->operation);
    if (!detail_->file.isEmpty())
        line += u' ' + detail_->file;
    line += placeText(detail_->place) + QStringLiteral(": ");
    if (!detail_->reason.isEmpty())
        return line + detail_->reason;
    // Thread-safe, unlike strerror.
    return line + (detail_->error != 0
                       ? QString::fromStdString(std::generic_category().message(detail_->error))
                       : QString::fromLatin1(name(detail_->code)));
}

char const* Status::name(Code code) {
    switch (code) {
    case Code::Ok:
        return "success";
    case Code::NotFound:
        return "not found";
    case Code::Corruption:
        return "corrupt";
    case Code::IoError:
        return "I/O error";
    case Code::NoSpace:
        return "no space";
    case Code::Busy:
        return "busy";
    case Code::InvalidArgument:
        return "invalid argument";
    case Code::ReadOnly:
        return "read-only";
    case Code::Stopped:
        return "stopped";
    }
    return "unknown failure";
}

} // namespace Morva
