// Runs a fuzz target on its seeds and on deterministic mutations of them
// (byte flips, overwrites with boundary values, truncations), so that every
// CI run exercises the decoders with hostile variants of valid files.
#include "FuzzTarget.h"

#include "base/Log.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

namespace {

const std::uint8_t boundaryBytes[] = {0x00, 0x01, 0x7F, 0x80, 0xFF, 0xFE};

void mutate(std::vector<std::uint8_t>& input, std::mt19937& random)
{
    if (input.empty()) return;
    int edits = 1 + static_cast<int>(random() % 8);
    for (int i = 0; i < edits; ++i) {
        // Metadata sits at the start of the files: bias edits towards it.
        std::size_t range = random() % 4 == 0 ? input.size() : std::min<std::size_t>(input.size(), 64 * 1024);
        std::size_t at = random() % range;
        switch (random() % 4) {
        case 0: input[at] ^= static_cast<std::uint8_t>(1u << (random() % 8)); break;
        case 1: input[at] = boundaryBytes[random() % sizeof boundaryBytes]; break;
        case 2: input[at] = static_cast<std::uint8_t>(random()); break;
        default:
            if (random() % 16 == 0) input.resize(at);
            break;
        }
        if (input.empty()) return;
    }
}

// Writes the seeds as files seed-0, seed-1, ... into a folder.
int writeSeeds(const std::string& folder)
{
    std::vector<std::vector<std::uint8_t>> seeds = fuzzSeeds();
    for (std::size_t i = 0; i < seeds.size(); ++i) {
        std::ofstream out(folder + "/seed-" + std::to_string(i), std::ios::binary);
        out.write(reinterpret_cast<const char*>(seeds[i].data()), static_cast<std::streamsize>(seeds[i].size()));
        if (!out) return 1;
    }
    return 0;
}

} // namespace

// Arguments: the number of mutated inputs (300 by default), or
// "--write-seeds FOLDER".
int main(int argc, char** argv)
{
    if (argc > 2 && std::string(argv[1]) == "--write-seeds") return writeSeeds(argv[2]);
    int iterations = argc > 1 ? std::atoi(argv[1]) : 300;
    // Hostile inputs make the library log warnings by the thousand.
    zu::setLogSink([](zu::LogLevel, const zu::String&) {});
    std::mt19937 random(20261122);
    std::vector<std::vector<std::uint8_t>> seeds = fuzzSeeds();
    for (const auto& seed : seeds) LLVMFuzzerTestOneInput(seed.data(), seed.size());
    for (int i = 0; i < iterations; ++i) {
        std::vector<std::uint8_t> input = seeds[static_cast<std::size_t>(i) % seeds.size()];
        mutate(input, random);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("fuzz driver: %zu seeds, %d mutated inputs, no crash\n", seeds.size(), iterations);
    return 0;
}
