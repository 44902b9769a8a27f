#include "peers/model/Model.h"

#include "peers/check/Checker.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>

namespace Morva::Model {

std::string faultsOnDisk() {
    std::string result;
    for (auto const& line : checkRepository(RepositoryPaths::current()).lines())
        result += line.toStdString() + '\n';
    return result;
}

void Content::write(std::uint64_t offset, QByteArray const& data) {
    auto const* bytes = data.constData();
    auto left = static_cast<std::uint64_t>(data.size());
    auto at = offset;
    while (left > 0) {
        auto const inBlock = at % blockSize;
        auto const count = std::min(left, blockSize - inBlock);
        auto& block = blocks_.try_emplace(at / blockSize, Block{}).first->second;
        std::memcpy(block.data() + inBlock, bytes, count);
        bytes += count;
        at += count;
        left -= count;
    }
    size_ = std::max(size_, at);
}

void Content::truncate(std::uint64_t size) {
    if (size < size_) {
        blocks_.erase(blocks_.lower_bound((size + blockSize - 1) / blockSize), blocks_.end());
        if (auto const last = blocks_.find(size / blockSize); last != blocks_.end())
            std::fill(last->second.begin() + static_cast<std::ptrdiff_t>(size % blockSize),
                      last->second.end(), std::uint8_t{0});
    }
    size_ = size;
}

void Content::zero(std::uint64_t start, std::uint64_t end) {
    end = std::min(end, size_);
    for (auto at = start; at < end;) {
        auto const count = std::min(end - at, blockSize - at % blockSize);
        if (auto const block = blocks_.find(at / blockSize); block != blocks_.end())
            std::memset(block->second.data() + at % blockSize, 0, count);
        at += count;
    }
}

ObjectPointer clone(ObjectPointer const& root) {
    std::unordered_map<Object const*, ObjectPointer> done;
    auto const copy = [&done](auto const& self, ObjectPointer const& object) -> ObjectPointer {
        if (auto const known = done.find(object.get()); known != done.end())
            return known->second;
        auto result = std::make_shared<Object>(*object);
        done.emplace(object.get(), result);
        for (auto& [name, child] : result->names)
            child = self(self, child);
        return result;
    };
    return copy(copy, root);
}

std::vector<Name> allNames(ObjectPointer const& root) {
    std::vector<Name> result;
    auto const visit = [&result](auto const& self, ObjectPointer const& directory,
                                 QByteArray const& prefix) -> void {
        for (auto const& [name, object] : directory->names) {
            result.push_back({directory, prefix + name, name, object});
            if (object->kind == Kind::Directory)
                self(self, object, prefix + name + '/');
        }
    };
    visit(visit, root, {});
    return result;
}

} // namespace Morva::Model
