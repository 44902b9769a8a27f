#include "replication/common/rules/NotToBackup.h"

#include "base/trace/Trace.h"

#include <algorithm>

namespace Replication {

using Morva::XmlList;
using Morva::XmlListIterator;

namespace {

QString const entryKey = QStringLiteral("Entry");
QString const pathKey = QStringLiteral("Path");
QString const directoryKey = QStringLiteral("Directory");
QString const liveOnlyKey = QStringLiteral("LiveOnly");

/// Units of the character that begins at a position: 2 for a surrogate pair, else 1, also for a
/// lone surrogate, which stands for a byte.
qsizetype unitsAt(QStringView text, qsizetype at) {
    return text[at].isHighSurrogate() && at + 1 < text.size() && text[at + 1].isLowSurrogate() ? 2
                                                                                               : 1;
}

/// Matches one name, going back to the last "*" only, so that the work is at most the product of
/// the two lengths.
bool glob(QStringView pattern, QStringView name) {
    qsizetype p = 0;
    qsizetype n = 0;
    qsizetype afterStar = -1;
    qsizetype retry = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == QLatin1Char('*')) {
            afterStar = ++p;
            retry = n;
        } else if (p < pattern.size() && pattern[p] == QLatin1Char('?')) {
            ++p;
            n += unitsAt(name, n);
        } else if (p < pattern.size() && pattern[p] == name[n]) {
            ++p;
            ++n;
        } else if (afterStar >= 0) {
            p = afterStar;
            retry += unitsAt(name, retry);
            n = retry;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == QLatin1Char('*'))
        ++p;
    return p == pattern.size();
}

/// One element of a pattern. Most have no wildcard and are compared as they are.
struct Element {
    QString text;
    bool literal;

    explicit Element(QString element)
        : text(std::move(element)),
          literal(!text.contains(QLatin1Char('*')) && !text.contains(QLatin1Char('?'))) {}
    [[nodiscard]] bool matches(QString const& name) const {
        return literal ? text == name : glob(text, name);
    }
};

NotToBackup::OpType stronger(NotToBackup::OpType left, NotToBackup::OpType right) {
    if (left == NotToBackup::eExcluded || right == NotToBackup::eExcluded)
        return NotToBackup::eExcluded;
    return std::max(left, right);
}

} // namespace

struct NotToBackup::Pattern {
    std::vector<Element> elements;
    /// Matched against the last name only, at any depth.
    bool anywhere = false;
    OpType answer = eNothing;

    /// Whether it holds for the object of this path, which is the first `depth` of the parts.
    [[nodiscard]] bool matches(QStringList const& path, qsizetype depth) const {
        if (anywhere)
            return elements.front().matches(path[depth - 1]);
        return depth == static_cast<qsizetype>(elements.size()) &&
               matchesParents(path, depth - 1) && elements.back().matches(path[depth - 1]);
    }
    /// Whether all but its last element match the first `depth` parts.
    [[nodiscard]] bool matchesParents(QStringList const& path, qsizetype depth) const {
        if (anywhere)
            return true;
        if (depth + 1 != static_cast<qsizetype>(elements.size()))
            return false;
        for (qsizetype i = 0; i < depth; ++i) {
            if (!elements[static_cast<std::size_t>(i)].matches(path[i]))
                return false;
        }
        return true;
    }
};

struct NotToBackup::Patterns {
    std::vector<Pattern> directories;
    std::vector<Pattern> files;
    bool caseSensitive = true;

    /// The form in which names are compared. Shares the text where nothing is to be folded.
    [[nodiscard]] QString fold(QString const& text) const {
        return caseSensitive ? text : text.toCaseFolded();
    }
    [[nodiscard]] QStringList fold(QStringList const& path) const {
        if (caseSensitive)
            return path;
        QStringList folded;
        folded.reserve(path.size());
        for (auto const& part : path)
            folded.append(part.toCaseFolded());
        return folded;
    }
    /// The answer of the directory entries for the first `depth` parts and all above them.
    [[nodiscard]] OpType directoryAnswer(QStringList const& path, qsizetype depth) const {
        OpType answer = eNothing;
        for (auto const& pattern : directories) {
            if (answer == stronger(answer, pattern.answer))
                continue;
            auto const above = static_cast<qsizetype>(pattern.elements.size());
            bool holds = false;
            if (!pattern.anywhere)
                holds = above <= depth && pattern.matches(path, above);
            else
                for (qsizetype level = 1; level <= depth && !holds; ++level)
                    holds = pattern.matches(path, level);
            if (holds)
                answer = stronger(answer, pattern.answer);
        }
        return answer;
    }
};

NotToBackup::NotToBackup(XmlList const& details, bool caseSensitive) {
    auto patterns = std::make_shared<Patterns>();
    patterns->caseSensitive = caseSensitive;
    for (XmlListIterator entry(details, entryKey); entry; ++entry) {
        auto const list = entry.getXmlList();
        auto path = list.getString(nullptr, pathKey);
        if (!caseSensitive)
            path.replace(QLatin1Char('\\'), QLatin1Char('/'));
        Pattern pattern;
        pattern.anywhere = !path.contains(QLatin1Char('/'));
        pattern.answer = list.get(liveOnlyKey, false) ? eLiveOnly : eExcluded;
        for (auto const& part : path.split(QLatin1Char('/'), Qt::SkipEmptyParts))
            pattern.elements.emplace_back(patterns->fold(part));
        if (pattern.elements.empty()) {
            MORVA_TRACE(Normal) << "Ignore exclusion without a path";
            continue;
        }
        bool const directory = list.get(directoryKey, false);
        (directory ? patterns->directories : patterns->files).push_back(std::move(pattern));
    }
    if (!patterns->directories.empty() || !patterns->files.empty())
        patterns_ = std::move(patterns);
}

NotToBackup::OpType NotToBackup::lookup(QStringList const& unfolded, bool isDirectory) const {
    auto const path = patterns_->fold(unfolded);
    if (isDirectory)
        return patterns_->directoryAnswer(path, path.size());
    if (path.isEmpty())
        return eNothing;
    OpType answer = patterns_->directoryAnswer(path, path.size() - 1);
    for (auto const& pattern : patterns_->files) {
        if (answer == eExcluded)
            break;
        if (pattern.matches(path, path.size()))
            answer = stronger(answer, pattern.answer);
    }
    return answer;
}

NotToBackup::OpType NotToBackup::fileOpType(QStringList const& directory,
                                            QString const& name) const {
    return patterns_ ? lookup(directory + QStringList(name), false) : eNothing;
}

NotToBackup::Expressions NotToBackup::expressions(QStringList const& directory) const {
    Expressions result;
    if (!patterns_)
        return result;
    result.patterns_ = patterns_;
    auto const path = patterns_->fold(directory);
    result.directory_ = patterns_->directoryAnswer(path, path.size());
    for (auto const& pattern : patterns_->files) {
        if (pattern.matchesParents(path, path.size()))
            result.candidates_.push_back(&pattern);
    }
    return result;
}

NotToBackup::OpType NotToBackup::Expressions::opType(QString const& name) const {
    OpType answer = directory_;
    if (answer == eExcluded || candidates_.empty())
        return answer;
    auto const folded = patterns_->fold(name);
    for (auto const* pattern : candidates_) {
        if (pattern->elements.back().matches(folded))
            answer = stronger(answer, pattern->answer);
    }
    return answer;
}

void NotToBackup::addEntry(XmlList& details, QString const& path, bool directory, bool liveOnly) {
    XmlList entry;
    entry.set(pathKey, path);
    entry.set(directoryKey, directory);
    entry.set(liveOnlyKey, liveOnly);
    details.set(entryKey, entry, XmlList::SetTypeE::Add);
}

Morva::TraceLine& operator<<(Morva::TraceLine& line, NotToBackup::OpType opType) {
    switch (opType) {
    case NotToBackup::eNothing:
        return line << "eNothing";
    case NotToBackup::eExcluded:
        return line << "eExcluded";
    case NotToBackup::eLiveOnly:
        return line << "eLiveOnly";
    case NotToBackup::eInvalid:
        break;
    }
    return line << "eInvalid";
}

} // namespace Replication
