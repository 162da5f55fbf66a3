// The value parsers of descriptor fields: exact 64-bit bounds, strict versus
// lax input, and errors that quote the text. (The formatter is checked by
// every exact message the other tests compare; the hex codec by the crypto
// vectors, which it decodes, and by the descriptor's byte fields.)
#include "base/Parse.h"

#include "common/TestUtil.h"

#include <climits>
#include <functional>

using namespace kordtest;
using namespace zu;

TEST(Parse, boundsStrictnessAndMessages)
{
    const auto dec = [](const String& t, bool lax) { return zu::parseInt64(t, lax); };
    const auto hex = [](const String& t, bool lax) { return zu::parseHexInt64(t, lax); };
    const auto boolean = [](const String& t, bool) { return static_cast<long long>(zu::parseBool(t)); };
    const struct {
        std::function<long long(const String&, bool)> parse;
        std::vector<std::pair<const char*, long long>> accepted;
        std::vector<const char*> refused; // when strict; lax also refuses those after "|"
    } cases[] = {
        {dec, {{"9223372036854775807", LLONG_MAX}, {"-9223372036854775808", LLONG_MIN}, {"+9223372036854775807", LLONG_MAX},
               {"000000000000000000000000042", 42}, {" \t-17\r\n", -17}},
         {"9223372036854775808", "-9223372036854775809", "99999999999999999999999999", " 1", "1\n", "|", "", "-", "--1",
          "+-1", "1a", "0x10", "1.0", "1e3", "1 2", " - 1", "   "}},
        {hex, {{"aBcDeF", 0xabcdef}, {"7fffffffffffffff", LLONG_MAX}, {"8000000000000000", LLONG_MIN},
               {"ffffffffffffffff", -1}, {" 0x1F\t", 0x1f}, {"0Xffffffffffffffff", -1}},
         {"0x10", " 10", "|", "10000000000000000", "00000000000000001", "", "0x", "x10", "-1", "+1", "g", "1 0", "0x 1"}},
        {boolean, {{"true", 1}, {"TRUE", 1}, {"Yes", 1}, {"on", 1}, {"1", 1}, {"false", 0}, {"No", 0}, {"OFF", 0}, {"0", 0}},
         {"|", "", "2", "t", "truee", " true", "y"}},
    };
    for (const auto& c : cases) {
        for (const auto& [text, value] : c.accepted) EXPECT_EQ(value, c.parse(text, true)) << text;
        bool lax = false;
        for (const char* text : c.refused) {
            if (*text == '|') lax = true;
            else expectThrows<CInvalidArgError>([&] { c.parse(text, lax); });
        }
        // A digit outside ASCII and a NUL inside the text are no digits.
        expectThrows<CInvalidArgError>([&] { c.parse(String(L"\uFF11"), true); });
        expectThrows<CInvalidArgError>([&] { c.parse(String(std::string("1\0002", 3)), true); });
    }
    EXPECT_EQ("Invalid argument passed to 'zu::parseInt64': '12x' is not a decimal number.",
              msg(expectThrows<CInvalidArgError>([] { zu::parseInt64("12x", false); })));
    EXPECT_NE(std::string::npos,
              msg(expectThrows<CInvalidArgError>([] { zu::parseInt64("-9223372036854775809", false); })).find("outside the range"));
    EXPECT_NE(std::string::npos,
              msg(expectThrows<CInvalidArgError>([] { zu::parseHexInt64("10000000000000000", true); })).find("more than 16"));
    // A hostile megabyte value does not become a megabyte message.
    String huge(std::string(1 << 20, '7') + "x");
    const std::string big = msg(expectThrows<CInvalidArgError>([&] { zu::parseInt64(huge, false); }));
    EXPECT_LT(big.size(), 200u);
    EXPECT_NE(big.find("'7777777777"), std::string::npos);
}
