// Every disk of the corpus of files other software wrote reads through
// openAny to exactly the bytes its producer meant, and the checker finds
// nothing wrong in it. The constructor opens those in our own variants and
// refuses the others as before. An old split disk whose descriptor file
// has no room takes writes, and a footer cut off is named as such.
#include "common/Corpus.h"
#include "disk/DiskTestUtil.h"

#include "disk/CVMDKChecker.h"

using namespace disktest;
using kordtest::msg;

namespace {

class CorpusTest : public testing::Test {
protected:
    void SetUp() override
    {
        disks = kordtest::corpusDisks();
        if (disks.empty()) GTEST_SKIP() << "the corpus ../shared/vmdk-corpus is not there: real-world files not read";
    }
    std::string unpack(const std::string& id)
    {
        for (const kordtest::CorpusDisk& d : disks)
            if (d.id == id) return kordtest::unpackCorpusDisk(d, temp.path());
        ADD_FAILURE() << "no corpus disk " << id;
        return "";
    }
    std::string contentHash(CVMDKDisk& disk)
    {
        kordtest::Sha256 sha;
        Bytes chunk(4 << 20);
        for (long long at = 0; at < disk.getDiskSizeBytes(); at += chunk.size()) {
            long long n = std::min<long long>(chunk.size(), disk.getDiskSizeBytes() - at);
            disk.seek(at);
            disk.read(chunk.data(), static_cast<int>(n));
            sha.update(chunk.data(), n);
        }
        return sha.hex();
    }

    std::vector<kordtest::CorpusDisk> disks;
    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

TEST_F(CorpusTest, everyDiskReadsToItsExpectedBytes)
{
    // What the constructor says to each: "" where it opens and reads.
    const std::map<std::string, std::string> refusals = {
        {"R03", "VMDK file uses an unsupported variant of the 'stream optimized' format."},
        {"R06", "Slot size directory not found in compressed VMDK."},
        {"R09", "VMDK disk has an unsupported create type: 'vmfs'."},
        {"V01", "Slot size directory not found in compressed VMDK."}};
    for (const kordtest::CorpusDisk& d : disks) {
        SCOPED_TRACE(d.id);
        const std::string main = kordtest::unpackCorpusDisk(d, temp.path());
        zu::P<CVMDKDisk> disk = CVMDKDisk::openAny(fs, fileURI(main), R, zu::String());
        EXPECT_EQ(d.size, disk->getDiskSizeBytes());
        EXPECT_EQ(d.sha256, contentHash(*disk));
        disk = nullptr;
        for (const auto& finding : kord::CVMDKChecker(fs, fileURI(main), zu::String()).check())
            ADD_FAILURE() << kord::CVMDKChecker::getKindName(finding.kind) << ": " << finding.message.toUTF8();
        auto refusal = refusals.find(d.id);
        try {
            readAt(*openDisk(fs, fileURI(main), R), 0, 512);
            EXPECT_TRUE(refusal == refusals.end());
        } catch (const zu::CError& e) {
            EXPECT_TRUE(refusal != refusals.end() && refusal->second == msg(e)) << msg(e);
        }
    }
}

// R08's descriptor file ends where its text does, without an "encoding"
// line: the first write replaces it by a longer file, and the disk keeps
// every byte it had.
TEST_F(CorpusTest, splitDiskWithoutDescriptorRoomTakesWrites)
{
    const std::string main = unpack("R08");
    const Bytes before = readAt(*CVMDKDisk::openAny(fs, fileURI(main), R, zu::String()), 0, 10 << 20);
    const std::string text = fileText(main);
    const Bytes data = kordtest::pattern(100000, 6);
    writeAt(*CVMDKDisk::openAny(fs, fileURI(main), RW, zu::String()), 3 << 20, data);
    Bytes expected = before;
    std::copy(data.begin(), data.end(), expected.begin() + (3 << 20));
    EXPECT_TRUE(readAt(*openDisk(fs, fileURI(main), R), 0, 10 << 20) == expected);
    EXPECT_GT(fileText(main).size(), text.size());
    EXPECT_NE(std::string::npos, fileText(main).find("ddb.longContentID = \"b93eae20bf0418af3d6428e797798347\""));
    EXPECT_TRUE(kord::CVMDKChecker(fs, fileURI(main), zu::String()).check().empty());
}

TEST_F(CorpusTest, streamFileCutBeforeItsFooterIsNamedTruncated)
{
    const std::string main = unpack("R03");
    const std::string whole = fileText(main);
    for (size_t cut : {size_t(512), size_t(1000), size_t(1536), whole.size() - 2048}) {
        putFile(main, whole.substr(0, whole.size() - cut));
        zu::CError e = kordtest::expectThrows([&] { CVMDKDisk::openAny(fs, fileURI(main), R, zu::String()); });
        EXPECT_EQ("VMDK stream-optimized file does not end with its footer: the file is truncated or was never "
                  "finished.", msg(e)) << cut;
        EXPECT_EQ(std::to_string(whole.size() - cut), e.getProp("fileSize").toUTF8());
    }
}

} // namespace
