// Little-endian loads and stores on byte arrays, for on-disk fields that
// are decoded from a sector already in memory.
#pragma once

#include <cstdint>
#include <cstring>

namespace zu {

inline std::uint16_t loadLE16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
inline std::uint32_t loadLE32(const unsigned char* p)
{
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::uint64_t loadLE64(const unsigned char* p)
{
    return static_cast<std::uint64_t>(loadLE32(p)) | (static_cast<std::uint64_t>(loadLE32(p + 4)) << 32);
}
inline void storeLE16(unsigned char* p, std::uint16_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
inline void storeLE32(unsigned char* p, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline void storeLE64(unsigned char* p, std::uint64_t v)
{
    for (int i = 0; i < 8; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

} // namespace zu
