// The text descriptor: lines survive a round trip unchanged and in order,
// keys are found and placed where the format expects them, stores fill their
// area exactly, extent lines follow their loose grammar, and hostile text
// parses quickly without failing.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "descriptor/CVMDKDescriptor.h"

#include <chrono>
#include <functional>

using namespace kordtest;
using namespace kord;

namespace {

zu::P<CVMDKDescriptor> parse(const std::string& text)
{
    return zu::newObj<CVMDKDescriptor>(zu::TBuffer<unsigned char>(reinterpret_cast<const unsigned char*>(text.data()),
                                                                  static_cast<long long>(text.size())));
}

std::string str(const zu::String& s) { return s.toUTF8(); }
std::string text(const CVMDKDescriptor& d) { return str(d.toString()); }

zu::TArray<zu::P<CVMDKExtentInfo>> extents(const CVMDKDescriptor& d)
{
    zu::TArray<zu::P<CVMDKExtentInfo>> list;
    d.getExtentEntries(list);
    return list;
}

// Stores into a fresh buffer, which must stay empty when the store fails.
std::string store(CVMDKDescriptor& d, int targetSize, long long padBytes)
{
    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::P<zu::CBufferStream> stream = zu::newObj<zu::CBufferStream>(data);
    zu::TBuffer<unsigned char> pad;
    pad.setUsedFill(padBytes, 0);
    try {
        d.store(*stream, targetSize, pad);
    } catch (...) {
        EXPECT_EQ(0, data->getUsed());
        throw;
    }
    return std::string(data->getData(), data->getData() + data->getUsed());
}

const char* const realistic = "# Disk DescriptorFile\nversion=1\nCID=fffffffe\ncreateType=\"twoGbMaxExtentSparse\"\n\n"
                              "# Extent description\r\nRW 4192256 SPARSE \"disk-s001.vmdk\"\nRDONLY 0 ZERO \"\"\n\r\n"
                              "this line means nothing to us\n#DDB\nddb.virtualHWVersion = \"4\"\n";

} // namespace

TEST(DescriptorTest, roundTripKeepsEveryLineNewLinesGoToTheirPlaceAndStoresFillTheirArea)
{
    zu::P<CVMDKDescriptor> d = parse(realistic);
    EXPECT_EQ(12, d->getEntryCount());
    EXPECT_EQ(realistic, text(*d));            // generic lines keep their CR
    EXPECT_EQ(2u, extents(*d).size());
    EXPECT_EQ(4, d->getHeaderInsertIndex());   // after createType, the last name/value line before an extent
    EXPECT_EQ("4", str(d->getValue("DDB.VirtualHWVersion")));
    // A copy (what a renewal of the content ID changes) shares nothing with its source.
    CVMDKDescriptor copy;
    copy = *d;
    copy.setContentID(5);
    extents(copy)[0]->fileName = "changed.vmdk";
    EXPECT_EQ(realistic, text(*d));

    // Only one trailing empty line is dropped, a name/value line loses its
    // CR, and the text ends at the first NUL (the padding of a descriptor area).
    const struct { std::string in; int entries; std::string out; } cases[] = {
        {"a=1\nb=2\n", 2, "a=1\nb=2\n"},
        {"a=1\n\n", 2, "a=1\n\n"},
        {"a=1", 1, "a=1\n"},
        {"CID=12\r\n# c\r\n", 2, "CID=12\n# c\r\n"},
        {std::string("a=1\n\0b=2\n", 9), 1, "a=1\n"},
        {"", 0, ""},
    };
    for (const auto& c : cases) {
        zu::P<CVMDKDescriptor> parsed = parse(c.in);
        EXPECT_EQ(c.entries, parsed->getEntryCount()) << c.in;
        EXPECT_EQ(c.out, text(*parsed));
    }

    // The name/value grammar.
    d = parse("  #x=1\n  # not a key\nmy key=1\nCID = fffffffe\nddb.uuid=\"x\"\n=nameless\n"
                                     "q=\"\nopen=\"unclosed\neq=a=b\n");
    // Blanks before "#" make no comment; spacing around "=" is the format's own.
    EXPECT_EQ("#x=1\n  # not a key\nmy key=1\nCID=fffffffe\nddb.uuid = \"x\"\n=nameless\nq=\"\"\n"
              "open=\"unclosed\neq=a=b\n",
              text(*d));
    EXPECT_EQ("1", str(d->getValue("#x")));
    EXPECT_FALSE(d->hasValue("my key") || d->hasValue(""));
    EXPECT_EQ("", str(d->getValue("q")));      // a lone quote is an empty quoted value
    EXPECT_EQ("\"unclosed", str(d->getValue("open")));
    EXPECT_EQ("a=b", str(d->getValue("eq")));

    // New lines go to their place; old ones keep their spelling and quoting.
    d = parse("# Disk DescriptorFile\nversion=1\nCID=1\nCID=2\n\n"
                                     "RW 100 SPARSE \"x.vmdk\"\n\nddb.adapterType = \"ide\"\n");
    d->setValue("cid", "abc", true, true);     // the first "CID", spelling and quoting kept
    d->setParentContentID(0xffffffff);         // new header key: at the insert index
    d->addGenericLine("# after parentCID", true);
    d->setGeometryHeads(16);                   // new disk database key: at the end
    d->addExtentEntry(zu::newObj<CVMDKExtentInfo>("RW", 8, "SPARSE", "b.vmdk", -1));
    d->addGenericLine("# tail", false);
    // Setting a value from the entry itself changes nothing.
    d->setValue("version", zu::tryCast<CVMDKDescriptor::CNameValueEntry>(d->getEntry(1))->value, false, true);
    extents(*d)[1]->sizeSectors = 16;          // entries are shared with the caller
    EXPECT_EQ("# Disk DescriptorFile\nversion=1\nCID=abc\nCID=2\nparentCID=ffffffff\n# after parentCID\n\n"
              "RW 100 SPARSE \"x.vmdk\"\n\nddb.adapterType = \"ide\"\nddb.geometry.heads = \"16\"\n"
              "RW 16 SPARSE \"b.vmdk\"\n# tail\n",
              text(*d));
    EXPECT_EQ(6, d->getHeaderInsertIndex());

    // With no name/value line before the first extent, header keys go first.
    zu::P<CVMDKDescriptor> extentsFirst = parse("# c\nRW 1 FLAT \"f\" 0\na=1\n");
    extentsFirst->setVersion(1);
    EXPECT_EQ("version=1\n# c\nRW 1 FLAT \"f\" 0\na=1\n", text(*extentsFirst));

    // Latin-1 bytes are not UTF-8: no entries, whatever the encoding line
    // says. UTF-8 under a Latin-1 encoding line is read as UTF-8, and the
    // store sets the encoding line it really used.
    EXPECT_EQ(0, parse("encoding=\"ISO-8859-1\"\nddb.comment = \"caf\xE9\"\n")->getEntryCount());
    zu::P<CVMDKDescriptor> latin = parse("encoding=\"ISO-8859-1\"\nddb.comment = \"caf\xC3\xA9\"\n");
    store(*latin, 100, 100);
    EXPECT_EQ("encoding=\"UTF-8\"\nddb.comment = \"caf\xC3\xA9\"\n", text(*latin));

    d = parse("version=1\nddb.comment = \"\xC3\xA9\"\n");
    // The encoding line is added once, at the header position (here: after
    // the last name/value line, as there is no extent line).
    const std::string expected = "version=1\nddb.comment = \"\xC3\xA9\"\nencoding=\"UTF-8\"\n";
    const int size = static_cast<int>(expected.size());
    EXPECT_EQ(expected + std::string(7, '\0'), store(*d, size + 7, 7));
    EXPECT_EQ(expected, store(*d, size, 0));
    EXPECT_EQ(expected, text(*d));

    kordtest::expectError([&] { store(*d, size - 1, 1000); },
                          "VMDK descriptor is larger than the room for it in the file (descriptor size: " +
                              std::to_string(size) + " bytes, room: " + std::to_string(size - 1) + " bytes).",
                          zu::CIOError::codeInvalidData);
}

TEST(DescriptorTest, typedValuesUseTheirKeysAndFormats)
{
    CVMDKDescriptor d;
    d.setContentID(0xab);
    d.setZuCreateExtentFilesOnDemand(true);
    d.setZuEncryptionAlgorithm("AES-256-CBC");
    const zu::TBuffer<unsigned char> bytes(reinterpret_cast<const unsigned char*>("\x00\x01\xfe\xff"), 4);
    for (auto set : {&CVMDKDescriptor::setZuEncryptionIV, &CVMDKDescriptor::setZuEncryptedEncryptionKey,
                     &CVMDKDescriptor::setZuEncryptionKeyHash, &CVMDKDescriptor::setZuEncryptionKeyDerivationSalt})
        (d.*set)(bytes);
    EXPECT_EQ("CID=ab\nzuCreateExtentFilesOnDemand=\"true\"\nzuEncAlg=AES-256-CBC\nzuEncIV=0001feff\n"
              "zuEncEncKey=0001feff\nzuEncKeyHash=0001feff\nzuEncKeyDerivSalt=0001feff\n",
              text(d));

    // parentCID is read laxly, CID strictly; both keep the low 32 bits.
    zu::P<CVMDKDescriptor> hex = parse("CID=1FFFFFFFE\nparentCID=0xABCDEF01\n");
    EXPECT_EQ(0xfffffffeu, hex->getContentID());
    EXPECT_EQ(0xabcdef01u, hex->getParentContentID());

    // A value of the wrong type is damage in the file, named by key and value.
    const std::pair<std::function<void(CVMDKDescriptor&)>, std::string> refused[] = {
        {[](CVMDKDescriptor& x) { x.getContentID(); }, "'CID' is not a hexadecimal number: '0x12'."},
        {[](CVMDKDescriptor& x) { x.getZuEncryptionIV(); }, "'zuEncIV' is not hexadecimal bytes: 'abc'."},
        {[](CVMDKDescriptor& x) { x.getVersion(); }, "'version' is not a 32-bit decimal number: '4294967297'."},
        {[](CVMDKDescriptor& x) { x.getGeometryHeads(); }, "'ddb.geometry.heads' is not a decimal number: '1x'."},
    };
    zu::P<CVMDKDescriptor> bad = parse("CID=0x12\nzuEncIV=abc\nversion=4294967297\nddb.geometry.heads = \"1x\"\n");
    bad->setSourceURI(zu::CURI("file:///vm/disk.vmdk"));
    for (const auto& [get, message] : refused)
        EXPECT_EQ("file:///vm/disk.vmdk", str(expectError([&] { get(*bad); }, "VMDK descriptor value " + message,
                                                          zu::CIOError::codeInvalidData).getProp("uri")));

    // Missing keys: optional ones have defaults, mandatory ones raise.
    CVMDKDescriptor empty;
    EXPECT_EQ(0xffffffffu, empty.getParentContentID());
    EXPECT_FALSE(empty.getZuCreateExtentFilesOnDemand());
    kordtest::expectError<zu::CError>([&] { empty.getCreateType(); }, "VMDK descriptor value 'createType' not found.", -1);
}

TEST(DescriptorTest, extentLineGrammarAndHostileTextInLinearTime)
{
    // Every field is written back, so the text shows what was parsed.
    const std::pair<const char*, const char*> cases[] = {
        {"RW 4192256 SPARSE \"a b.vmdk\"", "RW 4192256 SPARSE \"a b.vmdk\""},
        {"RW  100   FLAT   \"x.vmdk\"   0", "RW 100 FLAT \"x.vmdk\" 0"},
        {"ZZ 1 QQ \"f\"", "ZZ 1 QQ \"f\""},   // words are not checked here
        {"RW 100 ZERO \"\"", "RW 100 ZERO \"\""},
        {"RW 100 ZERO", "RW 100 ZERO"},       // a ZERO extent needs no file
        {"RW 100 FLAT \"x.vmdk\" 9000000000 \r", "RW 100 FLAT \"x.vmdk\" 9000000000"},
    };
    for (const auto& c : cases) {
        zu::P<CVMDKExtentInfo> e = CVMDKExtentInfo::tryParseDescriptorLine(zu::String(c.first));
        ASSERT_TRUE(e) << c.first;
        EXPECT_EQ(c.second, str(e->toString()));
    }
    for (const char* notExtent : {"RW 100 FLAT x.vmdk", "RW 100 \"x.vmdk\"", "RW abc SPARSE \"x.vmdk\"",
                                  "RW 100 FLAT \"x.vmdk\" 0 extra", "RW 100 FLAT \"x.vmdk", "RW\t100 FLAT \"x\"",
                                  " RW 100 FLAT \"x\"", "RW 99999999999999999999 FLAT \"x\"",
                                  "RW 100 FLAT \"x\" 99999999999999999999", "RW 100 FLAT", "RW abc ZERO", "RW", ""})
        EXPECT_FALSE(CVMDKExtentInfo::tryParseDescriptorLine(zu::String(notExtent))) << notExtent;

    // In a descriptor: a name with "=" is still a file name, a broken line stays as written.
    zu::P<CVMDKDescriptor> d = parse("RW 100 FLAT \"x=y.vmdk\" 0\nRW 100 FLAT x.vmdk\n");
    EXPECT_EQ(1u, extents(*d).size());
    EXPECT_EQ("RW 100 FLAT \"x=y.vmdk\" 0\nRW 100 FLAT x.vmdk\n", text(*d));

    // Hostile text parses in linear time. (Files of more lines than a
    // descriptor may have are refused before they are parsed.)
    const size_t big = 4u << 20;
    for (const std::string& t : {"a=" + std::string(big, 'x'), std::string(big, ' '),
                                 "RW 1 FLAT \"" + std::string(big, ' ') + "\" 0", std::string(big, '"')}) {
        // Generous even under sanitizers: a quadratic parse of these takes hours.
        const auto start = std::chrono::steady_clock::now();
        zu::P<CVMDKDescriptor> parsed = parse(t);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_EQ(1, parsed->getEntryCount());
    }
}
