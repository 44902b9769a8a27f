#include "base/process/Context.h"

#include "base/process/Config.h"
#include "base/process/FixedPath.h"
#include "base/trace/Log.h"
#include "base/trace/Trace.h"
#include "base/values/PosixText.h"

#include <QSysInfo>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>

namespace Morva {

namespace {

QString const machineKey = QStringLiteral("MachineName");

std::mutex machineLock;
MachineName machine;

QString environment(char const* variable, QString const& otherwise) {
    auto const value = qgetenv(variable);
    return value.isEmpty() ? otherwise : decodePosixText(value);
}

} // namespace

std::uint64_t Context::systemTime() {
    using namespace std::chrono;
    auto const now = system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(now).count());
}

std::uint32_t Context::uniqueId() {
    static std::atomic<std::uint32_t> last{0};
    std::uint32_t id = 0;
    while (id == 0)
        id = last.fetch_add(1, std::memory_order_relaxed) + 1;
    return id;
}

MachineName Context::machineName() {
    std::scoped_lock const guard(machineLock);
    if (!machine) {
        auto const pinned =
            ConfigLocal(QString::fromLatin1(TraceSettings::fileName)).get(machineKey, QString());
        auto const host = QSysInfo::machineHostName();
        machine = MachineName(!pinned.isEmpty() ? pinned
                              : !host.isEmpty() ? host
                                                : QStringLiteral("localhost"));
    }
    return machine;
}

void Context::machineName(MachineName const& name) {
    std::scoped_lock const guard(machineLock);
    machine = name;
}

bool Context::pinMachineName() {
    auto const directory = FixedPath::configuration();
    auto const name = QString::fromLatin1(TraceSettings::fileName);
    Config list = ConfigLocal(name);
    if (directory.isEmpty() || (!list.usable() && !list.absent()) || !FixedPath::make(directory)) {
        MORVA_TRACE(Always) << "Failed to keep the machine's name in" << directory;
        return false;
    }
    list.set(machineKey, machineName().name());
    return Config::save(directory + QLatin1Char('/') + name, list);
}

Log* Context::logging() {
    return Log::object();
}

QString Context::name(QString const& otherwise) {
    return environment("MORVA_CONTEXT_NAME", otherwise);
}
QString Context::group(QString const& otherwise) {
    return environment("MORVA_CONTEXT_GROUP", otherwise);
}
QString Context::title(QString const& otherwise) {
    return environment("MORVA_CONTEXT_TITLE", otherwise);
}
QString Context::traceFile() {
    return environment("MORVA_CONTEXT_TRACE_FILE", {});
}

void Context::traceHandles(TraceLevel level) {
    if (!Trace::enabled(level))
        return;
    namespace fs = std::filesystem;
    std::error_code error;
    for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        auto const target = fs::read_symlink(entry->path(), gone);
        if (!gone)
            TraceLine(level, __FILE__, __LINE__)
                << "Handle" << entry->path().filename().string() << target.string();
    }
}

void Context::startTrace() {
    auto const settings =
        TraceSettings::read(ConfigLocal(QString::fromLatin1(TraceSettings::fileName)));
    auto file = traceFile();
    auto const directory = FixedPath::runtime();
    if (file.isEmpty() && settings.toFile && !directory.isEmpty() && FixedPath::make(directory))
        file =
            directory + QLatin1Char('/') + name(QStringLiteral("morva")) + QStringLiteral(".trace");
    Trace::install(file, {settings.linesPerFile, settings.filesToKeep});
    auto* const trace = Trace::object();
    if (!trace)
        return;
    for (auto const& [name, id] : Trace::moduleList()) {
        auto level = settings.level;
        for (auto const& [module, moduleLevel] : settings.modules) {
            if (module == name)
                level = moduleLevel;
        }
        trace->setLevel(level, id);
    }
}

} // namespace Morva
