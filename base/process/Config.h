#pragma once

#include "base/messages/XmlList.h"
#include "base/trace/Trace.h"

#include <QStringList>

#include <utility>
#include <vector>

namespace Morva {

/// A configuration file: a list in its text form, and whether the file could be read.
class Config : public XmlList {
public:
    /// An empty list that is not usable.
    Config() = default;
    /// Reads a file. One that is absent, unreadable, malformed or not what its sum was made of
    /// gives an empty list that is not usable; all but the first are traced at level Always.
    [[nodiscard]] static Config load(QString const& path);
    /// Writes a list as a file, whole or not at all: a new file is written, synced and put in
    /// place of the old one. False, with a trace, on failure; then the old file is as it was, or
    /// the new one is there and a loss of power may take it back. With `Sum` it ends with a line by
    /// which damage is found when it is read, "<!-- sha1 HEX -->"; a file that people edit has
    /// none.
    enum class Protection { None, Sum };
    [[nodiscard]] static bool save(QString const& path, XmlList const& list,
                                   Protection protection = Protection::None);

    [[nodiscard]] bool usable() const { return usable_; }
    /// Whether there was no file at all.
    [[nodiscard]] bool absent() const { return absent_; }

private:
    bool usable_ = false;
    bool absent_ = true;
};

/// A configuration file of this machine, by its name in `FixedPath::configuration()`, or by a path
/// if the name has a "/" in it.
class ConfigLocal : public Config {
public:
    explicit ConfigLocal(QString const& fileName);
};

/// What "runtime.cfg" says of the trace. Absent keys keep the values below.
///
///  key                                      type     meaning
///  DefaultTraceLevel                        uint32   level of every module, 0 to 4
///  TraceAlways, TraceTesting, TraceNormal,  string,  modules that have that level; the name is
///  TraceVerbose, TraceDebug                 many     one of Trace::moduleList()
///  BoolTraceToFile                          bool     into a file in FixedPath::runtime()
///  DefaultTraceLinesPerFile                 uint32   lines before the next file is begun
///  DefaultTraceFilesToKeep                  uint32   files kept
struct TraceSettings {
    static constexpr char const* fileName = "runtime.cfg";

    TraceLevel level = TraceLevel::Always;
    std::vector<std::pair<QString, TraceLevel>> modules;
    bool toFile = false;
    std::uint32_t linesPerFile = 100000;
    std::uint32_t filesToKeep = 10;

    [[nodiscard]] static TraceSettings read(XmlList const& list);
};

} // namespace Morva
