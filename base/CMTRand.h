// The Mersenne Twister generator (MT19937) and the process-wide random source.
#pragma once

#include "base/CBase.h"

#include <cstdint>
#include <random>

namespace zu {

class CMTRand : public CBase {
public:
    // Seeded from the operating system's entropy source.
    CMTRand();
    explicit CMTRand(std::uint32_t seed);

    std::uint32_t rand32();
    void randData(unsigned char* data, int bytes);

    // The process-wide generator; use it only while holding getGlobalMutex().
    static CMTRand& getGlobal();

private:
    std::mt19937 engine;
};

// Random bytes for key material, salts and IVs. They come from the operating
// system's cryptographic generator, combined with the process-wide
// generator's output (under the global mutex): a Mersenne Twister alone can
// be predicted from its earlier output, which key material must never be.
void randData(unsigned char* data, int bytes);

} // namespace zu
