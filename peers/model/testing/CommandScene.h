#pragma once

#include "peers/morva/ExitCode.h"

#include <QTemporaryDir>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace CommandScene {

/// What a command of the command line ended with.
struct Outcome {
    Morva::ExitCode code = Morva::ExitCode::Done;
    std::string output; ///< standard output
    std::string errors; ///< standard error, and the text of what ended the command
};

/// Runs a command line on a root within this process, as the program does.
[[nodiscard]] Outcome runCommand(std::string const& root, std::vector<std::string> arguments);

/// All that users can see in a repository: "live" and each snapshot's number, with a line for each
/// object that has all that a restore would bring back. A store that doesn't open is a line, too.
using Contents = std::map<std::string, std::string>;
[[nodiscard]] Contents contentsOf(std::string const& root);
/// The first line that differs; empty when all is equal.
[[nodiscard]] std::string difference(Contents const& found, Contents const& wanted);
/// The faults that a check finds in a closed repository, but for lost space.
[[nodiscard]] std::string faultsIn(std::string const& root);

/// A small source tree in two states, logs of changes to it, and a repository that has seen both:
/// the start of every run. Caches and steps of growth are small, so that even so small a
/// repository reads and writes at many moments.
class Scene {
public:
    Scene();
    Scene(Scene const&) = delete;
    Scene& operator=(Scene const&) = delete;

    /// Replaces the place of a run by a copy of the repository (or an empty root), and an empty
    /// directory to restore to.
    void startOver(bool emptyRoot);
    [[nodiscard]] std::string root() const { return path() + "/run/root"; }
    [[nodiscard]] std::string target() const { return path() + "/run/target"; }
    [[nodiscard]] std::string source() const { return path() + "/source"; }
    [[nodiscard]] std::string log() const { return path() + "/log"; }
    /// The number of the first or the second snapshot.
    [[nodiscard]] std::string snapshot(std::size_t place) const { return snapshots_[place]; }
    [[nodiscard]] std::string exclusions() const { return path() + "/exclusions"; }

private:
    [[nodiscard]] std::string path() const { return directory_.path().toStdString(); }
    void makeSource() const;
    void changeSource() const;
    void makeLog() const;

    QTemporaryDir directory_;
    std::vector<std::string> snapshots_;
};

} // namespace CommandScene
