// Fuzz entry points for the decoders of untrusted input. Each is built
// twice: as a libFuzzer target (with clang, -DKORD_BUILD_FUZZERS=ON), and
// with the standalone driver, which mutates seed inputs deterministically
// and runs as an ordinary test (under the sanitizers in CI).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Inputs larger than this are ignored: the decoders bound their own reads,
// and large inputs only slow the search down.
constexpr std::size_t fuzzMaxInputBytes = 1 << 20;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Valid inputs to start mutating from (used by the standalone driver).
std::vector<std::vector<std::uint8_t>> fuzzSeeds();
