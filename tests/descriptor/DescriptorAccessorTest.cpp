// Finding, loading and storing a descriptor in a sparse extent file or a
// text file, on both file systems: the area never changes size, hostile
// headers are refused before anything is allocated, and the content ID is
// renewed once, in the right file.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "base/CMTRand.h"
#include "base/Threads.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "descriptor/CVMDKDescriptorAccessor.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKEmptyLayout.h"

using kord::CVMDKDescriptor;
using kord::CVMDKDescriptorAccessor;
using kordtest::expectThrows;
using kordtest::le32;
using kordtest::le64;
using kordtest::msg;
using kordtest::patchFile;
using kordtest::readAll;

namespace {

using Bytes = std::vector<unsigned char>;

const char* const separateText = "# Disk DescriptorFile\n"
                                 "version=1\n"
                                 "encoding=\"UTF-8\"\n"
                                 "CID=12345678\n"
                                 "parentCID=ffffffff\n"
                                 "createType=\"twoGbMaxExtentSparse\"\n"
                                 "\n"
                                 "# Extent description\n"
                                 "RW 8 SPARSE \"disk-s001.vmdk\"\n"
                                 "\n"
                                 "ddb.adapterType = \"lsilogic\"\n";

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

// Header fields patched to make exactly one check fail.
constexpr long long offVersion = 4;
constexpr long long offDescriptorOffset = 28;
constexpr long long offDescriptorSize = 36;

class DescriptorAccessorTest : public kordtest::FileSystemTest {
protected:
    // A monolithic sparse extent of 16 grains with a 20-sector descriptor area.
    zu::CURI makeSparse(const std::string& name, const zu::TBuffer<unsigned char>& keyHash = {})
    {
        CVMDKDescriptor descriptor;
        descriptor.setVersion(1);
        descriptor.setContentID(0x1234abcd);
        descriptor.setParentContentID(0xffffffff);
        descriptor.setCreateType("monolithicSparse");
        descriptor.addExtentEntry(zu::newObj<kord::CVMDKExtentInfo>("RW", 128, "SPARSE", zu::String(name), -1));
        descriptor.setAdapterType("ide");
        zu::TBuffer<unsigned char> zeros;
        zeros.setUsedFill(65536, 0);
        kord::createEmptyVMDKSparseExtentFile(fs, uri(name), false, 16, 8, zeros, &descriptor, 20, keyHash);
        return uri(name);
    }
    zu::P<zu::IIOStream> open(const zu::CURI& u, int access = zu::IIOStream::accessReadWrite)
    {
        return kord::openVMDKFileStream(fs, u, access);
    }
    zu::P<CVMDKDescriptorAccessor> load(const zu::CURI& u, int access = zu::IIOStream::accessReadWrite)
    {
        return zu::newObj<CVMDKDescriptorAccessor>(open(u, access), access);
    }
    zu::CIOError loadFails(const zu::CURI& u)
    {
        zu::CIOError e = expectThrows<zu::CIOError>([&] { load(u); });
        EXPECT_EQ(u.toString(true), e.getProp("uri"));
        return e;
    }
};

} // namespace

TEST_P(DescriptorAccessorTest, embeddedDescriptorFoundStoredInPlace)
{
    const zu::CURI u = makeSparse("disk.vmdk");
    const Bytes before = readAll(fs, u);
    zu::P<zu::IIOStream> stream = open(u);
    stream->seek(777);
    CVMDKDescriptorAccessor accessor(stream, zu::IIOStream::accessReadWrite);
    EXPECT_EQ(777, stream->getPosition());
    EXPECT_TRUE(accessor.isEmbedded());
    EXPECT_EQ(512, accessor.getDescriptorStart());
    EXPECT_EQ(20 * 512, accessor.getDescriptorAreaSize());
    zu::P<CVMDKDescriptor> d = accessor.getDescriptor();
    EXPECT_EQ(0x1234abcdu, d->getContentID());
    EXPECT_EQ("ide", d->getAdapterType().toUTF8());

    d->setCreateType("streamOptimized");
    accessor.storeDescriptor(true);
    EXPECT_EQ(777, stream->getPosition());
    const Bytes after = readAll(fs, u);
    ASSERT_EQ(before.size(), after.size());
    const std::string text = d->toString().toUTF8();
    EXPECT_EQ(text, std::string(after.begin() + 512, after.begin() + 512 + static_cast<long>(text.size())));
    EXPECT_EQ(Bytes(10240 - text.size(), 0), Bytes(after.begin() + 512 + static_cast<long>(text.size()),
                                                  after.begin() + 21 * 512));
    // Header and grain metadata untouched.
    EXPECT_EQ(Bytes(before.begin(), before.begin() + 512), Bytes(after.begin(), after.begin() + 512));
    EXPECT_EQ(Bytes(before.begin() + 21 * 512, before.end()), Bytes(after.begin() + 21 * 512, after.end()));

    // A descriptor that outgrows its area is refused and nothing is written.
    d->setCreateType(zu::String(std::string(11000, 'x')));
    zu::CError e = expectThrows<zu::CError>([&] { accessor.storeDescriptor(true); });
    EXPECT_NE(std::string::npos, msg(e).find("exceeds target size")) << msg(e);
    EXPECT_NE(std::string::npos, msg(e).find("target size: 10240")) << msg(e);
    EXPECT_EQ(777, stream->getPosition());
    stream->close();
    EXPECT_EQ(after, readAll(fs, u));

    // The extended header of an encrypted extent is accepted too.
    zu::TBuffer<unsigned char> hash;
    hash.setUsedFill(32, 0x77);
    EXPECT_EQ(0x1234abcdu, load(makeSparse("enc.vmdk", hash))->getDescriptor()->getContentID());
}

TEST_P(DescriptorAccessorTest, textFileRewrittenWithinItsSize)
{
    const zu::CURI u = uri("disk.vmdk");
    kordtest::writeAll(fs, u, bytesOf(separateText));
    const long long size = static_cast<long long>(std::string(separateText).size());
    zu::P<CVMDKDescriptorAccessor> accessor = load(u);
    EXPECT_FALSE(accessor->isEmbedded());
    EXPECT_EQ(0, accessor->getDescriptorStart());
    EXPECT_EQ(size, accessor->getDescriptorAreaSize());
    zu::P<CVMDKDescriptor> d = accessor->getDescriptor();
    EXPECT_EQ(separateText, d->toString().toUTF8());

    // Shorter: zero-filled to the old size; the next load stops at the first zero.
    d->setCreateType("x");
    accessor->storeDescriptor(false);
    accessor = nullptr;
    const Bytes shorter = readAll(fs, u);
    ASSERT_EQ(static_cast<size_t>(size), shorter.size());
    EXPECT_EQ(0, shorter.back());
    zu::P<CVMDKDescriptor> reloaded = load(u)->getDescriptor();
    EXPECT_EQ(d->toString(), reloaded->toString());
    EXPECT_EQ("x", reloaded->getCreateType().toUTF8());

    // Longer than the file was: refused, the file is left as it was.
    zu::P<CVMDKDescriptorAccessor> again = load(u);
    again->getDescriptor()->setCreateType("twoGbMaxExtentSparse-and-then-some");
    zu::CError e = expectThrows<zu::CError>([&] { again->storeDescriptor(true); });
    EXPECT_NE(std::string::npos, msg(e).find("target size: " + std::to_string(size))) << msg(e);
    again = nullptr;
    EXPECT_EQ(shorter, readAll(fs, u));

    // Files too short to hold a magic number are text.
    kordtest::writeAll(fs, u, bytesOf("a="));
    EXPECT_EQ(1, load(u)->getDescriptor()->getEntryCount());
    kordtest::writeAll(fs, u, Bytes());
    EXPECT_EQ(0, load(u)->getDescriptor()->getEntryCount());
}

TEST_P(DescriptorAccessorTest, textLargerThanFiveMebibytesRefused)
{
    const zu::CURI u = uri("big.vmdk");
    std::string text = "CID=1\n";
    text.resize(5242880, '#');
    kordtest::writeAll(fs, u, bytesOf(text));
    zu::P<CVMDKDescriptor> d = load(u)->getDescriptor();
    EXPECT_EQ(2, d->getEntryCount());
    EXPECT_EQ(1u, d->getContentID());

    text += '#';
    kordtest::writeAll(fs, u, bytesOf(text));
    zu::CIOError e = loadFails(u);
    EXPECT_EQ(zu::CIOError::codeInvalidData, e.getCode());
    EXPECT_EQ("VMDK descriptor is too big (5242881 bytes).", msg(e));
}

TEST_P(DescriptorAccessorTest, hostileHeaderFieldsRefused)
{
    zu::P<zu::TBuffer<unsigned char>> none = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::TBuffer<unsigned char> zeros;
    zeros.setUsedFill(512, 0);
    kord::createEmptyVMDKSparseExtentFile(fs, uri("bare.vmdk"), true, 16, 8, zeros, nullptr, 0, *none);
    zu::CIOError bare = loadFails(uri("bare.vmdk"));
    EXPECT_EQ(zu::CIOError::codeInvalidData, bare.getCode());
    EXPECT_EQ("No VMDK descriptor found in VMDK file.", msg(bare));

    struct Case {
        long long offset;
        std::vector<unsigned char> bytes;
        long long code;
        const char* message;
    };
    const std::vector<Case> cases = {
        {offDescriptorSize, le64(0), 5, "No VMDK descriptor found in VMDK file."},
        {offDescriptorSize, le64(static_cast<unsigned long long>(-20)), 5, "No VMDK descriptor found in VMDK file."},
        {offDescriptorOffset, le64(static_cast<unsigned long long>(-1)), 5, "No VMDK descriptor found in VMDK file."},
        // The byte size would overflow when multiplied: refused as too big, before any allocation.
        {offDescriptorSize, le64(1ull << 62), 5, "VMDK descriptor is too big (2361183241434822606848 bytes)."},
        {offDescriptorSize, le64(10241), 5, "VMDK descriptor is too big (5243392 bytes)."},
        // Within the limit but past the end of the file.
        {offDescriptorSize, le64(10240), 5, "VMDK descriptor area is invalid (offset: 1 sectors, size: 10240 sectors)."},
        {offDescriptorOffset, le64(1ull << 62), 5,
         "VMDK descriptor area is invalid (offset: 4611686018427387904 sectors, size: 20 sectors)."},
        {offDescriptorOffset, le64(14), 5, "VMDK descriptor area is invalid (offset: 14 sectors, size: 20 sectors)."},
        {offVersion, le32(4), 6, "VMDK file has an unsupported version: 4"},
        {offVersion, le32(0), 6, "VMDK file has an unsupported version: 0"},
    };
    for (const Case& c : cases) {
        const zu::CURI u = makeSparse("disk.vmdk");
        patchFile(fs, u, c.offset, c.bytes);
        zu::CIOError e = loadFails(u);
        EXPECT_EQ(c.code, e.getCode()) << c.message;
        EXPECT_EQ(c.message, msg(e));
        fs->deleteFile(u, false);
    }

    // The area ending exactly at the end of the file is valid.
    const zu::CURI u = makeSparse("disk.vmdk");
    patchFile(fs, u, offDescriptorOffset, le64(12));   // 12 + 20 = 32 sectors, the file's size
    EXPECT_EQ(32 * 512, fs->getFileSize(u));
    EXPECT_EQ(0, load(u)->getDescriptor()->getEntryCount());

    // A header cut short is an end of data.
    kordtest::writeAll(fs, u, bytesOf("KDMV\x01"));
    EXPECT_EQ(zu::CIOError::codeEndOfData, expectThrows<zu::CIOError>([&] { load(u); }).getCode());
}

TEST_P(DescriptorAccessorTest, contentIdChangesOnlyWithWriteAccess)
{
    const zu::CURI u = makeSparse("disk.vmdk");
    zu::P<CVMDKDescriptorAccessor> accessor = load(u);
    zu::P<CVMDKDescriptor> d = accessor->getDescriptor();
    for (int i = 0; i < 2000; ++i) {
        const unsigned old = d->getContentID();
        const unsigned fresh = accessor->changeContentID();
        ASSERT_NE(0u, fresh);
        ASSERT_NE(0xffffffffu, fresh);
        ASSERT_NE(old, fresh);
        ASSERT_EQ(fresh, d->getContentID());
    }
    // The value the generator gives next is made the old one: it must be skipped.
    {
        zu::CMutexLock lock(zu::getGlobalMutex());
        zu::CMTRand next(zu::CMTRand::getGlobal());
        d->setContentID(next.rand32());
        EXPECT_EQ(next.rand32(), accessor->changeContentID());
    }

    zu::P<CVMDKDescriptorAccessor> readOnly = load(u, zu::IIOStream::accessRead);
    EXPECT_EQ("Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was not opened "
              "for writing.",
              msg(expectThrows<zu::CError>([&] { readOnly->storeDescriptor(true); })));
    EXPECT_EQ("Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the accessor was not opened "
              "for writing.",
              msg(expectThrows<zu::CError>([&] { readOnly->changeContentID(); })));
    EXPECT_EQ(0x1234abcdu, readOnly->getDescriptor()->getContentID());
}

TEST_P(DescriptorAccessorTest, updaterRenewsEmbeddedContentIdOnceThroughGivenStream)
{
    const zu::CURI u = makeSparse("disk.vmdk");
    zu::P<CVMDKDescriptor> disk = load(u)->getDescriptor();
    // Spelled differently: the updater compares normalised URIs.
    const zu::CURI spelled(u.getParent() << zu::String("./sub/../disk.vmdk"));
    zu::P<kord::CVMDKContentIDUpdater> updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, spelled, disk);

    zu::P<zu::IIOStream> extent = open(u);
    updater->setContentIDUpdatesEnabled(false);
    updater->onDiskAboutToChange(u, extent);
    EXPECT_FALSE(updater->isDone());
    EXPECT_EQ(0x1234abcdu, load(u)->getDescriptor()->getContentID());

    updater->setContentIDUpdatesEnabled(true);
    updater->onDiskAboutToChange(u, extent);
    EXPECT_TRUE(updater->isDone());
    const unsigned renewed = load(u)->getDescriptor()->getContentID();
    EXPECT_NE(0x1234abcdu, renewed);
    EXPECT_EQ(renewed, disk->getContentID());
    updater->onDiskAboutToChange(u, extent);   // a second change renews nothing
    EXPECT_EQ(renewed, load(u)->getDescriptor()->getContentID());
    extent->close();

    // The extent's own open stream is used, not a new one: here the file
    // exists only in that stream.
    zu::P<zu::TBuffer<unsigned char>> image = zu::newObj<zu::TBuffer<unsigned char>>();
    const Bytes bytes = readAll(fs, u);
    image->assign(bytes.data(), static_cast<long long>(bytes.size()));
    const zu::CURI ghost = uri("ghost.vmdk");
    zu::P<CVMDKDescriptor> ghostDisk = zu::newObj<CVMDKDescriptor>();
    *ghostDisk = *disk;
    zu::P<kord::CVMDKContentIDUpdater> ghostUpdater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, ghost, ghostDisk);
    ghostUpdater->onDiskAboutToChange(ghost, zu::newObj<zu::CBufferStream>(image, 2.0, ghost));
    EXPECT_FALSE(fs->exists(ghost));
    EXPECT_NE(renewed, ghostDisk->getContentID());
    EXPECT_NE(Bytes(image->getData(), image->getData() + image->getUsed()), bytes);
}

TEST_P(DescriptorAccessorTest, updaterRewritesSeparateDescriptorFileInPlace)
{
    const zu::CURI u = uri("disk.vmdk");
    kordtest::writeAll(fs, u, bytesOf(separateText));
    zu::P<CVMDKDescriptor> disk = load(u)->getDescriptor();
    zu::P<kord::CVMDKContentIDUpdater> updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, u, disk);

    // The extent's stream must not be touched: it is a closed buffer stream.
    zu::P<zu::CBufferStream> extentStream = zu::newObj<zu::CBufferStream>(zu::newObj<zu::TBuffer<unsigned char>>());
    extentStream->close();
    updater->onDiskAboutToChange(uri("disk-s001.vmdk"), extentStream);
    EXPECT_TRUE(updater->isDone());

    const Bytes after = readAll(fs, u);
    ASSERT_EQ(std::string(separateText).size(), after.size());
    zu::P<CVMDKDescriptor> onDisk = load(u)->getDescriptor();
    EXPECT_EQ(disk->getContentID(), onDisk->getContentID());
    EXPECT_NE(0x12345678u, onDisk->getContentID());
    // Only the CID line changed.
    std::string expected = separateText;
    expected.replace(expected.find("12345678"), 8, zu::toHexString(onDisk->getContentID()).toUTF8());
    EXPECT_EQ(expected, onDisk->toString().toUTF8());

    // A failed renewal is tried again at the next change.
    fs->deleteFile(u, false);
    zu::P<kord::CVMDKContentIDUpdater> missing = zu::newObj<kord::CVMDKContentIDUpdater>(fs, u, disk);
    expectThrows<zu::CFileSystemError>([&] { missing->onDiskAboutToChange(uri("disk-s001.vmdk"), extentStream); });
    EXPECT_FALSE(missing->isDone());
    kordtest::writeAll(fs, u, bytesOf(separateText));
    missing->onDiskAboutToChange(uri("disk-s001.vmdk"), extentStream);
    EXPECT_TRUE(missing->isDone());
    EXPECT_NE(0x12345678u, load(u)->getDescriptor()->getContentID());
}

KORD_INSTANTIATE_FS(DescriptorAccessorTest);
