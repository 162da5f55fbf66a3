// Buffers, slices and the string type: the ground every other part of the libraries stands on.
#include "base/CError.h"
#include "base/String.h"
#include "base/TBuffer.h"

#include "common/TestUtil.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <cstdint>
#include <string>
#include <vector>

using namespace kordtest;
using namespace zu;

namespace {

std::string bytesOf(const TBuffer<unsigned char>& b)
{
    return std::string(reinterpret_cast<const char*>(b.getData()), static_cast<std::size_t>(b.getUsed()));
}

bool aligned(const void* p, std::uintptr_t to) { return reinterpret_cast<std::uintptr_t>(p) % to == 0; }

// Records whether each byte buffer allocation was zero just before it was
// freed, so that the wipe of key material is checked without reading freed memory.
std::vector<bool> wipedOnFree;

class FreeProbe : public zu::TCryptBuffer<unsigned char> {
public:
    static void install(bool on)
    {
        wipedOnFree.clear();
        freeObserver = on ? &observe : nullptr;
    }

private:
    static void observe(const unsigned char* p, std::size_t bytes)
    {
        wipedOnFree.push_back(std::all_of(p, p + bytes, [](unsigned char c) { return c == 0; }));
    }
};

} // namespace

TEST(Buffer, alignmentKeptCorruptSizesRefusedAndEditsWithSourceInside)
{
    TBuffer<unsigned char> big(10, 4096);
    big.setUsedFill(10, 1);
    big.ensureAllocated(100000);
    EXPECT_TRUE(aligned(big.getData(), 4096)) << "growth keeps the alignment";
    EXPECT_TRUE(aligned(TBuffer<unsigned char>(big).getData(), 4096)) << "a copy keeps the alignment";
    for (int bad : {0, -4, 3, 4097}) expectThrows<CInvalidArgError>([&] { big.setAllocAlignBytes(bad); });
    // Corrupt sizes fail before anything is allocated.
    expectThrows<CInvalidArgError>([&] { big.setUsed(-1); });
    expectThrows<CInvalidArgError>([&] { big.alloc(1LL << 50); });
    EXPECT_EQ(big.getAllocated(), 100000);

    // Edits whose source lies inside the buffer.
    TBuffer<unsigned char> b;
    // Fresh memory of exactly `capacity` bytes holding "abcdef", edited.
    const auto edited = [&](long long capacity, const std::function<void()>& edit) {
        b.freeMemory();
        b.alloc(capacity);
        b.assign(reinterpret_cast<const unsigned char*>("abcdef"), 6);
        edit();
        return bytesOf(b);
    };
    EXPECT_EQ(edited(100, [&] { b.insert(0, b.getData() + 2, 2); }), "cdabcdef");   // the tail shift moves the source
    EXPECT_EQ(edited(100, [&] { b.insert(3, b.getData() + 1, 4); }), "abcbcdedef"); // the source straddles the insert
    EXPECT_EQ(edited(6, [&] { b.append(b.getData(), b.getUsed()); }), "abcdefabcdef"); // growth frees the source
    EXPECT_EQ(edited(6, [&] { b.assign(b.getData() + 2, 3); }), "cde");
    expectThrows<CInvalidArgError>([&] { b.insert(4, b.getData(), 1); });
    expectThrows<CInvalidArgError>([&] { b.insert(0, b.getData(), -1); });
}

TEST(CryptBuffer, wipesWholeAllocationOnGrowthAndFreeAndRandomKeyBytesDiffer)
{
    FreeProbe::install(true);
    {
        zu::TCryptBuffer<unsigned char> key(32);
        key.setUsedFill(32, 0xA5);
        key.ensureAllocated(1000);
        EXPECT_EQ(wipedOnFree, std::vector<bool>{true}) << "the old allocation is wiped on growth";
        EXPECT_EQ(key[31], 0xA5) << "the contents move to the new allocation";
        key.insert(0, key.getData(), 32); // the temporary copy holds key bytes too
        key.setAllocAlignBytes(64);
    }
    zu::TCryptBuffer<unsigned char> freed(16);
    freed.setUsedFill(16, 0x5A);
    freed.freeMemory();
    EXPECT_GE(wipedOnFree.size(), 4u) << "growth, the insert's copy, realignment, destruction, freeMemory";
    EXPECT_EQ(wipedOnFree, std::vector<bool>(wipedOnFree.size(), true));

    // The probe sees real contents: an ordinary buffer is not wiped.
    FreeProbe::install(true);
    TBuffer<unsigned char>(8).setUsedFill(8, 0x11);
    EXPECT_EQ(wipedOnFree, std::vector<bool>{false});
    FreeProbe::install(false);
}

// Offsets read from a file reach slices: each bad range is refused, however it overflows.
TEST(BufferSlice, badRangesRefused)
{
    P<TBuffer<unsigned char>> b = zu::newObj<TBuffer<unsigned char>>(10);
    for (auto range : {std::pair<long long, long long>{5, 6}, {11, -1}, {-1, 2}, {2, -2}, {0, 11}, {LLONG_MAX, 1}})
        EXPECT_EQ(msg(expectThrows<CInvalidArgError>([&] { zu::TConstBufferSlice<unsigned char>(b.get(), range.first, range.second); })),
                  "Invalid argument passed to 'TConstBufferSlice constructor': Invalid start/length.");
}

TEST(Strings, strictUtf8Decoding)
{
    String out;
    for (const char* bad : {"\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF", // overlong
                            "\xED\xA0\x80", "\xED\xBF\xBF",                          // surrogates
                            "\xE2\x82", "\xF0\x9F\x98", "a\xC3",                      // truncated
                            "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", // above U+10FFFF
                            "\x80", "\xC3\x28", "\xFF"}) {
        std::string bytes(bad);
        EXPECT_FALSE(String::tryFromUTF8(bytes.data(), bytes.size(), out)) << bytes;
        EXPECT_EQ(String::fromUTF8(bytes.data(), bytes.size()), "");
    }
    std::string good("a\0b\xE2\x82\xAC\xF4\x8F\xBF\xBF\xF0\x9F\x98\x80", 14);
    ASSERT_TRUE(String::tryFromUTF8(good.data(), good.size(), out));
    ASSERT_EQ(out.length(), 6u) << "the NUL is kept as a character";
    EXPECT_EQ(static_cast<unsigned>(out[3].GetValue()), 0x20ACu);
    EXPECT_EQ(static_cast<unsigned>(out[4].GetValue()), 0x10FFFFu);
    EXPECT_EQ(out.toUTF8(), good);
}
