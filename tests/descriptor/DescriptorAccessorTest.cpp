// Finding, loading and storing a descriptor in a sparse extent file or a
// text file, on both file systems: the area never changes size, hostile
// headers are refused before anything is allocated, and the content ID is
// renewed once, in the right file. (Stores into the area of a sparse extent
// are read back by qemu-img in the interop tests, and the descriptor
// outgrowing that area is refused with the hostile disks.)
#include "common/ExtentTestUtil.h"

#include "base/CBufferStream.h"
#include "descriptor/CVMDKDescriptorAccessor.h"

using namespace kordtest;
using namespace kord;

namespace {

const std::string separateText = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                                 "createType=\"twoGbMaxExtentSparse\"\n\nRW 8 SPARSE \"disk-s001.vmdk\"\n";
const unsigned sparseCID = 0x1234abcd;

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

class DescriptorAccessorTest : public kordtest::FileSystemTest {
protected:
    // A monolithic sparse extent of 16 grains of 8 sectors: header, a
    // 20-sector descriptor area at sector 1, metadata up to sector 32.
    zu::CURI makeSparse(const std::string& name)
    {
        fs->deleteFile(uri(name), true);
        kordtest::createExtent(fs, uri(name), kordtest::plainKind, 16, 8);
        return uri(name);
    }
    zu::CURI makeText(const std::string& text)
    {
        kordtest::writeAll(fs, uri("disk.vmdk"), bytesOf(text));
        return uri("disk.vmdk");
    }
    zu::P<CVMDKDescriptorAccessor> load(const zu::CURI& u, int access = zu::IIOStream::accessReadWrite)
    {
        return zu::newObj<CVMDKDescriptorAccessor>(kord::openVMDKFileStream(fs, u, access), access);
    }
    void loadFails(const zu::CURI& u, const std::string& message, long long code = zu::CIOError::codeInvalidData)
    {
        EXPECT_EQ(u.toString(true), kordtest::expectError([&] { load(u); }, message, code).getProp("uri"));
    }
    unsigned contentID(const zu::CURI& u) { return load(u)->getDescriptor()->getContentID(); }
};

} // namespace

TEST_P(DescriptorAccessorTest, textFileRewrittenWithinItsSizeAndHostileHeaderFieldsRefused)
{
    const zu::CURI u = makeText(separateText);
    zu::P<CVMDKDescriptorAccessor> accessor = load(u);
    zu::P<CVMDKDescriptor> d = accessor->getDescriptor();
    EXPECT_TRUE(!accessor->isEmbedded() && d->toString().toUTF8() == separateText);

    // Shorter: zero-filled to the old size; the next load stops at the first zero.
    d->setCreateType("x");
    accessor->storeDescriptor(false);
    accessor = nullptr;
    Bytes shorter = bytesOf(d->toString().toUTF8());
    shorter.resize(separateText.size(), 0);
    EXPECT_EQ(shorter, readAll(fs, u));
    accessor = load(u);
    EXPECT_EQ(d->toString(), accessor->getDescriptor()->toString());

    // Longer than the file was: refused, the file is left as it was.
    accessor->getDescriptor()->setCreateType("twoGbMaxExtentSparse-and-then-some");
    // (The message is checked where the descriptor is stored.)
    EXPECT_EQ(u.toString(true), expectThrows<zu::CIOError>([&] { accessor->storeDescriptor(true); }).getProp("uri"));
    accessor = nullptr;
    EXPECT_EQ(shorter, readAll(fs, u));

    // Files too short to hold a magic number are text.
    EXPECT_EQ(1, load(makeText("a="))->getDescriptor()->getEntryCount() + load(makeText(""))->getDescriptor()->getEntryCount());

    // Text up to 1 MiB and 8192 lines is read; a larger area is read no
    // further than the first zero byte or the limit; more lines are refused
    // before they are parsed, and an area over 5 MiB before it is read. (Text
    // over 1 MiB is refused with the hostile disks.)
    std::string big = "CID=1\n" + std::string(8191, '\n');
    big.resize(1 << 20, '#');
    EXPECT_EQ(1u, contentID(makeText(big)));
    EXPECT_EQ(1u, contentID(makeText(big + std::string(5242880 - big.size(), '\0'))));
    const std::pair<std::string, std::string> refused[] = {
        {"CID=1" + std::string(8193, '\n'), "VMDK descriptor has too many lines."},
        {big + std::string(5242881 - big.size(), '\0'), "VMDK descriptor is too big (5242881 bytes)."},
    };
    for (const auto& [text, message] : refused) loadFails(makeText(text), message);

    // Hostile header fields of a sparse extent.
    const std::string none = "No VMDK descriptor found in VMDK file.";
    const struct { long long offset; Bytes bytes; std::string message; } cases[] = {
        // A stream-optimized or descriptor-less extent.
        {hdr::descriptorOffset, le64(0), none}, {hdr::descriptorSize, le64(0), none},
        {hdr::descriptorOffset, le64(static_cast<unsigned long long>(-1)), none},
        // The byte size would overflow when multiplied: refused as too big, before any allocation.
        {hdr::descriptorSize, le64(1ull << 62), "VMDK descriptor is too big (2361183241434822606848 bytes)."},
        {hdr::descriptorSize, le64(10241), "VMDK descriptor is too big (5243392 bytes)."},
        // Within the limit but past the end of the file. (Other damage to
        // the header is refused when the extent is opened.)
        {hdr::descriptorSize, le64(10240), "VMDK descriptor area is invalid (offset: 1 sectors, size: 10240 sectors)."},
        {hdr::descriptorOffset, le64(14), "VMDK descriptor area is invalid (offset: 14 sectors, size: 20 sectors)."},
    };
    for (const auto& c : cases) {
        kordtest::patchFile(fs, makeSparse("disk.vmdk"), c.offset, c.bytes);
        loadFails(uri("disk.vmdk"), c.message);
    }
    // The area ending exactly at the end of the file (12 + 20 = 32 sectors) is valid.
    kordtest::patchFile(fs, makeSparse("disk.vmdk"), hdr::descriptorOffset, le64(12));
    EXPECT_EQ(0, load(uri("disk.vmdk"))->getDescriptor()->getEntryCount());

    makeSparse("disk.vmdk");
    // Without write access nothing is renewed, and the file keeps its ID.
    zu::P<CVMDKDescriptorAccessor> readOnly = load(u, zu::IIOStream::accessRead);
    expectThrows<zu::CError>([&] { readOnly->changeContentID(); });
    expectThrows<zu::CError>([&] { readOnly->storeDescriptor(true); });
    EXPECT_EQ(sparseCID, contentID(u));

    zu::P<CVMDKDescriptor> disk = readOnly->getDescriptor();
    // Spelled differently: the updater compares normalised URIs.
    const zu::CURI spelled(u.getParent() << zu::String("./sub/../disk.vmdk"));
    zu::P<kord::CVMDKContentIDUpdater> updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, spelled, disk);
    zu::P<zu::IIOStream> extent = kord::openVMDKFileStream(fs, u, zu::IIOStream::accessReadWrite);
    updater->setContentIDUpdatesEnabled(false);
    updater->onDiskAboutToChange(u, extent, true);
    EXPECT_FALSE(updater->isDone());
    EXPECT_EQ(sparseCID, contentID(u));
    updater->setContentIDUpdatesEnabled(true);
    updater->onDiskAboutToChange(u, extent, true);
    const unsigned renewed = contentID(u);
    updater->onDiskAboutToChange(u, extent, true);   // a second change renews nothing
    EXPECT_NE(sparseCID, renewed);
    EXPECT_EQ(renewed, contentID(u));
    EXPECT_EQ(renewed, disk->getContentID());
    extent->close();

    // The extent's own open stream is used, not a new one: here the file
    // exists only in that stream.
    const Bytes bytes = readAll(fs, u);
    zu::P<zu::TBuffer<unsigned char>> image = zu::newObj<zu::TBuffer<unsigned char>>(bytes.data(), bytes.size());
    const zu::CURI ghost = uri("ghost.vmdk");
    updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, ghost, disk);
    updater->onDiskAboutToChange(ghost, zu::newObj<zu::CBufferStream>(image, 2.0, ghost), true);
    EXPECT_FALSE(fs->exists(ghost));
    EXPECT_NE(renewed, disk->getContentID());
    EXPECT_NE(bytes, Bytes(image->getData(), image->getData() + image->getUsed()));

    // A separate descriptor file is renewed through its own stream, never
    // the extent's (closed here); a failed renewal is tried again at the
    // next change.
    updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, uri("split.vmdk"), disk);
    expectThrows<zu::CFileSystemError>([&] { updater->onDiskAboutToChange(u, extent, true); });
    kordtest::writeAll(fs, uri("split.vmdk"), bytesOf(separateText));
    updater->onDiskAboutToChange(u, extent, true);
    EXPECT_EQ(disk->getContentID(), contentID(uri("split.vmdk")));
}

KORD_INSTANTIATE_FS(DescriptorAccessorTest);
