// The text descriptor: lines survive a round trip unchanged and in order,
// keys are found and placed where the format expects them, stores fill their
// area exactly, extent lines follow their loose grammar, and hostile text
// parses quickly without failing.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "descriptor/CVMDKDescriptor.h"

#include <chrono>

using kord::CVMDKDescriptor;
using kord::CVMDKExtentInfo;
using kordtest::expectThrows;
using kordtest::msg;

namespace {

using Bytes = std::vector<unsigned char>;

zu::P<CVMDKDescriptor> parse(const std::string& text)
{
    zu::TBuffer<unsigned char> data(reinterpret_cast<const unsigned char*>(text.data()),
                                    static_cast<long long>(text.size()));
    return zu::newObj<CVMDKDescriptor>(data);
}

std::string str(const zu::String& s) { return s.toUTF8(); }
std::string text(const CVMDKDescriptor& d) { return str(d.toString()); }
std::string line(const CVMDKDescriptor& d, int i) { return str(d.getEntry(i)->toString()); }

template <class T>
bool isA(const CVMDKDescriptor& d, int i)
{
    return zu::tryCast<T>(d.getEntry(i)) != nullptr;
}

// Stores into a fresh buffer; returns the bytes written.
Bytes store(CVMDKDescriptor& d, int targetSize, long long padBytes)
{
    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::P<zu::CBufferStream> stream = zu::newObj<zu::CBufferStream>(data);
    zu::TBuffer<unsigned char> pad;
    pad.setUsedFill(padBytes, 0);
    d.store(*stream, targetSize, pad);
    EXPECT_EQ(targetSize, stream->getPosition());
    return Bytes(data->getData(), data->getData() + data->getUsed());
}

zu::P<CVMDKExtentInfo> extent(const char* text) { return CVMDKExtentInfo::tryParseDescriptorLine(zu::String(text)); }

#if defined(__SANITIZE_ADDRESS__)
constexpr double timeBudgetSeconds = 20;
#else
constexpr double timeBudgetSeconds = 2;
#endif

template <class F>
double secondsFor(F&& f)
{
    auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

const char* const realistic = "# Disk DescriptorFile\n"
                              "version=1\n"
                              "encoding=\"UTF-8\"\n"
                              "CID=fffffffe\n"
                              "parentCID=ffffffff\n"
                              "isNativeSnapshot=\"no\"\n"
                              "createType=\"twoGbMaxExtentSparse\"\n"
                              "\n"
                              "# Extent description\r\n"
                              "RW 4192256 SPARSE \"disk-s001.vmdk\"\n"
                              "RW 2048 FLAT \"disk-flat.vmdk\" 0\n"
                              "RDONLY 0 ZERO \"\"\n"
                              "\r\n"
                              "this line means nothing to us\n"
                              "# The Disk Data Base\n"
                              "#DDB\n"
                              "\n"
                              "ddb.virtualHWVersion = \"4\"\n"
                              "ddb.geometry.cylinders = \"4161\"\n"
                              "ddb.uuid = \"60 00 C2 9b\"\n"
                              "ddb.unknownToUs = \"x\"\n";

} // namespace

TEST(DescriptorTest, roundTripKeepsEveryLineInOrder)
{
    zu::P<CVMDKDescriptor> d = parse(realistic);
    ASSERT_EQ(21, d->getEntryCount());
    EXPECT_EQ(realistic, text(*d));
    EXPECT_TRUE(isA<CVMDKDescriptor::CGenericEntry>(*d, 0));
    EXPECT_TRUE(isA<CVMDKDescriptor::CNameValueEntry>(*d, 1));
    EXPECT_TRUE(isA<CVMDKDescriptor::CGenericEntry>(*d, 7));
    EXPECT_EQ("# Extent description\r", line(*d, 8)); // a generic line keeps its CR
    EXPECT_TRUE(isA<CVMDKExtentInfo>(*d, 9));
    EXPECT_TRUE(isA<CVMDKExtentInfo>(*d, 11));
    EXPECT_EQ("\r", line(*d, 12));
    EXPECT_TRUE(isA<CVMDKDescriptor::CGenericEntry>(*d, 13));
    // Just after createType, the last name/value line before the first extent.
    EXPECT_EQ(7, d->getHeaderInsertIndex());
    EXPECT_EQ("4", str(d->getValue("DDB.VirtualHWVersion")));

    // A name/value line ending in CR is read without it and written without it.
    zu::P<CVMDKDescriptor> crlf = parse("CID=12\r\n# c\r\n");
    EXPECT_EQ(0x12u, crlf->getContentID());
    EXPECT_EQ("CID=12\n# c\r\n", text(*crlf));
}

TEST(DescriptorTest, onlyOneTrailingEmptyLineDropped)
{
    EXPECT_EQ(2, parse("a=1\nb=2\n")->getEntryCount());
    zu::P<CVMDKDescriptor> blank = parse("a=1\n\n");
    EXPECT_EQ(2, blank->getEntryCount());
    EXPECT_EQ("a=1\n\n", text(*blank));
    EXPECT_EQ("a=1\n", text(*parse("a=1")));
    for (const std::string& empty : {std::string(), std::string("\0a=1", 4)}) {
        zu::P<CVMDKDescriptor> d = parse(empty);
        EXPECT_EQ(0, d->getEntryCount());
        EXPECT_EQ(0, d->getHeaderInsertIndex());
    }
    // Bytes after the first NUL (the padding of a descriptor area) are ignored.
    EXPECT_EQ("a=1\n", text(*parse(std::string("a=1\n\0b=2\n", 9))));
}

TEST(DescriptorTest, nameValueGrammar)
{
    zu::P<CVMDKDescriptor> d = parse("  #x=1\n"
                                     "  # not a key\n"
                                     "my key=1\n"
                                     "CID = fffffffe\n"
                                     "ddb.uuid=\"x\"\n"
                                     "=nameless\n"
                                     "q=\"\n"
                                     "open=\"unclosed\n"
                                     "eq=a=b\n");
    EXPECT_EQ("#x", str(zu::tryCast<CVMDKDescriptor::CNameValueEntry>(d->getEntry(0))->name));
    EXPECT_EQ("#x=1", line(*d, 0));
    EXPECT_TRUE(isA<CVMDKDescriptor::CGenericEntry>(*d, 1));
    EXPECT_EQ("  # not a key", line(*d, 1));
    EXPECT_TRUE(isA<CVMDKDescriptor::CGenericEntry>(*d, 2));
    EXPECT_FALSE(d->hasValue("my key"));
    EXPECT_EQ("CID=fffffffe", line(*d, 3));
    EXPECT_EQ("ddb.uuid = \"x\"", line(*d, 4));
    EXPECT_TRUE(isA<CVMDKDescriptor::CGenericEntry>(*d, 5));
    EXPECT_EQ("", str(d->getValue("q")));      // a lone quote is an empty quoted value
    EXPECT_EQ("q=\"\"", line(*d, 6));
    EXPECT_EQ("\"unclosed", str(d->getValue("open")));
    EXPECT_EQ("open=\"unclosed", line(*d, 7));
    EXPECT_EQ("a=b", str(d->getValue("eq")));
}

TEST(DescriptorTest, setValueKeepsSpellingQuotingAndPlace)
{
    zu::P<CVMDKDescriptor> d = parse("# Disk DescriptorFile\n"
                                     "version=1\n"
                                     "CID=1\n"
                                     "CID=2\n"
                                     "\n"
                                     "RW 100 SPARSE \"x.vmdk\"\n"
                                     "\n"
                                     "ddb.adapterType = \"ide\"\n");
    EXPECT_EQ(4, d->getHeaderInsertIndex());
    d->setValue("cid", "abc", true, true);     // the first "CID", spelling and quoting kept
    EXPECT_EQ("CID=abc", line(*d, 2));
    EXPECT_EQ("CID=2", line(*d, 3));
    d->setParentContentID(0xffffffff);         // new header key: at the insert index
    d->addGenericLine("# after parentCID", true);
    d->setGeometryHeads(16);                   // new disk database key: at the end
    EXPECT_EQ("# Disk DescriptorFile\nversion=1\nCID=abc\nCID=2\nparentCID=ffffffff\n# after parentCID\n\n"
              "RW 100 SPARSE \"x.vmdk\"\n\nddb.adapterType = \"ide\"\nddb.geometry.heads = \"16\"\n",
              text(*d));
    EXPECT_EQ(6, d->getHeaderInsertIndex());
    d->addGenericLine("# tail", false);
    EXPECT_EQ("# tail", line(*d, d->getEntryCount() - 1));
    // Setting a value from the entry itself changes nothing.
    const zu::String& own = zu::tryCast<CVMDKDescriptor::CNameValueEntry>(d->getEntry(1))->value;
    d->setValue("version", own, false, true);
    EXPECT_EQ("version=1", line(*d, 1));

    // With no name/value line before the first extent, header keys go first.
    zu::P<CVMDKDescriptor> extentsFirst = parse("# c\nRW 1 FLAT \"f\" 0\na=1\n");
    EXPECT_EQ(0, extentsFirst->getHeaderInsertIndex());
    extentsFirst->setVersion(1);
    EXPECT_EQ("version=1\n# c\nRW 1 FLAT \"f\" 0\na=1\n", text(*extentsFirst));
}

TEST(DescriptorTest, extentEntriesAddedAtEndAndShared)
{
    zu::P<CVMDKDescriptor> d = parse("version=1\nRW 1 FLAT \"a\" 0\n# c\n");
    zu::P<CVMDKExtentInfo> added = zu::newObj<CVMDKExtentInfo>("RW", 8, "SPARSE", "b.vmdk", -1);
    d->addExtentEntry(added);
    EXPECT_EQ("version=1\nRW 1 FLAT \"a\" 0\n# c\nRW 8 SPARSE \"b.vmdk\"\n", text(*d));
    zu::TArray<zu::P<CVMDKExtentInfo>> extents;
    d->getExtentEntries(extents);
    ASSERT_EQ(2u, extents.size());
    EXPECT_EQ("a", str(extents[0]->fileName));
    EXPECT_EQ(added.get(), extents[1].get());
    added->sizeSectors = 16;                   // the caller's entry is the one in the list
    EXPECT_EQ("RW 16 SPARSE \"b.vmdk\"", line(*d, 3));
}

TEST(DescriptorTest, textIsAlwaysDecodedAsUtf8)
{
    // Latin-1 bytes are not UTF-8: no entries, whatever the encoding line says.
    zu::P<CVMDKDescriptor> latin = parse("encoding=\"ISO-8859-1\"\nddb.comment = \"caf\xE9\"\n");
    EXPECT_EQ(0, latin->getEntryCount());
    // UTF-8 text under a Latin-1 encoding line is still read as UTF-8.
    zu::P<CVMDKDescriptor> utf8 = parse("encoding=\"ISO-8859-1\"\nddb.comment = \"caf\xC3\xA9\"\n");
    EXPECT_EQ(4u, utf8->getValue("ddb.comment").length());
    EXPECT_EQ("encoding=\"ISO-8859-1\"\nddb.comment = \"caf\xC3\xA9\"\n", text(*utf8));
    // The store sets the encoding line it really used.
    store(*utf8, 100, 100);
    EXPECT_EQ("UTF-8", str(utf8->getValue("encoding")));
}

TEST(DescriptorTest, storeFillsTargetSizeExactly)
{
    zu::P<CVMDKDescriptor> d = parse("version=1\nddb.comment = \"\xC3\xA9\"\n");
    // The encoding line is added once, at the header position (here: after
    // the last name/value line, as there is no extent line).
    const std::string expected = "version=1\nddb.comment = \"\xC3\xA9\"\nencoding=\"UTF-8\"\n";
    const int size = static_cast<int>(expected.size());
    Bytes padded = store(*d, size + 7, 7);
    EXPECT_EQ(expected + std::string(7, '\0'), std::string(padded.begin(), padded.end()));
    const Bytes exact = store(*d, size, 0);
    EXPECT_EQ(expected, std::string(exact.begin(), exact.end()));
    EXPECT_EQ(3, d->getEntryCount());

    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::P<zu::CBufferStream> stream = zu::newObj<zu::CBufferStream>(data);
    zu::TBuffer<unsigned char> pad;
    pad.setUsedFill(1000, 0);
    zu::CError tooLong = expectThrows<zu::CError>([&] { d->store(*stream, size - 1, pad); });
    EXPECT_EQ("Internal error: actual VMDK descriptor size exceeds target size (actual size: " +
                  std::to_string(size) + ", target size: " + std::to_string(size - 1),
              msg(tooLong));
    pad.setUsedFill(9, 0);
    zu::CError smallPad = expectThrows<zu::CError>([&] { d->store(*stream, size + 10, pad); });
    EXPECT_EQ("Internal error: pad buffer too small (size: 9, needed: 10", msg(smallPad));
    EXPECT_EQ(0, data->getUsed());             // failed stores write nothing
}

TEST(DescriptorTest, assignmentCopiesDeeplyAndSelfAssignmentEmpties)
{
    zu::P<CVMDKDescriptor> d = parse(realistic);
    CVMDKDescriptor copy;
    copy = *d;
    EXPECT_EQ(realistic, text(copy));
    EXPECT_EQ(d->getHeaderInsertIndex(), copy.getHeaderInsertIndex());
    copy.setContentID(5);
    zu::TArray<zu::P<CVMDKExtentInfo>> extents;
    copy.getExtentEntries(extents);
    extents[0]->fileName = "changed.vmdk";
    EXPECT_EQ(realistic, text(*d));

    CVMDKDescriptor& self = *d;
    *d = self;
    EXPECT_EQ(0, d->getEntryCount());
}

TEST(DescriptorTest, typedAccessorsReadAndWriteTheirFormat)
{
    CVMDKDescriptor d;
    d.setVersion(3);
    d.setContentID(0xab);
    d.setParentContentID(0xffffffff);
    d.setCreateType("monolithicSparse");
    d.setParentFileNameHint("../parent.vmdk");
    d.setZuCreateExtentFilesOnDemand(true);
    d.setZuEncryptionAlgorithm("AES-256-CBC");
    d.setZuEncryptionKeyHashAlgorithm("SHA-256");
    d.setZuEncryptionKeyDerivationAlgorithm("PBKDF2-HMAC-SHA1");
    const unsigned char raw[] = {0x00, 0x01, 0xfe, 0xff};
    const zu::TBuffer<unsigned char> bytes(raw, 4);
    d.setZuEncryptionIV(bytes);
    d.setZuEncryptedEncryptionKey(bytes);
    d.setZuEncryptionKeyHash(bytes);
    d.setZuEncryptionKeyDerivationSalt(bytes);
    d.setAdapterType("lsilogic");
    d.setGeometryCylinders(1024);
    d.setGeometryHeads(255);
    d.setGeometrySectors(63);
    EXPECT_EQ("version=3\nCID=ab\nparentCID=ffffffff\ncreateType=\"monolithicSparse\"\n"
              "parentFileNameHint=\"../parent.vmdk\"\nzuCreateExtentFilesOnDemand=\"true\"\nzuEncAlg=AES-256-CBC\n"
              "zuEncKeyHashAlg=SHA-256\nzuEncKeyDerivAlg=PBKDF2-HMAC-SHA1\nzuEncIV=0001feff\nzuEncEncKey=0001feff\n"
              "zuEncKeyHash=0001feff\nzuEncKeyDerivSalt=0001feff\nddb.adapterType = \"lsilogic\"\n"
              "ddb.geometry.cylinders = \"1024\"\nddb.geometry.heads = \"255\"\nddb.geometry.sectors = \"63\"\n",
              text(d));

    zu::P<CVMDKDescriptor> back = parse(text(d));
    EXPECT_EQ(3, back->getVersion());
    EXPECT_EQ(0xabu, back->getContentID());
    EXPECT_EQ(0xffffffffu, back->getParentContentID());
    EXPECT_EQ("monolithicSparse", str(back->getCreateType()));
    EXPECT_EQ("../parent.vmdk", str(back->getParentFileNameHint()));
    EXPECT_TRUE(back->getZuCreateExtentFilesOnDemand());
    EXPECT_EQ("AES-256-CBC", str(back->getZuEncryptionAlgorithm()));
    EXPECT_EQ("SHA-256", str(back->getZuEncryptionKeyHashAlgorithm()));
    EXPECT_EQ("PBKDF2-HMAC-SHA1", str(back->getZuEncryptionKeyDerivationAlgorithm()));
    for (const zu::TBuffer<unsigned char>& decoded :
         {back->getZuEncryptionIV(), back->getZuEncryptedEncryptionKey(), back->getZuEncryptionKeyHash(),
          back->getZuEncryptionKeyDerivationSalt()}) {
        EXPECT_EQ(bytes, decoded);
    }
    EXPECT_EQ("lsilogic", str(back->getAdapterType()));
    EXPECT_EQ(1024, back->getGeometryCylinders());
    EXPECT_EQ(255, back->getGeometryHeads());
    EXPECT_EQ(63, back->getGeometrySectors());

    // parentCID is read laxly, CID strictly; both keep the low 32 bits.
    zu::P<CVMDKDescriptor> hex = parse("CID=1FFFFFFFE\nparentCID=0xABCDEF01\n");
    EXPECT_EQ(0xfffffffeu, hex->getContentID());
    EXPECT_EQ(0xabcdef01u, hex->getParentContentID());
    expectThrows<zu::CInvalidArgError>([] { parse("CID=0x12\n")->getContentID(); });
    expectThrows<zu::CInvalidArgError>([] { parse("zuEncIV=abc\n")->getZuEncryptionIV(); });
}

TEST(DescriptorTest, missingKeysRaiseOrDefault)
{
    CVMDKDescriptor d;
    EXPECT_EQ(0xffffffffu, d.getParentContentID());
    EXPECT_FALSE(d.getZuCreateExtentFilesOnDemand());
    EXPECT_EQ("", str(d.getZuEncryptionAlgorithm()));
    zu::String value = "stale";
    EXPECT_FALSE(d.tryGetValue("x", value));
    EXPECT_TRUE(value.empty());
    EXPECT_FALSE(d.tryGetParentFileNameHint(value));

    zu::CError e = expectThrows<zu::CError>([&] { d.getCreateType(); });
    EXPECT_EQ("VMDK descriptor value 'createType' not found.", msg(e));
    EXPECT_EQ(-1, e.getCode());
    EXPECT_TRUE(e.getProps().empty());
    for (const std::function<void()>& get : std::vector<std::function<void()>>{
             [&] { d.getVersion(); }, [&] { d.getContentID(); }, [&] { d.getParentFileNameHint(); },
             [&] { d.getAdapterType(); }, [&] { d.getGeometrySectors(); }, [&] { d.getGeometryHeads(); },
             [&] { d.getGeometryCylinders(); }, [&] { d.getZuEncryptionKeyHashAlgorithm(); },
             [&] { d.getZuEncryptionKeyDerivationAlgorithm(); }, [&] { d.getZuEncryptionIV(); },
             [&] { d.getZuEncryptedEncryptionKey(); }, [&] { d.getZuEncryptionKeyHash(); },
             [&] { d.getZuEncryptionKeyDerivationSalt(); }}) {
        EXPECT_EQ(0u, msg(expectThrows<zu::CError>(get)).find("VMDK descriptor value '"));
    }
}

TEST(DescriptorTest, extentLineGrammar)
{
    zu::P<CVMDKExtentInfo> spaced = extent("RW 4192256 SPARSE \"a b.vmdk\"");
    ASSERT_TRUE(spaced);
    EXPECT_EQ("RW", str(spaced->access));
    EXPECT_EQ(4192256, spaced->sizeSectors);
    EXPECT_EQ("SPARSE", str(spaced->type));
    EXPECT_EQ("a b.vmdk", str(spaced->fileName));
    EXPECT_EQ(-1, spaced->offset);
    EXPECT_EQ("RW 4192256 SPARSE \"a b.vmdk\"", str(spaced->toString()));

    zu::P<CVMDKExtentInfo> blanks = extent("RW  100   FLAT   \"x.vmdk\"   0");
    ASSERT_TRUE(blanks);
    EXPECT_EQ(0, blanks->offset);
    EXPECT_EQ("RW 100 FLAT \"x.vmdk\" 0", str(blanks->toString()));

    zu::P<CVMDKExtentInfo> loose = extent("ZZ 1 QQ \"f\"");
    ASSERT_TRUE(loose);
    EXPECT_EQ("ZZ", str(loose->access));
    EXPECT_EQ("QQ", str(loose->type));
    zu::P<CVMDKExtentInfo> unnamed = extent("RW 100 ZERO \"\"");
    ASSERT_TRUE(unnamed);
    EXPECT_EQ("", str(unnamed->fileName));
    zu::P<CVMDKExtentInfo> offset = extent("RW 100 FLAT \"x.vmdk\" 9000000000 \r");
    ASSERT_TRUE(offset);
    EXPECT_EQ(9000000000, offset->offset);

    for (const char* notExtent : {"RW 100 FLAT x.vmdk", "RW 100 \"x.vmdk\"", "RW abc SPARSE \"x.vmdk\"",
                                  "RW 100 FLAT \"x.vmdk\" 0 extra", "RW 100 FLAT \"x.vmdk", "RW\t100 FLAT \"x\"",
                                  " RW 100 FLAT \"x\"", "RW 99999999999999999999 FLAT \"x\"",
                                  "RW 100 FLAT \"x\" 99999999999999999999", "RW", ""}) {
        EXPECT_FALSE(extent(notExtent)) << notExtent;
    }

    // In a descriptor: a name with "=" is still a file name, a broken line stays as written.
    zu::P<CVMDKDescriptor> d = parse("RW 100 FLAT \"x=y.vmdk\" 0\nRW 100 FLAT x.vmdk\n");
    EXPECT_TRUE(isA<CVMDKExtentInfo>(*d, 0));
    EXPECT_EQ("RW 100 FLAT x.vmdk", line(*d, 1));
    zu::P<kord::CVMDKDescriptorEntry> clone = d->getEntry(0)->cloneDescriptorEntry();
    zu::tryCast<CVMDKExtentInfo>(clone.get())->fileName = "other";
    EXPECT_EQ("RW 100 FLAT \"x=y.vmdk\" 0", line(*d, 0));
}

TEST(DescriptorTest, hostileTextParsesInLinearTime)
{
    // Embedded NULs end the text.
    EXPECT_EQ(1, parse(std::string("a=1\n\0\0b=2", 9))->getEntryCount());

    // Overflowing numbers and unclosed quotes do not break the parse; the
    // typed getters refuse the numbers.
    zu::P<CVMDKDescriptor> d = parse("version=99999999999999999999\nCID=12345678901234567\n"
                                     "createType=\"monolithic\nRW 1 SPARSE \"x\n");
    EXPECT_EQ(4, d->getEntryCount());
    expectThrows<zu::CInvalidArgError>([&] { d->getVersion(); });
    // A version that fits 64 bits but not an int is not read as its low bits.
    expectThrows<zu::CInvalidArgError>([] { parse("version=4294967297\n")->getVersion(); });
    expectThrows<zu::CInvalidArgError>([&] { d->getContentID(); });
    EXPECT_EQ("\"monolithic", str(d->getCreateType()));

    const size_t big = 4u << 20;
    const std::vector<std::string> texts = {
        "a=" + std::string(big, 'x'),                          // one long value
        std::string(big, ' '),                                 // one line of blanks
        "RW 1 FLAT \"" + std::string(big, ' ') + "\" 0",       // a long extent line
        std::string(big, '"'),                                 // nothing but quotes
    };
    for (const std::string& t : texts) {
        zu::P<CVMDKDescriptor> parsed;
        EXPECT_LT(secondsFor([&] { parsed = parse(t); }), timeBudgetSeconds);
        EXPECT_EQ(1, parsed->getEntryCount());
    }
    std::string many;
    for (int i = 0; i < 1000000; ++i) many += (i % 2) ? "k=v\n" : "#\n";
    zu::P<CVMDKDescriptor> lines;
    EXPECT_LT(secondsFor([&] { lines = parse(many); }), timeBudgetSeconds);
    EXPECT_EQ(1000000, lines->getEntryCount());
    EXPECT_LT(secondsFor([&] { EXPECT_EQ(many.size(), text(*lines).size()); }), timeBudgetSeconds);
}
