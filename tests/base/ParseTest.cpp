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

TEST(ParseInt64, boundsAreExact)
{
    EXPECT_EQ(zu::parseInt64("9223372036854775807", false), LLONG_MAX);
    EXPECT_EQ(zu::parseInt64("-9223372036854775808", false), LLONG_MIN);
    EXPECT_EQ(zu::parseInt64("+9223372036854775807", false), LLONG_MAX);
    EXPECT_EQ(zu::parseInt64("-0", false), 0);
    EXPECT_EQ(zu::parseInt64("000000000000000000000000042", false), 42);
    for (const char* text : {"9223372036854775808", "-9223372036854775809", "18446744073709551616",
                             "99999999999999999999999999"}) {
        auto e = expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, false); });
        EXPECT_NE(msg(e).find("outside the range"), std::string::npos) << text;
    }
}

TEST(ParseInt64, rejectsWhatIsNotADecimalNumber)
{
    for (const char* text : {"", "-", "+", "--1", "+-1", "1a", "0x10", "1.0", "1e3", "1 2"}) {
        expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, true); });
        expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, false); });
    }
    // A digit outside ASCII and a NUL inside the text are no digits.
    expectThrows<CInvalidArgError>([&] { zu::parseInt64(String(L"\uFF11"), true); });
    expectThrows<CInvalidArgError>([&] { zu::parseInt64(withNul("1", "2"), true); });
}

TEST(ParseInt64, whiteSpaceOnlyWhenLax)
{
    EXPECT_EQ(zu::parseInt64(" \t-17\r\n", true), -17);
    for (const char* text : {" 1", "1 ", "1\n", "\t1"}) expectThrows<CInvalidArgError>([&] { zu::parseInt64(text, false); });
    expectThrows<CInvalidArgError>([&] { zu::parseInt64(" - 1", true); });
    expectThrows<CInvalidArgError>([&] { zu::parseInt64("   ", true); });
}

TEST(ParseInt64, errorMessageNamesFunctionAndQuotesText)
{
    auto e = expectThrows<CInvalidArgError>([] { zu::parseInt64("12x", false); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'zu::parseInt64': '12x' is not a decimal number.");
    EXPECT_EQ(e.getCode(), -1);
    // A hostile megabyte value does not become a megabyte message.
    String huge(std::string(1 << 20, '7') + "x");
    auto big = expectThrows<CInvalidArgError>([&] { zu::parseInt64(huge, false); });
    EXPECT_LT(msg(big).size(), 200u);
    EXPECT_NE(msg(big).find("'7777777777"), std::string::npos);
}

TEST(ParseHexInt64, sixteenDigitsAreTheBitsOfTheValue)
{
    EXPECT_EQ(zu::parseHexInt64("ff", false), 255);
    EXPECT_EQ(zu::parseHexInt64("aBcDeF", false), 0xabcdef);
    EXPECT_EQ(zu::parseHexInt64("7fffffffffffffff", false), LLONG_MAX);
    EXPECT_EQ(zu::parseHexInt64("8000000000000000", false), LLONG_MIN);
    EXPECT_EQ(zu::parseHexInt64("ffffffffffffffff", false), -1);
    EXPECT_EQ(zu::parseHexInt64("0000000000000001", false), 1);
    for (const char* text : {"10000000000000000", "00000000000000001", "fffffffffffffffff"}) {
        auto e = expectThrows<CInvalidArgError>([&] { zu::parseHexInt64(text, true); });
        EXPECT_NE(msg(e).find("more than 16"), std::string::npos) << text;
    }
}

TEST(ParseHexInt64, prefixAndWhiteSpaceOnlyWhenLax)
{
    EXPECT_EQ(zu::parseHexInt64(" 0x1F\t", true), 0x1f);
    EXPECT_EQ(zu::parseHexInt64("0Xffffffffffffffff", true), -1);
    EXPECT_EQ(zu::parseHexInt64("fffffffe", true), 0xfffffffeLL);
    for (const char* text : {"0x10", " 10", "10 "}) expectThrows<CInvalidArgError>([&] { zu::parseHexInt64(text, false); });
    for (const char* text : {"", "0x", "x10", "-1", "+1", "g", "1 0", "0x 1", "ff h"}) {
        expectThrows<CInvalidArgError>([&] { zu::parseHexInt64(text, true); });
    }
    auto e = expectThrows<CInvalidArgError>([] { zu::parseHexInt64("cafe!", false); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'zu::parseHexInt64': 'cafe!' is not a hexadecimal number.");
}

TEST(ParseBool, acceptsTheSixWordsAndDigitsInAnyCase)
{
    for (const char* text : {"true", "TRUE", "Yes", "on", "1"}) EXPECT_TRUE(zu::parseBool(text)) << text;
    for (const char* text : {"false", "No", "OFF", "0"}) EXPECT_FALSE(zu::parseBool(text)) << text;
    for (const char* text : {"", "2", "t", "truee", " true", "true ", "y", "enabled"})
        expectThrows<CInvalidArgError>([&] { zu::parseBool(text); });
    auto e = expectThrows<CInvalidArgError>([] { zu::parseBool("maybe"); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'zu::parseBool': 'maybe' is not a boolean value.");
}

TEST(HexCodec, roundTripAndLetterCase)
{
    std::vector<unsigned char> all(256);
    for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
    String text = zu::hexEncode(all.data(), 256);
    ASSERT_EQ(text.length(), 512u);
    EXPECT_EQ(text.Left(8), "00010203");
    EXPECT_EQ(text.Right(8), "fcfdfeff");
    zu::TBuffer<unsigned char> back = zu::hexDecode(text);
    ASSERT_EQ(back.getUsed(), 256);
    EXPECT_EQ(std::vector<unsigned char>(back.getData(), back.getData() + 256), all);
    EXPECT_EQ(zu::hexEncode(back), text);

    zu::TBuffer<unsigned char> mixed = zu::hexDecode("ABcd0F");
    ASSERT_EQ(mixed.getUsed(), 3);
    EXPECT_EQ(mixed[0], 0xab);
    EXPECT_EQ(mixed[1], 0xcd);
    EXPECT_EQ(mixed[2], 0x0f);
    EXPECT_EQ(zu::hexDecode("").getUsed(), 0);
    EXPECT_EQ(zu::hexEncode(nullptr, 0), "");
}

TEST(HexCodec, rejectsOddLengthAndNonHexCharacters)
{
    auto odd = expectThrows<CInvalidArgError>([] { zu::hexDecode("abc"); });
    EXPECT_EQ(msg(odd), "Invalid argument passed to 'zu::hexDecode': 'abc' has an odd number of hexadecimal digits.");
    for (const char* text : {"zz", "0g", " a", "a ", "0x00", "-1"}) expectThrows<CInvalidArgError>([&] { zu::hexDecode(text); });
    expectThrows<CInvalidArgError>([] { zu::hexDecode(String(L"\u00e91")); });
    expectThrows<CInvalidArgError>([] { zu::hexDecode(withNul("a", "")); });
    expectThrows<CInvalidArgError>([] { zu::hexEncode(nullptr, -1); });
}

TEST(StringFormat, conversionsAndArguments)
{
    using zu::CStringFormat;
    EXPECT_EQ(String(CStringFormat("size %lld of %s") << -5LL << "disk.vmdk"), "size -5 of disk.vmdk");
    EXPECT_EQ(String(CStringFormat("%lld|%d") << LLONG_MIN << LLONG_MAX),
              "-9223372036854775808|9223372036854775807");
    EXPECT_EQ(String(CStringFormat("%llu %d") << ULLONG_MAX << ULLONG_MAX), "18446744073709551615 18446744073709551615");
    EXPECT_EQ(String(CStringFormat("%u") << -1), "18446744073709551615");
    EXPECT_EQ(String(CStringFormat("%x/%llx/%x") << 0xfffffffeu << -1LL << 0), "fffffffe/ffffffffffffffff/0");
    EXPECT_EQ(String(CStringFormat("%i%%") << 50), "50%");
    EXPECT_EQ(String(CStringFormat("%s=%s") << String(L"\u00e9") << 7), String(L"\u00e9=7"));
}

TEST(StringFormat, missingSurplusAndUnsupportedConversionsStayAsWritten)
{
    using zu::CStringFormat;
    EXPECT_EQ(String(CStringFormat("%d and %d") << 1), "1 and %d");
    EXPECT_EQ(String(CStringFormat("%d") << 1 << 2 << 3), "1");
    EXPECT_EQ(String(CStringFormat("%5d|%q|%") << 9), "%5d|%q|%");
    EXPECT_EQ(String(CStringFormat("%s") << 9) + String(CStringFormat(" %l")), "9 %l");
    EXPECT_EQ(String(CStringFormat(withNul("a%s", "b")) << "x"), withNul("ax", "b"));
}
