// The disk's edges: extent boundaries and the disk's end, access checks in
// their order, parents that changed, shrank, vanished or loop, extents made
// on demand, passwords and the bounds on what a descriptor may ask for,
// prepared-grain copies, the stream adapter, the lock file, and the making
// of new disks (refusals and clean-up included).
#include "DiskTestUtil.h"

#include "base/CIOError.h"
#include "disk/CVMDKDiskIOStream.h"

#include <cstdio>

using namespace disktest;
using kordtest::expectThrows;
using kordtest::msg;

namespace {

constexpr int R = zu::IIOStream::accessRead;
constexpr int RW = zu::IIOStream::accessReadWrite;

template <class E>
E expectError(const std::function<void()>& f, const std::string& message, long long code)
{
    E e = expectThrows<E>(f);
    EXPECT_EQ(message, msg(e));
    EXPECT_EQ(code, e.getCode()) << message;
    return e;
}

std::string prop(const zu::CError& e, const char* name) { return e.getProp(name).toUTF8(); }

std::string hex(unsigned value)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%x", value);
    return buf;
}

unsigned contentID(const std::string& file)
{
    std::string text = descriptorText(file);
    zu::TBuffer<unsigned char> bytes(reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<long long>(text.size()));
    return kord::CVMDKDescriptor(bytes).getContentID();
}

// A file system that fails where a test says: creating one named file, or
// taking any lock.
class FaultyFileSystem : public zu::CBase, public zu::IFileSystem {
public:
    FaultyFileSystem(zu::IFileSystem* inner, const std::string& failCreating, bool failLocks)
        : inner(inner), failCreating(failCreating), failLocks(failLocks)
    {
    }
    zu::P<zu::IIOStream> openStream(const zu::CURI& uri, int access, const zu::CProps& options) override
    {
        if ((access & zu::IIOStream::accessBitCreate) && uri.getName().toUTF8() == failCreating)
            throw zu::CFileSystemError(zu::CFileSystemError::problemNoSpace, "No space left on the test medium.");
        return inner->openStream(uri, access, options);
    }
    bool exists(const zu::CURI& uri) override { return inner->exists(uri); }
    long long getFileSize(const zu::CURI& uri) override { return inner->getFileSize(uri); }
    void deleteFile(const zu::CURI& uri, bool ignoreMissing) override { inner->deleteFile(uri, ignoreMissing); }
    zu::P<zu::IBase> lockFile(const zu::CURI& uri, zu::IStreamBase::LockType type, bool wait, bool remove) override
    {
        if (failLocks) throw zu::CFileSystemError(zu::CFileSystemError::problemAccessDenied, "Locks refused.");
        return inner->lockFile(uri, type, wait, remove);
    }

private:
    zu::P<zu::IFileSystem> inner;
    std::string failCreating;
    bool failLocks;
};

class DiskEdgeTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return temp.file(name); }
    zu::CURI uri(const std::string& name) const { return fileURI(temp.file(name)); }
    zu::P<CVMDKDisk> create(const std::string& name, const std::string& type, long long sectors,
                            const std::string& pass = "", const std::string& parent = "")
    {
        return CVMDKDisk::create(fs, uri(name), params(type, sectors, pass, parent.empty() ? zu::CURI() : uri(parent)));
    }
    zu::P<CVMDKDisk> open(const std::string& name, int access, const std::string& pass = "")
    {
        return openDisk(fs, uri(name), access, pass);
    }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

TEST_F(DiskEdgeTest, transfersAcrossExtentsAndAtTheEnd)
{
    const long long size = (2 * splitSectors + 256) * sector;
    const long long boundary1 = splitSectors * sector;
    const long long boundary2 = 2 * boundary1;
    const Bytes a = kordtest::pattern(3 * grainBytes, 1);
    const Bytes b = kordtest::pattern(grainBytes + 999, 2);
    {
        zu::P<CVMDKDisk> disk = create("split.vmdk", "twoGbMaxExtentSparse", size / sector);
        ASSERT_EQ(3u, disk->getExtentInfos().size());
        EXPECT_EQ(splitSectors / grainSectors, disk->getExtentStartGrainIndex(1));
        writeAt(*disk, boundary1 - grainBytes - 5, a);
        writeAt(*disk, boundary2 - 1000, b);
    }

    zu::P<CVMDKDisk> disk = open("split.vmdk", RW);
    EXPECT_TRUE(readAt(*disk, boundary1 - grainBytes - 5, a.size()) == a);
    EXPECT_TRUE(readAt(*disk, boundary2 - 1000, b.size()) == b);

    // Seeking to the end is allowed; no byte can be moved there.
    disk->seek(size);
    disk->read(nullptr, 0);
    unsigned char byte = 0;
    zu::CIOError e = expectError<zu::CIOError>([&] { disk->read(&byte, 1); }, "Read exceeds VMDK disk size.", 4);
    EXPECT_EQ(std::to_string(size), prop(e, "position"));
    expectError<zu::CIOError>([&] { disk->write(&byte, 1); }, "Write exceeds VMDK disk size.", 3);
    expectError<zu::CIOError>([&] { disk->seek(-1); }, "Bad seek position in VMDK disk: -1", 7);
    expectError<zu::CIOError>([&] { disk->seek(size + 1); },
                              "Bad seek position in VMDK disk: " + std::to_string(size + 1), 7);
    EXPECT_EQ(size, disk->getPosition());

    // Prepared grains: only whole grains at grain boundaries inside the disk.
    zu::TBuffer<unsigned char> prepared;
    disk->seek(grainBytes / 2);
    expectError<zu::CIOError>([&] { disk->readPreparedGrainData(prepared); },
                              "Prepared grain read in VMDK disk can only be done on a grain boundary.", 11);
    disk->seek(size);
    expectError<zu::CIOError>([&] { disk->readPreparedGrainData(prepared); },
                              "Prepared grain read exceeds VMDK disk size.", 3);
    disk->seek(boundary1);
    disk->readPreparedGrainData(prepared);
    disk->seek(size - grainBytes);
    disk->writePreparedGrainData(prepared);
    EXPECT_EQ(size, disk->getPosition());
    const Bytes copied(a.begin() + grainBytes + 5, a.begin() + 2 * grainBytes + 5);
    EXPECT_TRUE(readAt(*disk, size - grainBytes, grainBytes) == copied);

    // Queries and space accounting leave the position where it was.
    disk->seek(boundary2 + 10);
    EXPECT_TRUE(disk->isGrainWritten());
    EXPECT_EQ(boundary2 + 10, disk->getPosition());
    zu::P<kord::CVMDKSpaceInfo> info = disk->gatherSpaceInfo();
    EXPECT_EQ(boundary2 + 10, disk->getPosition());
    EXPECT_EQ(7 * grainBytes, info->payloadSize); // a: 4 grains, b: 2, the prepared copy: 1
    EXPECT_GT(info->headerSize, 2 * 64 * 2048);   // the two big extents' grain tables
}

TEST_F(DiskEdgeTest, readOnlyOpenChecksSizeFirstAndChangesNoByte)
{
    {
        zu::P<CVMDKDisk> parent = create("parent.vmdk", "monolithicSparse", 64 * grainSectors);
        writeAt(*parent, 3 * grainBytes, kordtest::pattern(2 * grainBytes, 3));
    }
    {
        zu::P<CVMDKDisk> child = create("child.vmdk", "monolithicSparse", 0, "", "parent.vmdk");
        writeAt(*child, 3 * grainBytes - 7, kordtest::pattern(100, 4));
    }
    writeAt(*create("so.vmdk", "streamOptimized", 64 * grainSectors, password), grainBytes - 3, Bytes(9, 1));
    const auto before = snapshot(temp.path());
    EXPECT_TRUE(readAt(*open("so.vmdk", R, password), grainBytes - 4, 11) == Bytes({0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0}));
    {
        zu::P<CVMDKDisk> disk = open("child.vmdk", R);
        Bytes all = readAt(*disk, 0, disk->getDiskSizeBytes());
        disk->seek(4 * grainBytes);
        EXPECT_TRUE(disk->isGrainWritten());
        EXPECT_FALSE(disk->isGrainWrittenAndIndependentOfParent());
        zu::TBuffer<unsigned char> prepared;
        disk->readPreparedGrainData(prepared);
        disk->gatherSpaceInfo();
        disk->flushChanges();

        // The size test comes before the access test.
        disk->seek(disk->getDiskSizeBytes() - 1);
        expectError<zu::CIOError>([&] { disk->write(all.data(), 2); }, "Write exceeds VMDK disk size.", 3);
        expectError<zu::CIOError>([&] { disk->writePreparedGrainData(prepared); },
                                  "Prepared grain write exceeds VMDK disk size.", 3);
        disk->seek(100);
        expectError<zu::CIOError>([&] { disk->writePreparedGrainData(prepared); },
                                  "Prepared grain write in VMDK disk can only be done on a grain boundary.", 11);
        disk->seek(0);
        const std::vector<std::function<void()>> changes = {
            [&] { disk->write(all.data(), 1); }, [&] { disk->writePreparedGrainData(prepared); },
            [&] { disk->makeGrainIndependentOfParent(3); }, [&] { disk->storeDescriptor(); },
            [&] { disk->changeParentRelPath("x.vmdk"); }};
        for (const auto& change : changes) {
            zu::CError e = expectThrows<zu::CError>(change);
            EXPECT_EQ(0u, msg(e).find("Internal error: CVMDKDisk::")) << msg(e);
            EXPECT_NE(std::string::npos, msg(e).find(" was called, but the disk was not opened for writing."));
        }
    }
    EXPECT_TRUE(before == snapshot(temp.path()));
}

TEST_F(DiskEdgeTest, destructorsStoreUnflushedWrites)
{
    const Bytes data = kordtest::pattern(grainBytes + 300, 5);
    for (const char* type : {"monolithicSparse", "streamOptimized", "twoGbMaxExtentSparse"}) {
        const std::string name = std::string(type) + ".vmdk";
        const std::string viaStream = std::string(type) + "-stream.vmdk";
        writeAt(*create(name, type, 16 * grainSectors), 5 * grainBytes + 1, data);
        create(viaStream, type, 16 * grainSectors);
        {
            zu::P<kord::CVMDKDiskIOStream> stream = zu::newObj<kord::CVMDKDiskIOStream>(fs, uri(viaStream), RW, "");
            stream->seek(7);
            stream->write(data.data(), static_cast<int>(data.size()));
        }
        EXPECT_TRUE(readAt(*open(name, R), 5 * grainBytes + 1, data.size()) == data) << type;
        EXPECT_TRUE(readAt(*open(viaStream, R), 7, data.size()) == data) << type;
    }
}

TEST_F(DiskEdgeTest, streamAdapterRefusesWhatADiskCannotDo)
{
    create("s.vmdk", "monolithicSparse", 4 * grainSectors);
    zu::P<kord::CVMDKDiskIOStream> stream = zu::newObj<kord::CVMDKDiskIOStream>(fs, uri("s.vmdk"), RW, "");
    const long long length = stream->getLength();
    EXPECT_EQ(4 * grainBytes, length);
    Bytes buf(100, 0);
    stream->seek(length - 40);
    EXPECT_EQ(40, stream->readLax(buf.data(), 100));
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(0, stream->readLax(buf.data(), 100));
    expectError<zu::CIOError>([&] { stream->read(buf.data(), 1); }, "Read exceeds VMDK disk size.", 4);
    expectError<zu::CIOError>([&] { stream->setLength(length); }, "Error changing the size of a file.", 13);
    zu::CFileSystemError e =
        expectError<zu::CFileSystemError>([&] { stream->lockRange(0, 1, zu::IStreamBase::lockShared); },
                                          "VMDK Disk I/O stream does not support lockRange.", 6);
    EXPECT_EQ("6", prop(e, "fileSysProblem"));

    stream->close();
    stream->close();
    EXPECT_TRUE(uri("s.vmdk").toNormalized() == stream->getURI());
    const std::string closed = "Error: stream has been closed.";
    expectError<zu::CIOError>([&] { stream->getLength(); }, closed, 10);
    expectError<zu::CIOError>([&] { stream->write(buf.data(), 1); }, closed, 10);
    // Closing released the disk and its lock.
    EXPECT_FALSE(std::filesystem::exists(path("s.vmdk.lock")));
}

TEST_F(DiskEdgeTest, lockFileKeepsOutASecondWriterOnly)
{
    create("d.vmdk", "monolithicSparse", 4 * grainSectors);
    {
        zu::P<CVMDKDisk> writer = open("d.vmdk", RW);
        EXPECT_TRUE(std::filesystem::exists(path("d.vmdk.lock")));
        expectThrows<zu::CLockFileError>([&] { open("d.vmdk", RW); });
        expectThrows<zu::CLockFileError>([&] { open("d.vmdk", R); });
    }
    EXPECT_FALSE(std::filesystem::exists(path("d.vmdk.lock")));
    {
        zu::P<CVMDKDisk> reader1 = open("d.vmdk", R);
        zu::P<CVMDKDisk> reader2 = open("d.vmdk", R);
        expectThrows<zu::CLockFileError>([&] { open("d.vmdk", RW); });
    }
    EXPECT_FALSE(std::filesystem::exists(path("d.vmdk.lock")));

    // Where no lock file can be made, a reader goes on without one; a writer never.
    zu::P<zu::CMemoryFileSystem> memory = zu::newObj<zu::CMemoryFileSystem>();
    CVMDKDisk::create(memory, uri("m.vmdk"), params("monolithicSparse", 4 * grainSectors));
    memory->setReadOnly(true);
    EXPECT_EQ(4 * grainBytes, openDisk(memory, uri("m.vmdk"), R)->getDiskSizeBytes());
    EXPECT_FALSE(memory->exists(uri("m.vmdk.lock")));
    expectThrows<zu::CError>([&] { openDisk(memory, uri("m.vmdk"), RW); });
}

TEST_F(DiskEdgeTest, parentThatChangedShrankOrVanishedIsHandledOnFirstUse)
{
    const Bytes parentData = kordtest::pattern(64 * grainBytes + 100 * sector, 6);
    {
        zu::P<CVMDKDisk> parent = create("p.vmdk", "streamOptimized", 64 * grainSectors + 100);
        writeAt(*parent, 0, parentData);
    }
    create("c.vmdk", "streamOptimized", 100 * grainSectors, "", "p.vmdk");
    const unsigned originalID = contentID(path("p.vmdk"));

    // A parent smaller than the child: its data, then zeros.
    {
        zu::P<CVMDKDisk> child = open("c.vmdk", RW);
        Bytes across = readAt(*child, 63 * grainBytes, 3 * grainBytes);
        Bytes expected(parentData.end() - grainBytes - 100 * sector, parentData.end());
        expected.resize(across.size(), 0);
        EXPECT_TRUE(across == expected);
        child->seek(64 * grainBytes);
        EXPECT_TRUE(child->isGrainWritten());
        child->seek(66 * grainBytes);
        EXPECT_FALSE(child->isGrainWritten());

        // Prepared grains past the parent's end and over its partial last
        // grain carry the right data (and, compressed, the right index).
        zu::P<CVMDKDisk> copy = create("copy.vmdk", "streamOptimized", 100 * grainSectors);
        zu::TBuffer<unsigned char> prepared;
        for (long long g : {64LL, 70LL, 71LL}) {
            child->seek(g * grainBytes);
            child->readPreparedGrainData(prepared);
            copy->seek(g * grainBytes);
            copy->writePreparedGrainData(prepared);
        }
        EXPECT_TRUE(readAt(*copy, 64 * grainBytes, grainBytes) == readAt(*child, 64 * grainBytes, grainBytes));
        EXPECT_TRUE(readAt(*copy, 70 * grainBytes, 2 * grainBytes) == Bytes(2 * grainBytes, 0));
    }

    // A vanished parent is noticed on first use, and the next use tries again.
    std::filesystem::rename(path("p.vmdk"), path("p.away"));
    {
        zu::P<CVMDKDisk> child = open("c.vmdk", R);
        Bytes buf(10);
        EXPECT_THROW(child->read(buf.data(), 10), zu::CFileSystemError);
        std::filesystem::rename(path("p.away"), path("p.vmdk"));
        child->seek(0);
        child->read(buf.data(), 10);
        EXPECT_TRUE(Bytes(parentData.begin(), parentData.begin() + 10) == buf);
    }

    // A parent changed after the child was made is refused on first read.
    writeAt(*open("p.vmdk", RW), 0, Bytes(1, 0xAB));
    const unsigned newID = contentID(path("p.vmdk"));
    ASSERT_NE(originalID, newID);
    zu::P<CVMDKDisk> child = open("c.vmdk", R);
    zu::CError e = expectError<zu::CError>([&] { readAt(*child, 0, 1); },
                                           "VMDK parent disk has changed, but a child disk depended on it.", -1);
    EXPECT_EQ(hex(newID), prop(e, "actualContentID"));
    EXPECT_EQ(hex(originalID), prop(e, "expectedContentID"));
}

TEST_F(DiskEdgeTest, parentChainLoopsAndExcessiveDepthAreRefused)
{
    const std::string loops = "VMDK parent chain loops back to one of its own disks.";
    create("self.vmdk", "monolithicSparse", grainSectors);
    const unsigned selfID = contentID(path("self.vmdk"));
    editDescriptor(path("self.vmdk"), [&](kord::CVMDKDescriptor& d) {
        d.setParentContentID(selfID);
        d.setParentFileNameHint("./self.vmdk");
    });
    expectError<zu::CIOError>([&] { readAt(*open("self.vmdk", R), 0, 1); }, loops, 5);

    create("a.vmdk", "monolithicSparse", grainSectors);
    create("b.vmdk", "monolithicSparse", 0, "", "a.vmdk");
    const unsigned bID = contentID(path("b.vmdk"));
    editDescriptor(path("a.vmdk"), [&](kord::CVMDKDescriptor& d) {
        d.setParentContentID(bID);
        d.setParentFileNameHint("b.vmdk");
    });
    expectError<zu::CIOError>([&] { readAt(*open("b.vmdk", R), 0, 1); }, loops, 5);

    // 255 disks in a chain (the child included) are read; one more is refused.
    writeAt(*create("d0.vmdk", "monolithicSparse", grainSectors), 0, Bytes{42});
    for (int i = 1; i <= 255; ++i)
        create("d" + std::to_string(i) + ".vmdk", "monolithicSparse", 0, "", "d" + std::to_string(i - 1) + ".vmdk");
    EXPECT_EQ(Bytes{42}, readAt(*open("d254.vmdk", R), 0, 1));
    expectError<zu::CIOError>([&] { readAt(*open("d255.vmdk", R), 0, 1); }, "VMDK parent chain is too long.", 5);
}

TEST_F(DiskEdgeTest, onDemandExtentsAppearOnFirstWriteAtTheRightPlace)
{
    // Encrypted, so that a file made later must carry the disk's key hash.
    const long long extent2 = splitSectors * sector;
    CVMDKDisk::CCreateParams p = params("twoGbMaxExtentSparse", 2 * splitSectors + 1000, password);
    p.createExtentFilesOnDemand = true;
    CVMDKDisk::create(fs, uri("od.vmdk"), p);
    EXPECT_TRUE(std::filesystem::exists(path("od-s001.vmdk")));
    EXPECT_FALSE(std::filesystem::exists(path("od-s002.vmdk")));
    const auto before = snapshot(temp.path());
    {
        zu::P<CVMDKDisk> disk = open("od.vmdk", RW, password);
        EXPECT_TRUE(readAt(*disk, extent2 - 10, 3 * grainBytes) == Bytes(3 * grainBytes, 0));
        EXPECT_TRUE(readAt(*disk, disk->getDiskSizeBytes() - 100, 100) == Bytes(100, 0));
        disk->seek(extent2 + grainBytes);
        EXPECT_FALSE(disk->isGrainWritten());
        EXPECT_EQ(0, disk->gatherSpaceInfo()->payloadSize);
    }
    EXPECT_TRUE(before == snapshot(temp.path())) << "reads created a file";

    const Bytes data = kordtest::pattern(grainBytes, 7);
    const long long at = extent2 + 5 * grainBytes + 100;
    const long long end = (2 * splitSectors + 1000) * sector;
    expectThrows<zu::CError>([&] { writeAt(*open("od.vmdk", R, password), at, data); });
    writeAt(*open("od.vmdk", RW, password), at, data);
    EXPECT_TRUE(std::filesystem::exists(path("od-s002.vmdk")));
    EXPECT_FALSE(std::filesystem::exists(path("od-s003.vmdk")));
    writeAt(*open("od.vmdk", RW, password), end - 10, Bytes(10, 0x5A)); // the short last extent
    {
        zu::P<CVMDKDisk> disk = open("od.vmdk", R, password);
        EXPECT_TRUE(readAt(*disk, at, data.size()) == data);
        EXPECT_TRUE(readAt(*disk, extent2, 5 * grainBytes + 100) == Bytes(5 * grainBytes + 100, 0));
        const Bytes tail = readAt(*disk, end - 20, 20);
        EXPECT_TRUE(Bytes(tail.begin(), tail.begin() + 10) == Bytes(10, 0));
        EXPECT_TRUE(Bytes(tail.begin() + 10, tail.end()) == Bytes(10, 0x5A));
    }

    // A child made on demand reads its parent through extents not yet made.
    p.parentURI = uri("od.vmdk");
    p.capacitySectors = 0;
    CVMDKDisk::create(fs, uri("odc.vmdk"), p);
    EXPECT_TRUE(readAt(*open("odc.vmdk", R, password), at, data.size()) == data);
    EXPECT_FALSE(std::filesystem::exists(path("odc-s002.vmdk")));

    // Never outside the disk's folder.
    setDescriptorText(path("od.vmdk"), replaced(descriptorText(path("od.vmdk")), "\"od-s003.vmdk\"",
                                                "\"../elsewhere/od-s003.vmdk\""));
    expectError<zu::CIOError>([&] { writeAt(*open("od.vmdk", RW, password), 2 * extent2, data); },
                              "VMDK extent file to be created on demand lies outside the disk's folder.", 5);
    EXPECT_FALSE(std::filesystem::exists(temp.path() + "/../elsewhere"));

    // The first extent tells the disk its geometry: without it, no open.
    std::filesystem::remove(path("od-s001.vmdk"));
    zu::CError e = expectThrows<zu::CError>([&] { open("od.vmdk", R, password); });
    EXPECT_NE(std::string::npos, prop(e, "uri").find("od-s001.vmdk")) << e.what();
}

TEST_F(DiskEdgeTest, extentMapRefusesBadLinesAndMismatchedFiles)
{
    create("x.vmdk", "twoGbMaxExtentSparse", splitSectors + 256);
    CVMDKDisk::CCreateParams p64 = params("twoGbMaxExtentSparse", 256);
    p64.grainSizeSectors = 64;
    CVMDKDisk::create(fs, uri("small.vmdk"), p64);
    create("so.vmdk", "streamOptimized", 256);
    writeAt(*open("x.vmdk", RW), splitSectors * sector - 10, kordtest::pattern(20, 8));
    const std::string text = descriptorText(path("x.vmdk"));
    const std::string line1 = "RW " + std::to_string(splitSectors) + " SPARSE \"x-s001.vmdk\"";
    const std::string line2 = "RW 256 SPARSE \"x-s002.vmdk\"";
    ASSERT_NE(std::string::npos, text.find(line1)) << text;
    auto withLines = [&](const std::string& lines) {
        putFile(path("x.vmdk"), replaced(replaced(text, line2 + "\n", ""), line1, lines));
    };
    auto failsOpening = [&](const std::string& message) {
        SCOPED_TRACE(message);
        return expectError<zu::CIOError>([&] { open("x.vmdk", R); }, message, 5);
    };

    // A line of size 0 maps no position.
    withLines(line1 + "\nRW 0 SPARSE \"nothing.vmdk\"\n" + line2);
    EXPECT_TRUE(readAt(*open("x.vmdk", R), splitSectors * sector - 10, 20) == kordtest::pattern(20, 8));

    withLines(line1 + "\nRW -1 SPARSE \"y.vmdk\"\n" + line2);
    failsOpening("VMDK disk has an extent of invalid size.");
    withLines(line1 + "\nRW 9100000000000000 SPARSE \"y.vmdk\"\nRW 9100000000000000 SPARSE \"z.vmdk\"");
    failsOpening("VMDK disk has an extent of invalid size.");
    withLines(line1 + "\n" + replaced(line2, "x-s002", "x-s001"));
    failsOpening("VMDK disk names the same extent file twice.");
    withLines(line1 + "\nRW 256 ZERO \"zero.vmdk\"");
    failsOpening("VMDK disk has an unsupported extent type: 'ZERO'.");
    std::string many = line1;
    for (int i = 0; i < 65536; ++i) many += "\nRW 1 SPARSE \"e" + std::to_string(i) + ".vmdk\"";
    withLines(many);
    failsOpening("VMDK disk has too many extents.");

    // Files that do not fit their line are refused when first used, by name.
    auto failsReadingExtent2 = [&](const std::string& message) {
        SCOPED_TRACE(message);
        zu::P<CVMDKDisk> disk = open("x.vmdk", R);
        zu::CIOError e = expectError<zu::CIOError>([&] { readAt(*disk, splitSectors * sector, 1); }, message, 5);
        EXPECT_NE(std::string::npos, prop(e, "uri").find("x-s002.vmdk")) << e.what();
    };
    withLines(line1 + "\n" + replaced(line2, "256", "100000"));
    failsReadingExtent2("VMDK extent file is smaller than its extent line.");
    withLines(line1 + "\n" + line2);
    const std::string s002 = fileText(path("x-s002.vmdk"));
    putFile(path("x-s002.vmdk"), fileText(path("small-s001.vmdk")));
    failsReadingExtent2("VMDK extent file has another grain size than the disk's first extent.");
    putFile(path("x-s002.vmdk"), fileText(path("so.vmdk")));
    failsReadingExtent2("VMDK extent file differs in compression from the disk's first extent.");
    // A truncated or missing extent file is named in the error.
    putFile(path("x-s002.vmdk"), s002.substr(0, 1000));
    zu::CIOError truncated = expectThrows<zu::CIOError>([&] { readAt(*open("x.vmdk", R), splitSectors * sector, 1); });
    EXPECT_NE(std::string::npos, prop(truncated, "uri").find("x-s002.vmdk")) << truncated.what();
    std::filesystem::remove(path("x-s002.vmdk"));
    zu::CFileSystemError missing =
        expectThrows<zu::CFileSystemError>([&] { readAt(*open("x.vmdk", R), splitSectors * sector, 1); });
    EXPECT_NE(std::string::npos, prop(missing, "uri").find("x-s002.vmdk")) << missing.what();

    putFile(path("x.vmdk"), "");
    failsOpening("No descriptor found in main VMDK file.");
}

TEST_F(DiskEdgeTest, passwordsAndEncryptionBounds)
{
    const Bytes data = kordtest::pattern(3 * grainBytes, 9);
    writeAt(*create("e.vmdk", "monolithicSparse", 8 * grainSectors, password), 100, data);
    const std::string wrong = "Specified VMDK encryption password is not correct.";
    // Wrong passwords fail at the key hash or already at the unwrap's
    // padding: the same message either way.
    for (int i = 0; i < 12; ++i) {
        zu::CError e = expectError<zu::CError>([&] { open("e.vmdk", R, "guess" + std::to_string(i)); }, wrong, -1);
        EXPECT_EQ(uri("e.vmdk").toNormalized().toString(true).toUTF8(), prop(e, "uri"));
    }
    expectError<zu::CError>([&] { open("e.vmdk", R); }, "VMDK is encrypted but no password provided", -1);

    // A new password wraps the same key: no grain is touched.
    const std::string beforeFile = fileText(path("e.vmdk"));
    zu::TBuffer<unsigned char> iv;
    zu::TBuffer<unsigned char> salt;
    {
        zu::P<CVMDKDisk> disk = open("e.vmdk", RW, password);
        iv = disk->getDescriptor()->getZuEncryptionIV();
        salt = disk->getDescriptor()->getZuEncryptionKeyDerivationSalt();
        disk->changePassword("neu");
    }
    expectError<zu::CError>([&] { open("e.vmdk", R, password); }, wrong, -1);
    {
        zu::P<CVMDKDisk> disk = open("e.vmdk", R, "neu");
        EXPECT_TRUE(readAt(*disk, 100, data.size()) == data);
        EXPECT_TRUE(disk->getDescriptor()->getZuEncryptionIV() == iv);
        EXPECT_FALSE(disk->getDescriptor()->getZuEncryptionKeyDerivationSalt() == salt);
    }
    long long start = 0;
    long long size = 0;
    descriptorArea(path("e.vmdk"), start, size);
    std::string afterFile = fileText(path("e.vmdk"));
    EXPECT_EQ(beforeFile.substr(0, start), afterFile.substr(0, start));
    EXPECT_EQ(beforeFile.substr(start + size), afterFile.substr(start + size));

    // Values from the descriptor are bounded before they are used.
    const std::string pristine = descriptorText(path("e.vmdk"));
    auto withValues = [&](const std::function<void(kord::CVMDKDescriptor&)>& edit) {
        setDescriptorText(path("e.vmdk"), pristine);
        editDescriptor(path("e.vmdk"), edit);
    };
    auto bytes = [](long long n) { return zu::TBuffer<unsigned char>(Bytes(static_cast<size_t>(n), 7).data(), n); };
    withValues([&](kord::CVMDKDescriptor& d) { d.setZuEncryptionIV(bytes(15)); });
    expectError<zu::CIOError>([&] { open("e.vmdk", R, "neu"); }, "VMDK encryption IV has an invalid size.", 5);
    withValues([&](kord::CVMDKDescriptor& d) { d.setZuEncryptedEncryptionKey(bytes(32)); });
    expectError<zu::CIOError>([&] { open("e.vmdk", R, "neu"); }, "VMDK encrypted encryption key has an invalid size.",
                              5);
    // Derivations are checked in this order: the prefix, the salt, then the
    // iterations (a huge count would make the open run for hours).
    auto derivationFails = [&](const std::string& derivation, long long saltBytes, const std::string& detail) {
        withValues([&](kord::CVMDKDescriptor& d) {
            d.setZuEncryptionKeyDerivationAlgorithm(zu::String(derivation));
            if (saltBytes > 0) d.setZuEncryptionKeyDerivationSalt(bytes(saltBytes));
        });
        zu::CInvalidArgError e = expectThrows<zu::CInvalidArgError>([&] { open("e.vmdk", R, "neu"); });
        EXPECT_NE(std::string::npos, msg(e).find(detail)) << msg(e);
    };
    const std::string prefix = "pkcs5-pbkdf2-hmac-sha1:";
    derivationFails(prefix + "10000001", 0, "Key derivation iterations are too large: 10000001");
    derivationFails(prefix + "10000001", 7, "Key derivation salt is too small: 7 bytes");
    derivationFails(prefix + "999", 0, "Key derivation iterations are too small: 999");
    derivationFails("pbkdf2-hmac-sha1:5000", 7, "Unknown encryption key derivation algorithm: pbkdf2-hmac-sha1:5000");
    setDescriptorText(path("e.vmdk"), pristine);
    EXPECT_TRUE(readAt(*open("e.vmdk", R, "neu"), 100, data.size()) == data);
}

TEST_F(DiskEdgeTest, preparedGrainsCopyBetweenDisksUnchanged)
{
    const Bytes data = kordtest::pattern(5 * grainBytes + 1000, 10);
    for (const char* type : {"streamOptimized", "monolithicSparse"}) {
        const std::string src = std::string("src-") + type + ".vmdk";
        const std::string dst = std::string("dst-") + type + ".vmdk";
        {
            zu::P<CVMDKDisk> disk = create(src, type, 8 * grainSectors, password);
            writeAt(*disk, 2 * grainBytes - 500, data);
        }
        zu::P<CVMDKDisk> from = open(src, R, password);
        zu::P<CVMDKDisk> to = create(dst, type, 8 * grainSectors, "other");
        std::vector<zu::TBuffer<unsigned char>> grains(8);
        for (auto& grain : grains) from->readPreparedGrainData(grain);
        for (auto& grain : grains) to->writePreparedGrainData(grain);
        to = nullptr;
        to = open(dst, R, "other");
        for (auto& grain : grains) {
            zu::TBuffer<unsigned char> again;
            to->readPreparedGrainData(again);
            EXPECT_TRUE(again == grain) << type;
        }
        EXPECT_TRUE(readAt(*to, 0, 8 * grainBytes) == readAt(*from, 0, 8 * grainBytes)) << type;
    }

    // Prepared grains move only between disks of one grain size.
    create("p.vmdk", "monolithicSparse", 8 * grainSectors);
    create("c.vmdk", "monolithicSparse", 0, "", "p.vmdk");
    CVMDKDisk::CCreateParams p64 = params("monolithicSparse", 8 * grainSectors);
    p64.grainSizeSectors = 64;
    CVMDKDisk::create(fs, uri("q.vmdk"), p64);
    const unsigned pID = contentID(path("p.vmdk"));
    editDescriptor(path("q.vmdk"), [&](kord::CVMDKDescriptor& d) { d.setContentID(pID); });
    setDescriptorText(path("q.vmdk"), replaced(descriptorText(path("q.vmdk")), "\"q.vmdk\"", "\"p.vmdk\""));
    std::filesystem::rename(path("q.vmdk"), path("p.vmdk"));
    zu::P<CVMDKDisk> child = open("c.vmdk", R);
    zu::TBuffer<unsigned char> prepared;
    zu::CError e = expectError<zu::CError>([&] { child->readPreparedGrainData(prepared); },
                                           "Parent disk is incompatible with diff disk.", -1);
    EXPECT_EQ("32768", prop(e, "actualGrainSize"));
    EXPECT_EQ("65536", prop(e, "expectedGrainSize"));
    EXPECT_EQ("false", prop(e, "actualCompressed"));
}

TEST_F(DiskEdgeTest, zeroGrainsAreStoredOnlyOverParentData)
{
    const Bytes zeros(2 * grainBytes, 0);
    {
        zu::P<CVMDKDisk> parent = create("p.vmdk", "monolithicSparse", 8 * grainSectors);
        writeAt(*parent, 0, kordtest::pattern(8 * grainBytes, 11));
        writeAt(*parent, 6 * grainBytes, zeros);
        EXPECT_TRUE(readAt(*parent, 6 * grainBytes, zeros.size()) == zeros);
    }
    {
        zu::P<CVMDKDisk> single = create("s.vmdk", "monolithicSparse", 8 * grainSectors);
        const std::string before = fileText(path("s.vmdk"));
        writeAt(*single, 2 * grainBytes, zeros);
        single->flushChanges();
        EXPECT_EQ(before.size(), fileText(path("s.vmdk")).size());
        EXPECT_EQ(0, single->gatherSpaceInfo()->payloadSize);
        single->seek(2 * grainBytes);
        EXPECT_FALSE(single->isGrainWritten());
    }
    {
        zu::P<CVMDKDisk> child = create("c.vmdk", "monolithicSparse", 0, "", "p.vmdk");
        writeAt(*child, 2 * grainBytes, zeros);
        EXPECT_TRUE(readAt(*child, 2 * grainBytes, zeros.size()) == zeros);
        child->seek(2 * grainBytes);
        EXPECT_TRUE(child->isGrainWrittenAndIndependentOfParent());
        // Copying a grain of the parent keeps its data and frees it from the parent.
        child->seek(5 * grainBytes);
        EXPECT_FALSE(child->isGrainWrittenAndIndependentOfParent());
        EXPECT_TRUE(child->makeGrainIndependentOfParent(5));
        child->seek(5 * grainBytes);
        EXPECT_TRUE(child->isGrainWrittenAndIndependentOfParent());
    }
    zu::P<CVMDKDisk> child = open("c.vmdk", R);
    EXPECT_TRUE(readAt(*child, 2 * grainBytes, zeros.size()) == zeros);
    EXPECT_TRUE(readAt(*child, 5 * grainBytes, grainBytes) == readAt(*open("p.vmdk", R), 5 * grainBytes, grainBytes));
}

TEST_F(DiskEdgeTest, newDisksDescribeThemselvesAsOtherToolsDo)
{
    struct Case {
        const char* adapter;
        long long capacity;
        long long heads;
    };
    for (const Case& c : {Case{"ide", 1000000, 16}, Case{"lsilogic", 1000000, 255}, Case{"ide", 20000000, 16}}) {
        CVMDKDisk::CCreateParams p = params("monolithicSparse", c.capacity);
        p.adapterType = c.adapter;
        const std::string name = std::string(c.adapter) + std::to_string(c.capacity) + ".vmdk";
        zu::P<CVMDKDisk> disk = CVMDKDisk::create(fs, uri(name), p);
        const kord::CVMDKDescriptor& d = *disk->getDescriptor();
        EXPECT_EQ(c.heads, d.getGeometryHeads());
        EXPECT_EQ(63, d.getGeometrySectors());
        EXPECT_EQ(c.capacity / (c.heads * 63), d.getGeometryCylinders());
        EXPECT_EQ(c.adapter, d.getAdapterType().toUTF8());
        EXPECT_EQ(0xFFFFFFFFu, d.getParentContentID());
        EXPECT_NE(0u, d.getContentID());
        EXPECT_NE(0xFFFFFFFFu, d.getContentID());
        EXPECT_TRUE(d.hasValue("ddb.virtualHWVersion"));
    }

    // Split extents of at most 4,192,256 sectors, and room to grow in the text file.
    create("big.vmdk", "twoGbMaxExtentSparse", 2 * splitSectors + 1);
    const std::string file = fileText(path("big.vmdk"));
    const size_t textEnd = file.find('\0');
    ASSERT_NE(std::string::npos, textEnd);
    EXPECT_GE(file.size() - textEnd, 1536u);
    EXPECT_EQ(std::string(file.size() - textEnd, '\0'), file.substr(textEnd));
    for (const char* line : {"RW 4192256 SPARSE \"big-s001.vmdk\"", "RW 4192256 SPARSE \"big-s002.vmdk\"",
                             "RW 1 SPARSE \"big-s003.vmdk\""})
        EXPECT_NE(std::string::npos, file.find(line)) << file;

    // A delta names its parent relative to its own folder and takes its size.
    std::filesystem::create_directories(path("base"));
    std::filesystem::create_directories(path("deltas"));
    create("base/p.vmdk", "monolithicSparse", 10 * grainSectors + 3);
    zu::P<CVMDKDisk> child = create("deltas/c.vmdk", "monolithicSparse", 0, "", "base/p.vmdk");
    EXPECT_EQ("../base/p.vmdk", child->getDescriptor()->getParentFileNameHint().toUTF8());
    EXPECT_EQ(contentID(path("base/p.vmdk")), child->getDescriptor()->getParentContentID());
    EXPECT_EQ((10 * grainSectors + 3) * sector, child->getDiskSizeBytes());
    EXPECT_EQ(20 * grainBytes, create("deltas/c2.vmdk", "monolithicSparse", 20 * grainSectors, "", "base/p.vmdk")
                                   ->getDiskSizeBytes());

    // Names with spaces and non-ASCII letters; a split child's text file has
    // room for a parent path 1 KiB longer, stored in place.
    std::filesystem::create_directories(path("base dir"));
    writeAt(*create("base dir/pä rent.vmdk", "monolithicSparse", 10 * grainSectors), 0, Bytes{1, 2, 3});
    create("deltas/c3.vmdk", "twoGbMaxExtentSparse", 0, "", "base dir/pä rent.vmdk");
    EXPECT_EQ(Bytes({1, 2, 3}), readAt(*open("deltas/c3.vmdk", R), 0, 3));
    std::string deep = "moved";
    for (int i = 0; i < 5; ++i) deep += "/" + std::string(200, static_cast<char>('a' + i));
    std::filesystem::create_directories(path(deep));
    std::filesystem::rename(path("base dir/pä rent.vmdk"), path(deep + "/pä rent.vmdk"));
    const size_t before = fileText(path("deltas/c3.vmdk")).size();
    const std::string hint = "../" + deep + "/pä rent.vmdk";
    open("deltas/c3.vmdk", RW)->changeParentRelPath(zu::String::fromUTF8(hint.data(), hint.size()));
    EXPECT_EQ(before, fileText(path("deltas/c3.vmdk")).size());
    EXPECT_EQ(Bytes({1, 2, 3}), readAt(*open("deltas/c3.vmdk", R), 0, 3));
}

TEST_F(DiskEdgeTest, creationRefusesAndCleansUp)
{
    create("taken.vmdk", "monolithicSparse", grainSectors);
    create("compressed.vmdk", "streamOptimized", grainSectors);
    create("locked.vmdk", "monolithicSparse", grainSectors, password);
    putFile(path("stale-s002.vmdk"), "stale");
    const auto before = snapshot(temp.path());

    zu::CFileSystemError e = expectError<zu::CFileSystemError>(
        [&] { create("taken.vmdk", "monolithicSparse", grainSectors); }, "VMDK disk file already exists.", 2);
    EXPECT_NE(std::string::npos, prop(e, "uri").find("taken.vmdk"));
    expectError<zu::CFileSystemError>([&] { create("stale.vmdk", "twoGbMaxExtentSparse", splitSectors + 1); },
                                      "VMDK disk file already exists.", 2);

    auto refused = [&](const std::function<void(CVMDKDisk::CCreateParams&)>& change) {
        CVMDKDisk::CCreateParams p = params("monolithicSparse", grainSectors);
        change(p);
        EXPECT_THROW(CVMDKDisk::create(fs, uri("new.vmdk"), p), zu::CInvalidArgError);
    };
    refused([](CVMDKDisk::CCreateParams& p) { p.createType = "monolithicFlat"; });
    refused([](CVMDKDisk::CCreateParams& p) { p.adapterType = "scsi"; });
    refused([](CVMDKDisk::CCreateParams& p) { p.createExtentFilesOnDemand = true; });
    refused([](CVMDKDisk::CCreateParams& p) { p.compressionLevel = 13; });
    refused([](CVMDKDisk::CCreateParams& p) { p.grainSizeSectors = 0; });
    refused([](CVMDKDisk::CCreateParams& p) { p.capacitySectors = 0; });
    refused([&](CVMDKDisk::CCreateParams& p) { p.parentURI = uri("compressed.vmdk"); });
    refused([&](CVMDKDisk::CCreateParams& p) {
        p.createType = "streamOptimized";
        p.parentURI = uri("taken.vmdk");
    });
    expectError<zu::CError>([&] { create("new.vmdk", "monolithicSparse", 0, "", "locked.vmdk"); },
                            "VMDK is encrypted but no password provided", -1);
    expectError<zu::CError>([&] { create("new.vmdk", "monolithicSparse", 0, "not it", "locked.vmdk"); },
                            "Specified VMDK encryption password is not correct.", -1);

    // Failures part-way delete what was made.
    auto failing = [&](const std::string& failCreating, bool failLocks, const std::string& type) {
        zu::P<FaultyFileSystem> faulty = zu::newObj<FaultyFileSystem>(fs, failCreating, failLocks);
        EXPECT_THROW(CVMDKDisk::create(faulty, uri("half.vmdk"), params(type, 2 * splitSectors + 1)), zu::CError);
    };
    failing("half-s003.vmdk", false, "twoGbMaxExtentSparse");
    failing("half.vmdk", false, "twoGbMaxExtentSparse");
    failing("", true, "twoGbMaxExtentSparse");
    failing("", true, "streamOptimized");
    EXPECT_TRUE(before == snapshot(temp.path()));
}

} // namespace
