// Each file below "repository" is damaged in each way, and commands run on what is left. None may
// deliver a wrong byte and say that all is well, crash or hang; what hurts a reader is found by a
// check; and what was restored in spite of it is right.
//
// A run takes a third of all damages by chance. MORVA_SEED repeats a run; with MORVA_ROUNDS all
// are done, on that many pages of each file.

#include "peers/model/FaultFixture.h"
#include "peers/model/Seeds.h"
#include "peers/morva/CommandFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string_view>

namespace {

using Morva::ExitCode;
namespace fs = std::filesystem;

constexpr std::size_t pageSize = 4096;
/// Path below the root, and contents.
using Files = std::map<std::string, std::string>;

std::string contentOf(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// Regular files and links below a directory.
Files filesBelow(std::string const& directory) {
    Files all;
    for (auto const& entry : fs::recursive_directory_iterator(directory)) {
        auto const name = entry.path().string().substr(directory.size() + 1);
        if (entry.is_symlink())
            all[name] = fs::read_symlink(entry.path()).string();
        else if (entry.is_regular_file())
            all[name] = contentOf(entry.path());
    }
    return all;
}

void put(std::string const& path, std::string const& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    ASSERT_TRUE(file.flush()) << path;
}

/// Pages of each file to damage; 0 for one page, and a part of all damages.
std::size_t rounds() {
    return Morva::Model::fromEnvironment("MORVA_ROUNDS", 0);
}

class DamageSweep : public Morva::CommandFixture {
protected:
    DamageSweep() : random_(seed_) {
        std::printf("seed %llu\n", static_cast<unsigned long long>(seed_));
        FaultFixture::writeConfiguration();
        write("a/small", "a few bytes");
        write("a/deep/large", bytes(150'000));
        write("b/equal", bytes(20'000));
        for (int i = 0; i < 30; ++i)
            write("c/" + std::string(40, 'n') + std::to_string(i), bytes(random_() % 5000));
        EXPECT_EQ(replicate(), ExitCode::Done) << message;
        EXPECT_EQ(run("dedup"), ExitCode::Done) << message;
        older_ = filesBelow(path + "/root/repository");
        // Another generation of every file, and side files of those that became large.
        write("b/more", bytes(900'000));
        write("a/small", "some other bytes");
        EXPECT_EQ(replicate(), ExitCode::Done) << message;
        newer_ = filesBelow(path + "/root/repository");
        EXPECT_EQ(faults(), "");
        restored_ = filesBelow(source);
        EXPECT_TRUE(restore() == restored_) << message << errors;
        mend();
    }

    std::string bytes(std::size_t count) {
        std::string text(count, '\0');
        for (char& byte : text)
            byte = static_cast<char>(random_());
        return text;
    }
    /// What comes back; how it ended is in `code_`.
    Files restore() {
        fs::remove_all(path + "/target");
        code_ = run("restore latest --target " + path + "/target --store main");
        return fs::exists(path + "/target") ? filesBelow(path + "/target") : Files();
    }
    /// All files as they were.
    void mend() {
        fs::remove_all(path + "/root/repository");
        for (auto const& [name, content] : newer_)
            put(at(name), content);
    }
    [[nodiscard]] std::string at(std::string const& name) const {
        return path + "/root/repository/" + name;
    }

    /// Runs commands over the damage. `found`: a check has to see it, whatever the others say.
    void judge(std::string const& what, bool found) {
        SCOPED_TRACE(what);
        auto const checked = run("check --read-data");
        auto const report = results + message;
        auto const shown = run("cat latest:b/more --store main");
        if (shown == ExitCode::Done) {
            EXPECT_TRUE(results == restored_["b/more"]) << "cat delivers other bytes";
        }
        Files const files = restore();
        if (code_ == ExitCode::Done) {
            EXPECT_TRUE(files == restored_) << "restore delivers something else and says nothing";
        }
        for (auto const& [name, content] : files) {
            auto const wanted = restored_.find(name);
            bool const isRight = wanted != restored_.end() && wanted->second == content;
            EXPECT_TRUE(isRight || errors.find(name) != std::string::npos)
                << name << " is restored with other bytes and not named";
        }
        if (found || shown != ExitCode::Done || code_ != ExitCode::Done) {
            EXPECT_NE(checked, ExitCode::Done) << "a check finds nothing: " << report;
        }
    }

    [[nodiscard]] bool isTaken() { return rounds() != 0 || random_() % 3 == 0; }
    /// Pages that hold something, in some order.
    std::vector<std::size_t> usedPages(std::string const& content) {
        std::vector<std::size_t> pages;
        for (std::size_t at = 0; at < content.size(); at += pageSize)
            if (std::string_view(content).substr(at, pageSize).find_first_not_of('\0') !=
                std::string_view::npos)
                pages.push_back(at);
        std::shuffle(pages.begin(), pages.end(), random_);
        return pages;
    }

    std::uint64_t const seed_ = Morva::Model::fromEnvironment("MORVA_SEED", std::random_device{}());
    std::mt19937_64 random_;
    Files older_, newer_, restored_;
    ExitCode code_{};
};

TEST_F(DamageSweep, NothingWrongIsDelivered) {
    for (auto const& [name, content] : newer_) {
        // What has no meaning after the end of a process.
        bool const matters = name != "journal.pages";
        auto const damaged = [&](std::string const& what, std::string const& bytes, bool found) {
            if (bytes == content || !isTaken())
                return;
            put(at(name), bytes);
            judge(name + ": " + what, found && matters);
            mend();
        };
        auto pages = usedPages(content);
        auto const all = pages;
        pages.resize(std::min(pages.size(), std::max<std::size_t>(rounds(), 1)));
        for (std::size_t const page : pages) {
            auto const size = std::min(pageSize, content.size() - page);
            auto const where = " at " + std::to_string(page);
            std::string bytes = content;
            bytes[page + random_() % size] ^= static_cast<char>(1 << random_() % 8);
            damaged("a bit flipped in the page" + where, bytes, true);
            damaged("zeros" + where, std::string(content).replace(page, size, size, '\0'), true);
        }
        if (all.size() > 1 && content.size() >= std::max(all[0], all[1]) + pageSize) {
            std::string bytes = content;
            std::swap_ranges(bytes.begin() + static_cast<std::ptrdiff_t>(all[0]),
                             bytes.begin() + static_cast<std::ptrdiff_t>(all[0] + pageSize),
                             bytes.begin() + static_cast<std::ptrdiff_t>(all[1]));
            damaged("two pages swapped", bytes, true);
        }
        damaged("cut", content.substr(0, content.size() / 2), true);
        damaged("emptied", {}, true);
        if (older_.contains(name))
            damaged("an older copy", older_[name], true);
        if (isTaken()) {
            fs::remove(at(name));
            judge(name + ": removed", matters);
            mend();
        }
        if (auto const side = name + ".sums"; newer_.contains(side) && older_.contains(name)) {
            put(at(name), older_[name]);
            older_.contains(side) ? put(at(side), older_[side]) : void(fs::remove(at(side)));
            judge(name + ": an older copy with its side file", true);
            mend();
        }
    }
}

} // namespace
