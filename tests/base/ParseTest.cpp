// The value parsers of descriptor fields and the typed formatter: exact
// 64-bit bounds, strict versus lax input, and errors that quote the text.
#include "base/CStringFormat.h"
#include "base/Parse.h"

#include "common/TestUtil.h"

#include <climits>

using kordtest::expectThrows;
using kordtest::msg;
using zu::CInvalidArgError;
using zu::String;

namespace {

String withNul(const char* before, const char* after)
{
    return String(std::string(before) + std::string(1, '\0') + after);
}

} // namespace

TEST(ParseInt64, exactBoundsStrictnessAndMessages)
{
    for (auto c : {std::pair<const char*, long long>{"9223372036854775807", LLONG_MAX}, {"-9223372036854775808", LLONG_MIN},
                   {"+9223372036854775807", LLONG_MAX}, {"-0", 0}, {"000000000000000000000000042", 42}})
        EXPECT_EQ(zu::parseInt64(c.first, false), c.second) << c.first;
    for (const char* text : {"9223372036854775808", "-9223372036854775809", "18446744073709551616", "99999999999999999999999999"})
        EXPECT_NE(msg(expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, false); })).find("outside the range"),
                  std::string::npos) << text;

    // White space only when lax; never inside the number.
    EXPECT_EQ(zu::parseInt64(" \t-17\r\n", true), -17);
    for (const char* text : {" 1", "1 ", "1\n"}) expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, false); });
    for (const char* text : {"", "-", "+", "--1", "+-1", "1a", "0x10", "1.0", "1e3", "1 2", " - 1", "   "})
        expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, true); });
    // A digit outside ASCII and a NUL inside the text are no digits.
    expectThrows<CInvalidArgError>([&] { zu::parseInt64(String(L"\uFF11"), true); });
    expectThrows<CInvalidArgError>([&] { zu::parseInt64(withNul("1", "2"), true); });

    auto e = expectThrows<CInvalidArgError>([] { zu::parseInt64("12x", false); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'zu::parseInt64': '12x' is not a decimal number.");
    // A hostile megabyte value does not become a megabyte message.
    String huge(std::string(1 << 20, '7') + "x");
    auto big = expectThrows<CInvalidArgError>([&] { zu::parseInt64(huge, false); });
    EXPECT_LT(msg(big).size(), 200u);
    EXPECT_NE(msg(big).find("'7777777777"), std::string::npos);
}

TEST(ParseHexInt64, sixteenDigitsAreTheBitsAndPrefixOnlyWhenLax)
{
    for (auto c : {std::pair<const char*, long long>{"aBcDeF", 0xabcdef}, {"7fffffffffffffff", LLONG_MAX},
                   {"8000000000000000", LLONG_MIN}, {"ffffffffffffffff", -1}, {"0000000000000001", 1}})
        EXPECT_EQ(zu::parseHexInt64(c.first, false), c.second) << c.first;
    for (const char* text : {"10000000000000000", "00000000000000001"})
        EXPECT_NE(msg(expectThrows<CInvalidArgError>([&] { zu::parseHexInt64(text, true); })).find("more than 16"),
                  std::string::npos) << text;

    EXPECT_EQ(zu::parseHexInt64(" 0x1F\t", true), 0x1f);
    EXPECT_EQ(zu::parseHexInt64("0Xffffffffffffffff", true), -1);
    for (const char* text : {"0x10", " 10", "10 "}) expectThrows<CInvalidArgError>([&] { zu::parseHexInt64(text, false); });
    for (const char* text : {"", "0x", "x10", "-1", "+1", "g", "1 0", "0x 1", "ff h"})
        expectThrows<CInvalidArgError>([&] { zu::parseHexInt64(text, true); });
    auto e = expectThrows<CInvalidArgError>([] { zu::parseHexInt64("cafe!", false); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'zu::parseHexInt64': 'cafe!' is not a hexadecimal number.");
}

TEST(ParseBool, acceptsTheSixWordsAndDigitsInAnyCase)
{
    for (const char* text : {"true", "TRUE", "Yes", "on", "1"}) EXPECT_TRUE(zu::parseBool(text)) << text;
    for (const char* text : {"false", "No", "OFF", "0"}) EXPECT_FALSE(zu::parseBool(text)) << text;
    for (const char* text : {"", "2", "t", "truee", " true", "true ", "y"})
        expectThrows<CInvalidArgError>([&] { zu::parseBool(text); });
    auto e = expectThrows<CInvalidArgError>([] { zu::parseBool("maybe"); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'zu::parseBool': 'maybe' is not a boolean value.");
}

// Round trips of hex fields are covered by the encrypted disks; here the
// letter case and the refusals.
TEST(HexCodec, letterCaseAndRefusals)
{
    const unsigned char bytes[] = {0x00, 0xab, 0xff};
    EXPECT_EQ(zu::hexEncode(bytes, 3), "00abff");
    zu::TBuffer<unsigned char> mixed = zu::hexDecode("ABcd0F");
    EXPECT_EQ(std::string(mixed.getData(), mixed.getData() + mixed.getUsed()), "\xab\xcd\x0f");

    auto odd = expectThrows<CInvalidArgError>([] { zu::hexDecode("abc"); });
    EXPECT_EQ(msg(odd), "Invalid argument passed to 'zu::hexDecode': 'abc' has an odd number of hexadecimal digits.");
    for (const String& text : {String("zz"), String("0g"), String(" a"), String("0x00"), String(L"\u00e91"), withNul("a", "")})
        expectThrows<CInvalidArgError>([&] { zu::hexDecode(text); });
    expectThrows<CInvalidArgError>([] { zu::hexEncode(nullptr, -1); });
}

TEST(StringFormat, conversionsAndArgumentsThatDoNotMatch)
{
    using zu::CStringFormat;
    EXPECT_EQ(String(CStringFormat("%lld|%u of %s") << LLONG_MIN << -1 << "disk.vmdk"),
              "-9223372036854775808|18446744073709551615 of disk.vmdk");
    EXPECT_EQ(String(CStringFormat("%llx/%i%%/%s") << -1LL << 50 << String(L"\u00e9")), String(L"ffffffffffffffff/50%/\u00e9"));
    // Missing, surplus and unsupported conversions stay as written.
    EXPECT_EQ(String(CStringFormat("%d and %d|%5d|%q|%") << 1), "1 and %d|%5d|%q|%");
    EXPECT_EQ(String(CStringFormat(withNul("a%s", "b")) << "x" << 2), withNul("ax", "b"));
}
