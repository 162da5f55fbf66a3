// Finds a disk's descriptor in an open stream, either embedded in the
// descriptor area of a sparse extent file (monolithic and stream-optimized
// disks) or as a whole text file, loads it, and writes it back in place.
//
// The embedded area keeps its sectors, so a longer descriptor than fits is
// an error, and a shorter one is followed by zero bytes. A text file keeps
// its size too while the text fits; given the file system, a text file
// whose descriptor has outgrown it (made by a tool that left no room) is
// replaced in one step by a longer one: written beside it under a
// temporary name, made durable, and renamed over it, so that the file
// holds the old descriptor or the new one, never a part.
//
// A store in place rewrites only the bytes that changed: a new content ID
// of the same length touches its digits alone, lines added at the end only
// the zeros behind the text, so that an interrupted store leaves text that
// still reads (a content ID of old and new digits, or a last line cut short).
#pragma once

#include "base/IFileSystem.h"
#include "base/IIOStream.h"
#include "descriptor/CVMDKDescriptor.h"

namespace kord {

class CVMDKDescriptorAccessor : public zu::CBase {
public:
    // Descriptor areas larger than this are refused (5 MiB).
    static constexpr long long maxDescriptorBytes = 0x500000;
    // The text in the area (up to the first zero byte) is refused beyond
    // these: real descriptors have a few hundred lines, and a line costs
    // far more in memory than in the file. The limits are checked before
    // the text is parsed, and the text is read only this far, so a hostile
    // descriptor costs at most about 1 MiB to refuse.
    static constexpr long long maxDescriptorTextBytes = 1 << 20;
    static constexpr long long maxDescriptorLines = 8192;

    // Locates and loads the descriptor; the stream position is unchanged.
    // Throws zu::CIOError code 6 for an unsupported header version, code 5
    // when a sparse file has no descriptor, its area is invalid or lies past
    // the end of the file, or the descriptor is too big or has too many
    // lines. fileSystem may be null: a text file then never grows.
    CVMDKDescriptorAccessor(zu::IIOStream* stream, int access, zu::IFileSystem* fileSystem = nullptr);

    // The loaded descriptor; change it there and call storeDescriptor.
    zu::P<CVMDKDescriptor> getDescriptor() const { return descriptor; }
    bool isEmbedded() const { return embedded; }
    long long getDescriptorStart() const { return descriptorStart; }
    long long getDescriptorAreaSize() const { return areaSize; }

    // Writes the descriptor back into its area (zero-filled behind the
    // text) and flushes the stream; with `durable` it is synced too. Needs
    // read-write access. A text file that must grow is replaced (see
    // above), durably; the accessor then holds a stream of the new file.
    void storeDescriptor(bool durable);
    // Refuses (zu::CIOError code 5, as storing would) a descriptor that
    // would not fit its room once its content ID is renewed: the first
    // change of a disk renews it. A text file that can grow has room.
    void checkRoomForNewContentID() const;
    // Gives the descriptor a new random content ID (never 0, ffffffff or the
    // old one) of as many hexadecimal digits as the old one, in memory, and
    // returns it; the caller stores it.
    unsigned changeContentID();

private:
    void locate();
    zu::TBuffer<unsigned char> readText() const;
    void checkLineCount(const zu::TBuffer<unsigned char>& text) const;
    bool canGrow() const { return !embedded && fileSystem; }
    void replaceTextFile(long long textBytes);

    zu::P<zu::IIOStream> stream;
    int access;
    zu::P<zu::IFileSystem> fileSystem;
    bool embedded = false;
    long long descriptorStart = 0;
    long long areaSize = 0;
    zu::P<CVMDKDescriptor> descriptor;
    // The text as it is in the file (up to its first zero byte).
    zu::TBuffer<unsigned char> storedText;
};

} // namespace kord
