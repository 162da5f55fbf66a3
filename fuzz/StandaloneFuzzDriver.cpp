// Runs a fuzz target on its seeds and on deterministic mutations of them
// (byte flips, overwrites with boundary values, truncations), so that every
// CI run exercises the decoders with hostile variants of valid files.
#include "FuzzTarget.h"

#include "base/Log.h"

#include <cstdio>
#include <cstdlib>
#include <random>

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

} // namespace

int main(int argc, char** argv)
{
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
