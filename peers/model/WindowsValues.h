#pragma once

#include "peers/model/Model.h"

#include <QByteArray>

namespace Morva::Model {

/// The form in which two Windows names are one.
[[nodiscard]] QByteArray lower(QByteArray const& text);
/// The entry of a name in a directory, however it is spelled; the end when there is none.
[[nodiscard]] std::map<QByteArray, ObjectPointer>::iterator findName(Object& directory,
                                                                     QByteArray const& name);

/// A SID with that last number.
[[nodiscard]] QByteArray sid(char number);
/// A self-relative descriptor of three parts: owner, group and access list, each a digit, '0' for
/// none.
[[nodiscard]] QByteArray descriptor(QByteArray const& parts);

} // namespace Morva::Model
