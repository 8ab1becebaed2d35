// replay <corpus> <count>: a fuzzer without its engine, over its seeds and over `count` inputs that
// chance makes of them, the same ones in every run.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "check.h"

static std::mt19937 s_Random(20240607);

static size_t Roll(size_t sides) {
    return s_Random() % sides;
}

static void Try(const std::string &input) {
    // A block of its own and never a null pointer, as the engine gives it.
    const auto exact = std::make_unique<uint8_t[]>(input.size());
    std::copy(input.begin(), input.end(), exact.get());
    CHECK(LLVMFuzzerTestOneInput(exact.get(), input.size()) == 0);
}

static std::string Changed(std::string input, const std::vector<std::string> &seeds) {
    for (size_t changes = 1 + Roll(6); changes > 0; --changes) {
        const size_t at = Roll(input.size() + 1);
        switch (Roll(4)) {
        case 0:
            input.erase(at, Roll(20));
            break;
        case 1:
            input.insert(at, seeds[Roll(seeds.size())].substr(0, Roll(200)));
            break;
        case 2:
            for (size_t left = Roll(Roll(8) == 0 ? 2000 : 9); left > 0; --left) {
                input.insert(at, 1, static_cast<char>(Roll(256)));
            }
            break;
        default:
            input.replace(at, 1, 1, static_cast<char>(Roll(256)));
        }
    }
    return input;
}

int main(int count, char **words) {
    std::set<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(count == 3 ? words[1] : "")) {
        files.insert(entry.path());
    }
    std::vector<std::string> seeds;
    for (const auto &file : files) {
        std::stringstream bytes;
        bytes << std::ifstream(file).rdbuf();
        seeds.push_back(bytes.str());
        Try(seeds.back());
    }
    for (int i = std::atoi(words[2]); i > 0; --i) {
        Try(Changed(seeds[Roll(seeds.size())], seeds));
    }
    std::printf("%zu seeds and %s inputs without a fault\n", seeds.size(), words[2]);
    return 0;
}
