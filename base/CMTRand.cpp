#include "base/CMTRand.h"

#include "base/CError.h"
#include "base/Threads.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/random.h>

namespace zu {

namespace {

void checkRandArgs(const char* where, const unsigned char* data, int bytes)
{
    if (bytes < 0 || (bytes > 0 && !data))
        throw CInvalidArgError(where, "Invalid buffer or byte count", CProps().set("bytes", bytes));
}

// Bytes from the kernel's cryptographic generator. getrandom may return
// fewer bytes than asked (large requests, signals), so it is called until
// the buffer is full.
void fillFromSystem(unsigned char* data, std::size_t bytes)
{
    std::size_t done = 0;
    while (done < bytes) {
        ssize_t got = getrandom(data + done, bytes - done, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            int error = errno;
            throw CError("Could not obtain random bytes from the operating system.", String("System"), error,
                         CProps().set("errno", error).set("systemError", String(std::strerror(error))));
        }
        done += static_cast<std::size_t>(got);
    }
}

std::mt19937 makeSeededEngine()
{
    // Seed the whole state through a seed sequence of 256 bits of entropy,
    // not a single 32-bit word, so that generators differ between processes.
    std::array<std::uint32_t, 8> words;
    fillFromSystem(reinterpret_cast<unsigned char*>(words.data()), sizeof(words));
    std::seed_seq seq(words.begin(), words.end());
    return std::mt19937(seq);
}

} // namespace

CMTRand::CMTRand() : engine(makeSeededEngine()) {}

CMTRand::CMTRand(std::uint32_t seed) : engine(seed) {}

std::uint32_t CMTRand::rand32() { return static_cast<std::uint32_t>(engine()); }

void CMTRand::randData(unsigned char* data, int bytes)
{
    checkRandArgs("CMTRand::randData", data, bytes);
    int i = 0;
    for (; i + 4 <= bytes; i += 4) {
        std::uint32_t r = rand32();
        for (int k = 0; k < 4; ++k) data[i + k] = static_cast<unsigned char>(r >> (8 * k));
    }
    if (i < bytes) {
        std::uint32_t r = rand32();
        for (int k = 0; i < bytes; ++i, ++k) data[i] = static_cast<unsigned char>(r >> (8 * k));
    }
}

CMTRand& CMTRand::getGlobal()
{
    static CMTRand global;
    return global;
}

void randData(unsigned char* data, int bytes)
{
    checkRandArgs("zu::randData", data, bytes);
    if (bytes == 0) return;
    fillFromSystem(data, static_cast<std::size_t>(bytes));
    CMutexLock lock(getGlobalMutex());
    CMTRand& mt = CMTRand::getGlobal();
    for (int i = 0; i < bytes; i += 4) {
        std::uint32_t r = mt.rand32();
        for (int k = 0; k < 4 && i + k < bytes; ++k) data[i + k] ^= static_cast<unsigned char>(r >> (8 * k));
    }
}

} // namespace zu
