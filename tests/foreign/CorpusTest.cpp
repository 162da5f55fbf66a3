// Every disk of the corpus of files other software wrote reads through
// openAny to exactly the bytes its producer meant, and the checker finds
// nothing wrong in it. The constructor opens those in our own variants and
// refuses the others as before.
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

} // namespace
