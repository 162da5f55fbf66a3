// The disk's edges: extent boundaries and the disk's end, access checks in
// their order, parents that changed, shrank, vanished or loop, extents made
// on demand, passwords and the bounds on what a descriptor may ask for,
// prepared-grain copies, the stream adapter, the lock file, and the making
// of new disks (refusals and clean-up included).
#include "DiskTestUtil.h"

#include "base/Endian.h"
#include "common/CFaultFileSystem.h"
#include "common/ExtentTestUtil.h"
#include "disk/CVMDKDiskIOStream.h"
#include "grain/CVMDKGrainCipher.h"
#include "grain/CVMDKGrainTableCache.h"

#include <tuple>

using namespace disktest;
using kordtest::CFaultFileSystem;
using kordtest::expectError;
using kordtest::expectThrows;
using kordtest::msg;

namespace {

using zu::CError;

std::string prop(const zu::CError& e, const char* name) { return e.getProp(name).toUTF8(); }

class DiskEdgeTest : public DiskFolderTest {};

TEST_F(DiskEdgeTest, transfersAcrossExtentsAndAtTheEnd)
{
    const long long size = (2 * splitSectors + 256) * sector, boundary1 = splitSectors * sector;
    const Bytes a = kordtest::pattern(3 * grainBytes, 1);
    writeAt(*create("split.vmdk", "twoGbMaxExtentSparse", size / sector), boundary1 - grainBytes - 5, a);
    zu::P<CVMDKDisk> disk = open("split.vmdk", RW);

    // Seeking to the end is allowed; no byte can be moved there (a write
    // past it, the Python tests), prepared grains only whole at grain
    // boundaries; a refusal moves nothing.
    disk->seek(size), disk->read(nullptr, 0);
    unsigned char byte = 0;
    zu::TBuffer<unsigned char> prepared;
    const std::vector<std::tuple<long long, std::function<void()>, std::string, long long>> refusals = {
        {size, [&] { disk->read(&byte, 1); }, "Read exceeds VMDK disk size.", 4},
        {size, [&] { disk->seek(-1); }, "Bad seek position in VMDK disk: -1", 7},
        {size, [&] { disk->seek(size + 1); }, "Bad seek position in VMDK disk: " + std::to_string(size + 1), 7},
        {size, [&] { disk->readPreparedGrainData(prepared); }, "Prepared grain read exceeds VMDK disk size.", 3},
        {grainBytes / 2, [&] { disk->readPreparedGrainData(prepared); },
         "Prepared grain read in VMDK disk can only be done on a grain boundary.", 11}};
    for (const auto& [at, refusal, message, code] : refusals) {
        disk->seek(at);
        expectError<zu::CIOError>(refusal, message, code);
        EXPECT_EQ(at, disk->getPosition()) << message;
    }
    disk->seek(boundary1), disk->readPreparedGrainData(prepared);
    disk->seek(size - grainBytes), disk->writePreparedGrainData(prepared);
    EXPECT_EQ(size, disk->getPosition());
    const Bytes copied(a.begin() + grainBytes + 5, a.end() - grainBytes + 5);
    EXPECT_TRUE(readAt(*disk, size - grainBytes, grainBytes) == copied);

    // Queries and space accounting leave the position where it was.
    disk->seek(boundary1 + 10);
    EXPECT_TRUE(disk->isGrainWritten());
    EXPECT_EQ(5 * grainBytes, disk->gatherSpaceInfo()->payloadSize); // a: 4 grains, the copy: 1
    EXPECT_EQ(boundary1 + 10, disk->getPosition());
}

TEST_F(DiskEdgeTest, readOnlyOpenChecksSizeFirstAndChangesNoByte)
{
    writeAt(*create("p.vmdk", "monolithicSparse", 64 * grainSectors), 3 * grainBytes, kordtest::pattern(2 * grainBytes, 3));
    writeAt(*create("c.vmdk", "monolithicSparse", 0, "", "p.vmdk"), 3 * grainBytes - 7, kordtest::pattern(100, 4));
    writeAt(*create("so.vmdk", "streamOptimized", 64 * grainSectors, password), grainBytes - 3, Bytes(9, 1));
    const auto before = snapshot(temp.path());
    EXPECT_TRUE(readAt(*open("so.vmdk", R, password), grainBytes - 4, 11) == Bytes({0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0}));
    {
        zu::P<CVMDKDisk> disk = open("c.vmdk", R);
        Bytes all = readAt(*disk, 0, disk->getDiskSizeBytes());
        disk->seek(4 * grainBytes);
        EXPECT_TRUE(disk->isGrainWritten());
        EXPECT_FALSE(disk->isGrainWrittenAndIndependentOfParent());
        zu::TBuffer<unsigned char> prepared;
        disk->readPreparedGrainData(prepared), disk->gatherSpaceInfo(), disk->flushChanges();

        // The size test comes before the access test.
        disk->seek(disk->getDiskSizeBytes() - 1);
        expectError<zu::CIOError>([&] { disk->write(all.data(), 2); }, "Write exceeds VMDK disk size.", 3);
        expectError<zu::CIOError>([&] { disk->writePreparedGrainData(prepared); },
                                  "Prepared grain write exceeds VMDK disk size.", 3);
        disk->seek(0);
        const std::vector<std::function<void()>> changes = {
            [&] { disk->write(all.data(), 1); }, [&] { disk->writePreparedGrainData(prepared); },
            [&] { disk->makeGrainIndependentOfParent(3); }, [&] { disk->storeDescriptor(); },
            [&] { disk->changeParentRelPath("x.vmdk"); }};
        for (const auto& change : changes) {
            const std::string m = msg(expectThrows(change));
            EXPECT_EQ(0u, m.find("Internal error: CVMDKDisk::")) << m;
            EXPECT_NE(std::string::npos, m.find(" was called, but the disk was not opened for writing.")) << m;
        }
    }
    EXPECT_TRUE(before == snapshot(temp.path()));
}

// The adapter refuses what a disk cannot do, and anything once closed (its
// reads, writes and end are the Python module's).
TEST_F(DiskEdgeTest, streamAdapterRefusesWhatADiskCannotDo)
{
    create("s.vmdk", "monolithicSparse", 4 * grainSectors);
    zu::P<kord::CVMDKDiskIOStream> stream = zu::newObj<kord::CVMDKDiskIOStream>(fs, uri("s.vmdk"), RW, "");
    Bytes buf(100, 0);
    expectError<zu::CIOError>([&] { stream->setLength(1); }, "Error changing the size of a file.", 13);
    EXPECT_EQ("6", prop(expectError<zu::CFileSystemError>([&] { stream->lockRange(0, 1, zu::IStreamBase::lockShared); },
                                                          "VMDK Disk I/O stream does not support lockRange.", 6),
                        "fileSysProblem"));

    stream->close();
    stream->close();
    expectError<zu::CIOError>([&] { stream->write(buf.data(), 1); }, "Error: stream has been closed.", 10);
    EXPECT_FALSE(std::filesystem::exists(path("s.vmdk.lock"))) << "closing must release the disk and its lock";
}

TEST_F(DiskEdgeTest, lockFileKeepsOutASecondWriterOnly)
{
    // Two readers share the lock and keep a writer out (that a writer keeps
    // a reader out, the plugin, mount and Python tests show).
    create("d.vmdk", "monolithicSparse", 4 * grainSectors);
    {
        zu::P<CVMDKDisk> first = open("d.vmdk", R), second = open("d.vmdk", R);
        expectThrows<zu::CLockFileError>([&] { open("d.vmdk", RW); });
    }
    EXPECT_FALSE(std::filesystem::exists(path("d.vmdk.lock")));

    // Where no lock file can be made, a reader goes on without one; a writer never.
    zu::P<zu::CMemoryFileSystem> memory = zu::newObj<zu::CMemoryFileSystem>();
    CVMDKDisk::create(memory, uri("m.vmdk"), params("monolithicSparse", 4 * grainSectors));
    memory->setReadOnly(true);
    EXPECT_EQ(4 * grainBytes, openDisk(memory, uri("m.vmdk"), R)->getDiskSizeBytes());
    EXPECT_FALSE(memory->exists(uri("m.vmdk.lock")));
    expectThrows([&] { openDisk(memory, uri("m.vmdk"), RW); });
}

TEST_F(DiskEdgeTest, parentThatShrankVanishedOrChangedIsHandledOnFirstUse)
{
    const Bytes parentData = kordtest::pattern(64 * grainBytes + 100 * sector, 6);
    writeAt(*create("p.vmdk", "streamOptimized", 64 * grainSectors + 100), 0, parentData);
    create("c.vmdk", "streamOptimized", 100 * grainSectors, "", "p.vmdk");
    const unsigned originalID = contentID(path("p.vmdk")), childID = contentID(path("c.vmdk"));

    // A parent smaller than the child: its data, then zeros; prepared grains
    // over its partial last grain and past its end carry the right data
    // (and, compressed, the right index).
    {
        zu::P<CVMDKDisk> child = open("c.vmdk", R);
        Bytes expected(parentData.end() - grainBytes - 100 * sector, parentData.end());
        expected.resize(3 * grainBytes, 0);
        EXPECT_TRUE(readAt(*child, 63 * grainBytes, 3 * grainBytes) == expected);
        zu::P<CVMDKDisk> copy = create("copy.vmdk", "streamOptimized", 100 * grainSectors);
        zu::TBuffer<unsigned char> prepared;
        for (long long g : {64LL, 70LL}) {
            child->seek(g * grainBytes), child->readPreparedGrainData(prepared);
            copy->seek(g * grainBytes), copy->writePreparedGrainData(prepared);
            EXPECT_TRUE(readAt(*copy, g * grainBytes, grainBytes) == readAt(*child, g * grainBytes, grainBytes)) << g;
        }
    }

    // A vanished parent is noticed on first use, and the next use tries
    // again; every check that can refuse a change runs before the child's
    // content ID is renewed.
    std::filesystem::rename(path("p.vmdk"), path("p.away"));
    const Bytes whole(grainBytes, 7);
    const zu::TBuffer<unsigned char> wholePrepared(whole.data(), grainBytes);
    for (const auto& change : std::vector<std::function<void(CVMDKDisk&)>>{
             [&](CVMDKDisk& d) { writeAt(d, 10, Bytes(5, 2)); }, [&](CVMDKDisk& d) { writeAt(d, grainBytes, whole); },
             [&](CVMDKDisk& d) { d.writePreparedGrainData(wholePrepared); }}) {
        EXPECT_THROW(change(*open("c.vmdk", RW)), zu::CFileSystemError);
        EXPECT_EQ(childID, contentID(path("c.vmdk")));
    }
    zu::P<CVMDKDisk> child = open("c.vmdk", R);
    EXPECT_THROW(readAt(*child, 0, 10), zu::CFileSystemError);
    std::filesystem::rename(path("p.away"), path("p.vmdk"));
    EXPECT_TRUE(readAt(*child, 0, 10) == Bytes(parentData.begin(), parentData.begin() + 10));
    child = nullptr;

    // A changed parent is refused naming both content IDs; once the child
    // is told of the change, it reads the parent again.
    writeAt(*open("p.vmdk", RW), grainBytes, Bytes(grainBytes, 0xAB));
    const unsigned newID = contentID(path("p.vmdk"));
    zu::CError e = expectThrows([&] { readAt(*open("c.vmdk", R), 0, 1); });
    EXPECT_EQ(newID, std::stoul(prop(e, "actualContentID"), nullptr, 16));
    EXPECT_EQ(originalID, std::stoul(prop(e, "expectedContentID"), nullptr, 16));
    editDescriptor(path("c.vmdk"), [&](kord::CVMDKDescriptor& d) { d.setParentContentID(newID); });
    EXPECT_TRUE(readAt(*open("c.vmdk", R), grainBytes, 1) == Bytes{0xAB});
}

// Delta disks made elsewhere may have extents that do not begin on a grain
// boundary: an unwritten grain reads the parent's sectors at its own place,
// and every grain gets its own number (and so its own IV).
TEST_F(DiskEdgeTest, deltaExtentsOffGrainBoundariesReadTheirOwnParentSectorsAndIVs)
{
    const long long sectors = 8 * grainSectors;
    Bytes parentData = kordtest::pattern(sectors * sector, 11);
    std::fill(parentData.begin() + 256 * sector, parentData.begin() + 384 * sector, 0);
    // The last grain of the second extent and the first of the third get
    // the same bytes (the rest of both comes from the parent's zeros):
    // stored alike only if they shared an IV.
    const Bytes same = kordtest::pattern(127 * sector, 12);
    const std::vector<std::pair<long long, Bytes>> writes = {
        {129 * sector, same}, {256 * sector, same}, {100 * sector, Bytes(10, 0xEE)}};
    Bytes expected = parentData;
    for (const auto& [at, bytes] : writes) std::copy(bytes.begin(), bytes.end(), expected.begin() + at);
    // Encrypted, so that equal grains stored alike would show a shared IV.
    writeAt(*create("p.vmdk", "monolithicSparse", sectors, password), 0, parentData);
    create("c.vmdk", "twoGbMaxExtentSparse", 0, password, "p.vmdk");
    // Three extents of 1, 255 and 768 sectors, each file a copy of the
    // child's empty extent (its capacity is the whole disk).
    const std::string emptyExtent = fileText(path("c-s001.vmdk"));
    putFile(path("c.vmdk"), replaced(fileText(path("c.vmdk")), "RW 1024 SPARSE \"c-s001.vmdk\"",
                                     "RW 1 SPARSE \"e1.vmdk\"\nRW 255 SPARSE \"e2.vmdk\"\nRW 768 SPARSE \"e3.vmdk\""));
    for (const char* name : {"e1.vmdk", "e2.vmdk", "e3.vmdk"}) putFile(path(name), emptyExtent);
    {
        zu::P<CVMDKDisk> child = open("c.vmdk", RW, password);
        EXPECT_EQ(3, child->getExtentStartGrainIndex(2)) << "grains numbered across the extents";
        for (const auto& [at, bytes] : writes) writeAt(*child, at, bytes);
    }
    EXPECT_TRUE(readAt(*open("c.vmdk", R, password), 0, sectors * sector) == expected);
    const std::string e2 = fileText(path("e2.vmdk")), e3 = fileText(path("e3.vmdk"));
    EXPECT_NE(e2.substr(e2.size() - grainBytes), e3.substr(e3.size() - grainBytes));
}

TEST_F(DiskEdgeTest, parentsThatLoopGoTooDeepOrHaveOtherGrainsAreRefused)
{
    auto pointAt = [&](const std::string& disk, const std::string& parent) {
        const unsigned id = contentID(path(parent));
        editDescriptor(path(disk), [&](kord::CVMDKDescriptor& d) { d.setParentContentID(id), d.setParentFileNameHint(zu::String(parent)); });
    };
    const std::string loops = "VMDK parent chain loops back to one of its own disks.";
    create("self.vmdk", "monolithicSparse", grainSectors);
    pointAt("self.vmdk", "./self.vmdk");
    expectError<zu::CIOError>([&] { readAt(*open("self.vmdk", R), 0, 1); }, loops, 5);
    create("a.vmdk", "monolithicSparse", grainSectors);
    create("b.vmdk", "monolithicSparse", 0, "", "a.vmdk");
    pointAt("a.vmdk", "b.vmdk");
    expectError<zu::CIOError>([&] { readAt(*open("b.vmdk", R), 0, 1); }, loops, 5);

    // 255 disks in a chain (the child included) are read; one more is refused.
    writeAt(*create("d0.vmdk", "monolithicSparse", grainSectors), 0, Bytes{42});
    for (int i = 1; i <= 255; ++i)
        create("d" + std::to_string(i) + ".vmdk", "monolithicSparse", 0, "", "d" + std::to_string(i - 1) + ".vmdk");
    EXPECT_EQ(Bytes{42}, readAt(*open("d254.vmdk", R), 0, 1));
    expectError<zu::CIOError>([&] { readAt(*open("d255.vmdk", R), 0, 1); }, "VMDK parent chain is too long.", 5);

    // Prepared grains move only between disks of one grain size: a parent
    // swapped for one of 64-sector grains with its content ID is refused.
    create("p.vmdk", "monolithicSparse", 8 * grainSectors);
    create("c.vmdk", "monolithicSparse", 0, "", "p.vmdk");
    const unsigned pID = contentID(path("p.vmdk"));
    std::filesystem::remove(path("p.vmdk"));
    CVMDKDisk::CCreateParams p64 = params("monolithicSparse", 8 * grainSectors);
    p64.grainSizeSectors = 64;
    CVMDKDisk::create(fs, uri("p.vmdk"), p64);
    editDescriptor(path("p.vmdk"), [&](kord::CVMDKDescriptor& d) { d.setContentID(pID); });
    zu::TBuffer<unsigned char> prepared;
    zu::CError e = expectError<CError>([&] { open("c.vmdk", R)->readPreparedGrainData(prepared); },
                               "Parent disk is incompatible with diff disk.", -1);
    EXPECT_EQ("32768", prop(e, "actualGrainSize"));
    EXPECT_EQ("65536", prop(e, "expectedGrainSize"));
}

TEST_F(DiskEdgeTest, onDemandExtentsAppearOnFirstWriteAtTheRightPlace)
{
    // Encrypted, so that a file made later must carry the disk's key hash.
    const long long extent2 = splitSectors * sector;
    CVMDKDisk::CCreateParams p = params("twoGbMaxExtentSparse", 2 * splitSectors + 1000, password);
    p.createExtentFilesOnDemand = true;
    CVMDKDisk::create(fs, uri("od.vmdk"), p);
    EXPECT_TRUE(std::filesystem::exists(path("od-s001.vmdk")));
    const auto before = snapshot(temp.path());
    // (Queries over extents not yet made, the tool's map of a wide disk.)
    EXPECT_TRUE(readAt(*open("od.vmdk", RW, password), extent2 - 10, 3 * grainBytes) == Bytes(3 * grainBytes, 0));
    EXPECT_TRUE(before == snapshot(temp.path())) << "reads created a file";

    // A write makes its own extent's file only (the short last one's making
    // is the fault sweep's).
    const Bytes data = kordtest::pattern(grainBytes, 7);
    const long long at = extent2 + 5 * grainBytes + 100;
    writeAt(*open("od.vmdk", RW, password), at, data);
    EXPECT_TRUE(std::filesystem::exists(path("od-s002.vmdk")) && !std::filesystem::exists(path("od-s003.vmdk")));

    // A child made on demand reads its parent, through extents made and not
    // yet made.
    p.parentURI = uri("od.vmdk"), p.capacitySectors = 0;
    CVMDKDisk::create(fs, uri("odc.vmdk"), p);
    EXPECT_TRUE(readAt(*open("odc.vmdk", R, password), at, data.size()) == data);
    EXPECT_FALSE(std::filesystem::exists(path("odc-s002.vmdk")));

    // The first extent tells the disk its geometry: without it, no open.
    std::filesystem::remove(path("od-s001.vmdk"));
    zu::CError e = expectThrows([&] { open("od.vmdk", R, password); });
    EXPECT_NE(std::string::npos, prop(e, "uri").find("od-s001.vmdk")) << e.what();
}

TEST_F(DiskEdgeTest, extentMapRefusesBadLinesAndMismatchedFiles)
{
    create("x.vmdk", "twoGbMaxExtentSparse", splitSectors + 256);
    create("so.vmdk", "streamOptimized", 256);
    writeAt(*open("x.vmdk", RW), splitSectors * sector - 10, kordtest::pattern(20, 8));
    const std::string text = fileText(path("x.vmdk"));
    const std::string line1 = "RW " + std::to_string(splitSectors) + " SPARSE \"x-s001.vmdk\"\n";
    const std::string line2 = "RW 256 SPARSE \"x-s002.vmdk\"";
    auto withLines = [&](const std::string& lines) {
        putFile(path("x.vmdk"), replaced(text, line1 + line2, line1 + lines));
    };

    // A line of size 0 maps no position.
    withLines("RW 0 SPARSE \"nothing.vmdk\"\n" + line2);
    EXPECT_TRUE(readAt(*open("x.vmdk", R), splitSectors * sector - 10, 20) == kordtest::pattern(20, 8));

    std::string many = line2;
    for (int i = 0; i < CVMDKDisk::maxExtentLines; ++i) many += "\nRW 1 SPARSE \"e" + std::to_string(i) + ".vmdk\"";
    // Bad lines are refused when the disk opens; files that do not fit
    // their line when first used, by name.
    const std::string s002 = fileText(path("x-s002.vmdk"));
    const std::vector<std::tuple<std::string, std::string, std::string>> refusals = {
        {"RW -1 SPARSE \"y.vmdk\"\n" + line2, s002, "VMDK disk has an extent of invalid size."},
        {"RW 9100000000000000 SPARSE \"y.vmdk\"\nRW 9100000000000000 SPARSE \"z.vmdk\"", s002,
         "VMDK disk has an extent of invalid size."},
        {many, s002, "VMDK disk has too many extents."},
        {line2, fileText(path("so.vmdk")), "VMDK extent file differs in compression from the disk's first extent."}};
    for (const auto& [lines, file, message] : refusals) {
        withLines(lines);
        putFile(path("x-s002.vmdk"), file);
        const bool atOpen = message.rfind("VMDK disk ", 0) == 0;
        zu::P<CVMDKDisk> disk = atOpen ? nullptr : open("x.vmdk", R);
        zu::CIOError e = expectError<zu::CIOError>(
            [&] { readAt(*(disk ? disk : open("x.vmdk", R)), splitSectors * sector, 1); }, message, 5);
        EXPECT_TRUE(atOpen || prop(e, "uri").find("x-s002.vmdk") != std::string::npos) << message;
    }

    putFile(path("x.vmdk"), "");
    expectError<zu::CIOError>([&] { open("x.vmdk", R); }, "No descriptor found in main VMDK file.", 5);
}

TEST_F(DiskEdgeTest, passwordsAndEncryptionBounds)
{
    const Bytes data = kordtest::pattern(3 * grainBytes, 9);
    writeAt(*create("e.vmdk", "monolithicSparse", 8 * grainSectors, password), 100, data);
    const std::string wrong = "Specified VMDK encryption password is not correct.";
    // Wrong passwords fail at the key hash or already at the unwrap's
    // padding: the same message either way.
    for (int i = 0; i < 12; ++i) {
        zu::CError e = expectError<CError>([&] { open("e.vmdk", R, "guess" + std::to_string(i)); }, wrong, -1);
        EXPECT_EQ(uri("e.vmdk").toNormalized().toString(true).toUTF8(), prop(e, "uri"));
    }
    expectError<CError>([&] { open("e.vmdk", R, ""); }, "VMDK is encrypted but no password provided", -1);

    // A new password wraps the same key under a new salt: no byte outside
    // the descriptor changes.
    auto saltAndRest = [&] {
        zu::P<kord::CVMDKDescriptorAccessor> a = descriptorAccessor(path("e.vmdk"));
        return std::make_pair(a->getDescriptor()->getZuEncryptionKeyDerivationSalt(),
                              fileText(path("e.vmdk")).erase(a->getDescriptorStart(), a->getDescriptorAreaSize()));
    };
    const auto before = saltAndRest();
    open("e.vmdk", RW, password)->changePassword("neu");
    EXPECT_FALSE(saltAndRest().first == before.first);
    EXPECT_TRUE(saltAndRest().second == before.second);

    // Values from the descriptor are bounded before they are used.
    // Derivations are checked in this order: the prefix, the salt, then the
    // iterations (a huge count would make the open run for hours).
    auto bytes = [](long long n) { return zu::TBuffer<unsigned char>(Bytes(static_cast<size_t>(n), 7).data(), n); };
    const std::string prefix = "pkcs5-pbkdf2-hmac-sha1:";
    // Damage in the descriptor, not a caller's bad argument: {IV bytes,
    // wrapped key bytes, derivation, salt bytes} (0 or "": as made).
    const std::vector<std::tuple<long long, long long, std::string, long long, std::string>> bounds = {
        {15, 0, "", 0, "VMDK encryption IV has an invalid size."},
        {0, 32, "", 0, "VMDK encrypted encryption key has an invalid size."},
        {0, 0, prefix + "10000001", 0, "Key derivation iterations are too large: 10000001."},
        {0, 0, prefix + "10000001", 7, "Key derivation salt is too small: 7 bytes."},
        {0, 0, prefix + "999", 0, "Key derivation iterations are too small: 999."},
        {0, 0, "pbkdf2-hmac-sha1:5000", 7, "Unknown encryption key derivation algorithm: pbkdf2-hmac-sha1:5000."}};
    const std::string pristine = fileText(path("e.vmdk"));
    for (const auto& [iv, wrapped, algorithm, salt, message] : bounds) {
        putFile(path("e.vmdk"), pristine);
        editDescriptor(path("e.vmdk"), [&](kord::CVMDKDescriptor& d) {
            if (iv) d.setZuEncryptionIV(bytes(iv));
            if (wrapped) d.setZuEncryptedEncryptionKey(bytes(wrapped));
            if (!algorithm.empty()) d.setZuEncryptionKeyDerivationAlgorithm(zu::String(algorithm));
            if (salt) d.setZuEncryptionKeyDerivationSalt(bytes(salt));
        });
        expectError<CError>([&] { open("e.vmdk", R, "neu"); }, message, 5);
    }
    // Called with such values, the derivation refuses its arguments.
    zu::TCryptBuffer<unsigned char> key;
    expectError<zu::CInvalidArgError>(
        [&] { CVMDKDisk::deriveEncryptKey(key, 32, "pw", zu::String(prefix + "999"), bytes(8)); },
        "Invalid argument passed to 'CVMDKDisk::deriveEncryptKey': Key derivation iterations are too small: 999.", -1);
    putFile(path("e.vmdk"), pristine);
    EXPECT_TRUE(readAt(*open("e.vmdk", R, "neu"), 100, data.size()) == data);
}

// Grains in stored form (encrypted beside the disk, as parallel conversions
// write them) flush changed tables once the cache is over its limit: one
// grain in each of four tables, a cache of one.
TEST_F(DiskEdgeTest, storedGrainWritesKeepTheTableCacheBounded)
{
    create("s.vmdk", "monolithicSparse", 4 * 512 * grainSectors, password);
    {
        zu::P<kord::CVMDKGrainTableCache> cache = zu::newObj<kord::CVMDKGrainTableCache>(1);
        zu::P<CVMDKDisk> disk = zu::newObj<CVMDKDisk>(fs, uri("s.vmdk"), RW, zuText(password), -1, cache, nullptr);
        zu::P<kord::CVMDKGrainCipher> cipher = disk->createGrainCipher();
        zu::TBuffer<unsigned char> stored;
        for (long long g : {5, 600, 1100, 1900}) {
            cipher->encrypt(kordtest::pattern(grainBytes, g).data(), grainBytes, g, stored);
            disk->seek(g * grainBytes);
            disk->writeStoredGrainData(stored);
            EXPECT_LE(cache->getCachedTableCount(), 2) << g;
        }
    }
    for (long long g : {5, 600, 1100, 1900})
        EXPECT_TRUE(readAt(*open("s.vmdk", R, password), g * grainBytes, grainBytes) == kordtest::pattern(grainBytes, g));
}

TEST_F(DiskEdgeTest, newDisksDescribeThemselvesAsOtherToolsDo)
{
    // (An IDE disk of more than 16383 cylinders keeps its true count.)
    for (const auto& [adapter, capacity, heads] : std::vector<std::tuple<std::string, long long, long long>>{
             {"lsilogic", 1000000, 255}, {"ide", 20000000, 16}}) {
        CVMDKDisk::CCreateParams p = params("monolithicSparse", capacity);
        p.adapterType = zu::String(adapter);
        zu::P<CVMDKDisk> disk = CVMDKDisk::create(fs, uri(adapter + std::to_string(capacity) + ".vmdk"), p);
        const kord::CVMDKDescriptor& d = *disk->getDescriptor();
        EXPECT_EQ(std::make_tuple(heads, 63LL, capacity / (heads * 63)),
                  std::make_tuple(d.getGeometryHeads(), d.getGeometrySectors(), d.getGeometryCylinders()));
    }

    // The header holds exactly the disk's sectors, the last grain partly
    // used; older disks of ours, rounded up to a whole grain in the header
    // and footer, keep opening.
    writeAt(*create("odd.vmdk", "streamOptimized", 1000), 1000 * sector - 3, Bytes{7, 8, 9});
    const long long footer = static_cast<long long>(fileText(path("odd.vmdk")).size()) - 1024;
    for (long long at : {0LL, footer}) {
        EXPECT_EQ(1000u, zu::loadLE64(kordtest::readAll(fs, uri("odd.vmdk")).data() + at + 12)) << at;
        kordtest::patchFile(fs, uri("odd.vmdk"), at + 12, kordtest::le64(1024));
    }
    zu::P<CVMDKDisk> odd = open("odd.vmdk", RW);
    EXPECT_EQ(1000 * sector, odd->getDiskSizeBytes());
    EXPECT_EQ(Bytes({7, 8, 9}), readAt(*odd, 1000 * sector - 3, 3));
    odd = nullptr;

    // A delta names its parent relative to its own folder (spaces and
    // non-ASCII letters kept) and takes its size; a split child's text file
    // has room for a parent path 1 KiB longer, stored in place.
    const std::string parent = "base dir/pä rent.vmdk";
    for (const char* dir : {"base dir", "deltas"}) std::filesystem::create_directories(path(dir));
    writeAt(*create(parent, "monolithicSparse", 10 * grainSectors + 3), 0, Bytes{1, 2, 3});
    zu::P<CVMDKDisk> child = create("deltas/c.vmdk", "twoGbMaxExtentSparse", 0, "", parent);
    EXPECT_EQ("../" + parent, child->getDescriptor()->getParentFileNameHint().toUTF8());
    EXPECT_EQ((10 * grainSectors + 3) * sector, child->getDiskSizeBytes());
    child = nullptr;
    std::string deep = "moved";
    for (int i = 0; i < 5; ++i) deep += "/" + std::string(200, static_cast<char>('a' + i));
    std::filesystem::create_directories(path(deep));
    std::filesystem::rename(path(parent), path(deep + "/pä rent.vmdk"));
    const size_t before = fileText(path("deltas/c.vmdk")).size();
    open("deltas/c.vmdk", RW)->changeParentRelPath(zuText("../" + deep + "/pä rent.vmdk"));
    EXPECT_EQ(before, fileText(path("deltas/c.vmdk")).size());
    EXPECT_EQ(Bytes({1, 2, 3}), readAt(*open("deltas/c.vmdk", R), 0, 3));
}

TEST_F(DiskEdgeTest, creationRefusesAndCleansUp)
{
    create("taken.vmdk", "monolithicSparse", grainSectors);
    create("compressed.vmdk", "streamOptimized", grainSectors);
    create("locked.vmdk", "monolithicSparse", grainSectors, password);
    putFile(path("stale-s002.vmdk"), "stale");
    const auto before = snapshot(temp.path());

    // A split disk's extent file left behind counts as the disk (a main file
    // that exists, the tool and Python tests).
    zu::CFileSystemError e = expectError<zu::CFileSystemError>(
        [&] { create("stale.vmdk", "twoGbMaxExtentSparse", splitSectors + 1); }, "VMDK disk file already exists.", 2);
    EXPECT_NE(std::string::npos, prop(e, "uri").find("stale-s002.vmdk"));
    const std::vector<std::function<void(CVMDKDisk::CCreateParams&)>> refusals = {
        [](auto& p) { p.createType = "monolithicFlat"; }, [](auto& p) { p.adapterType = "scsi"; },
        [](auto& p) { p.createExtentFilesOnDemand = true; }, [](auto& p) { p.compressionLevel = 13; },
        [](auto& p) { p.grainSizeSectors = 0; }, [](auto& p) { p.capacitySectors = 0; },
        [&](auto& p) { p.parentURI = uri("compressed.vmdk"); },
        [&](auto& p) { p.createType = "streamOptimized", p.parentURI = uri("taken.vmdk"); }};
    for (const auto& refusal : refusals) {
        CVMDKDisk::CCreateParams p = params("monolithicSparse", grainSectors);
        refusal(p);
        EXPECT_THROW(CVMDKDisk::create(fs, uri("new.vmdk"), p), zu::CInvalidArgError);
    }
    // The parent's password is checked (the messages are pinned where disks open).
    for (const char* pass : {"", "not it"}) EXPECT_THROW(create("new.vmdk", "monolithicSparse", 0, pass, "locked.vmdk"), CError);

    // A failure at any call of the making deletes what was made.
    for (const std::string type : {"twoGbMaxExtentSparse", "streamOptimized"}) {
        zu::P<CFaultFileSystem> counting = zu::newObj<CFaultFileSystem>();
        CVMDKDisk::create(counting, uri("half.vmdk"), params(type, 2 * splitSectors + 1));
        const std::vector<std::string> kinds = counting->getCallKinds();
        for (long long call = 1; call <= static_cast<long long>(kinds.size()); ++call) {
            zu::P<CFaultFileSystem> faulty = zu::newObj<CFaultFileSystem>();
            faulty->arm(call, CFaultFileSystem::Fault::noSpace);
            EXPECT_THROW(CVMDKDisk::create(faulty, uri("half.vmdk"), params(type, 2 * splitSectors + 1)), CError);
            EXPECT_TRUE(faulty->getFiles().empty()) << type << " call " << call << " (" << kinds[call - 1] << ")";
        }
    }
    EXPECT_TRUE(before == snapshot(temp.path()));
}

} // namespace
