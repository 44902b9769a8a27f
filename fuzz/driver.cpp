// Runs a fuzz target without a fuzzing engine: every file of the corpus folders given, then
// random mutations of them, for about a second. The seed is printed; MORVA_SEED and MORVA_ROUNDS
// set seed and count, and a count is done whatever its time.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

using Input = std::vector<std::uint8_t>;

std::vector<Input> readCorpus(int count, char** folders) {
    std::vector<Input> inputs{{}};
    for (int i = 1; i < count; ++i) {
        if (!std::filesystem::is_directory(folders[i]))
            continue;
        for (auto const& entry : std::filesystem::directory_iterator(folders[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            inputs.emplace_back(std::istreambuf_iterator<char>(file),
                                std::istreambuf_iterator<char>());
        }
    }
    return inputs;
}

void mutate(Input& input, std::mt19937_64& random) {
    auto const place = [&] { return input.empty() ? 0 : random() % input.size(); };
    switch (random() % 6) {
    case 0:
        if (!input.empty())
            input[place()] ^= static_cast<std::uint8_t>(1u << (random() % 8));
        break;
    case 1:
        if (!input.empty())
            input[place()] = static_cast<std::uint8_t>(random());
        break;
    case 2:
        input.resize(place());
        break;
    case 3:
        input.insert(input.begin() + static_cast<std::ptrdiff_t>(place()),
                     static_cast<std::uint8_t>(random()));
        break;
    case 4: {
        static constexpr std::uint32_t edges[] = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff, 4096};
        auto const value = edges[random() % std::size(edges)];
        for (std::size_t i = 0, at = place(); i < 4 && at + i < input.size(); ++i)
            input[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
        break;
    }
    default:
        if (!input.empty())
            input.erase(input.begin() + static_cast<std::ptrdiff_t>(place()));
    }
}

std::uint64_t fromEnvironment(char const* name, std::uint64_t otherwise) {
    auto const* text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

} // namespace

int main(int argc, char** argv) {
    auto const seed = fromEnvironment("MORVA_SEED", std::random_device{}());
    auto const counted = std::getenv("MORVA_ROUNDS") != nullptr;
    auto const rounds = fromEnvironment("MORVA_ROUNDS", 20000);
    std::cout << "seed " << seed << std::endl;
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    auto const corpus = readCorpus(argc, argv);
    for (auto const& input : corpus)
        LLVMFuzzerTestOneInput(input.data(), input.size());
    std::mt19937_64 random(seed);
    std::uint64_t round = 0;
    for (; round < rounds; ++round) {
        if (!counted && round % 16 == 0 && std::chrono::steady_clock::now() > end)
            break;
        auto input = corpus[random() % corpus.size()];
        for (auto steps = 1 + random() % 4; steps > 0; --steps)
            mutate(input, random);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::cout << round << " rounds" << std::endl;
}
