#include "descriptor/CVMDKDescriptorAccessor.h"

#include "base/CDataInStream.h"
#include "base/CIOError.h"
#include "base/CMTRand.h"
#include "base/Endian.h"
#include "base/Log.h"
#include "base/Threads.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/CVMDKSparseExtentHeader.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace kord {

namespace {

// Restores a stream's position when it goes, also on errors.
class CPositionKeeper {
public:
    explicit CPositionKeeper(zu::IIOStream* stream) : stream(stream), position(stream->getPosition()) {}
    ~CPositionKeeper()
    {
        try {
            if (stream->getPosition() != position) stream->seek(position);
        } catch (const std::exception& e) {
            zu::onExceptionInDestructorIgnored("kord::CVMDKDescriptorAccessor", e);
        }
    }

private:
    zu::IIOStream* stream;
    long long position;
};

zu::String uriText(zu::IIOStream* stream) { return stream->getURI().toString(true); }

zu::CIOError tooBig(zu::IIOStream* stream, const zu::String& bytes)
{
    return zu::CIOError(zu::CIOError::codeInvalidData, "VMDK descriptor is too big (" + bytes + " bytes).",
                        zu::CProps().set("uri", uriText(stream)));
}

// Decimal text of sectors * 512 without overflow, for messages.
zu::String sectorsAsBytes(long long sectors)
{
    unsigned __int128 bytes = static_cast<unsigned __int128>(sectors) * vmdkSectorSize;
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(bytes % 10)));
        bytes /= 10;
    } while (bytes != 0);
    return zu::String(digits);
}

} // namespace

CVMDKDescriptorAccessor::CVMDKDescriptorAccessor(zu::IIOStream* stream, int access, zu::IFileSystem* fileSystem)
    : stream(stream), access(access), fileSystem(fileSystem)
{
    CPositionKeeper keeper(stream);
    locate();
    zu::TBuffer<unsigned char> text = readText();
    checkLineCount(text);
    descriptor = zu::newObj<CVMDKDescriptor>(text);
    descriptor->setSourceURI(stream->getURI());
}

// The text up to the first zero byte (the rest of an area is padding),
// read no further than one byte past the text limit.
zu::TBuffer<unsigned char> CVMDKDescriptorAccessor::readText() const
{
    long long wanted = std::min(areaSize, maxDescriptorTextBytes + 1);
    zu::TBuffer<unsigned char> text(wanted);
    stream->seek(descriptorStart);
    if (wanted > 0) stream->read(text.getData(), static_cast<int>(wanted));
    const unsigned char* bytes = text.getData();
    const void* end = wanted > 0 ? std::memchr(bytes, 0, static_cast<size_t>(wanted)) : nullptr;
    long long length = end ? static_cast<const unsigned char*>(end) - bytes : wanted;
    if (length > maxDescriptorTextBytes)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK descriptor text is too big (more than " + zu::toString(maxDescriptorTextBytes) +
                               " bytes).",
                           zu::CProps()
                               .set("uri", uriText(stream))
                               .set("areaSize", areaSize)
                               .set("maxSize", maxDescriptorTextBytes));
    text.setUsed(length);
    return text;
}

// Every line becomes an object in memory: a descriptor of many short lines
// would take a hundred times its size.
void CVMDKDescriptorAccessor::checkLineCount(const zu::TBuffer<unsigned char>& text) const
{
    const unsigned char* bytes = text.getData();
    long long lines = 0;
    for (long long i = 0; i < text.getUsed(); ++i)
        if (bytes[i] == '\n') ++lines;
    if (lines > maxDescriptorLines)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK descriptor has too many lines.",
                           zu::CProps().set("uri", uriText(stream)).set("lines", lines).set("maxLines", maxDescriptorLines));
}

void CVMDKDescriptorAccessor::locate()
{
    unsigned char magicBytes[4] = {};
    stream->seek(0);
    int got = stream->readLax(magicBytes, 4);
    std::uint32_t magic = got == 4 ? zu::loadLE32(magicBytes) : 0;
    if (magic != CVMDKSparseExtentHeader::magicStandard && magic != CVMDKSparseExtentHeader::magicExtended) {
        embedded = false;
        descriptorStart = 0;
        areaSize = stream->getLength();
        if (areaSize > maxDescriptorBytes) throw tooBig(stream, zu::toString(areaSize));
        return;
    }

    embedded = true;
    stream->seek(0);
    zu::CDataInStream in(stream);
    CVMDKSparseExtentHeader header;
    header.load(in);
    if (header.version < 1 || header.version > 3)
        throw zu::CIOError(zu::CIOError::codeUnsupportedVersion,
                           "VMDK file has an unsupported version: " + zu::toString(header.version),
                           zu::CProps().set("uri", uriText(stream)));
    if (header.descriptorOffset <= 0 || header.descriptorSize <= 0)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "No VMDK descriptor found in VMDK file.",
                           zu::CProps().set("uri", uriText(stream)));
    // Sizes are checked before they are multiplied: a hostile header must
    // not cause an overflow or a huge read.
    if (header.descriptorSize > maxDescriptorBytes / vmdkSectorSize)
        throw tooBig(stream, sectorsAsBytes(header.descriptorSize));
    long long fileSize = stream->getLength();
    if (header.descriptorOffset > (LLONG_MAX / vmdkSectorSize) - header.descriptorSize ||
        (header.descriptorOffset + header.descriptorSize) * vmdkSectorSize > fileSize)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK descriptor area is invalid (offset: " + zu::toString(header.descriptorOffset) +
                               " sectors, size: " + zu::toString(header.descriptorSize) + " sectors).",
                           zu::CProps()
                               .set("uri", uriText(stream))
                               .set("descriptorOffset", header.descriptorOffset)
                               .set("descriptorSize", header.descriptorSize)
                               .set("fileSize", fileSize));
    descriptorStart = header.descriptorOffset * vmdkSectorSize;
    areaSize = header.descriptorSize * vmdkSectorSize;
}

void CVMDKDescriptorAccessor::storeDescriptor(bool flush)
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was "
                         "not opened for writing.");
    if (canGrow()) {
        long long textBytes = static_cast<long long>(descriptor->toStoredText().size());
        if (textBytes > areaSize) {
            replaceTextFile(textBytes);
            return;
        }
    }
    CPositionKeeper keeper(stream);
    stream->seek(descriptorStart);
    zu::TBuffer<unsigned char> pad;
    pad.setUsedFill(areaSize, 0);
    descriptor->store(*stream, static_cast<int>(areaSize), pad);
    if (flush) stream->flush();
}

void CVMDKDescriptorAccessor::checkRoomForNewContentID() const
{
    if (canGrow()) return;
    CVMDKDescriptor renewed;
    renewed = *descriptor;
    // The longest content ID a renewal can write: eight hexadecimal digits.
    renewed.setContentID(0xFFFFFFFEu);
    CVMDKDescriptor::checkRoom(static_cast<long long>(renewed.toStoredText().size()), areaSize, stream->getURI());
}

void CVMDKDescriptorAccessor::replaceTextFile(long long textBytes)
{
    if (textBytes > maxDescriptorTextBytes) throw tooBig(stream, zu::toString(textBytes));
    zu::CURI uri = stream->getURI();
    // Ours by its name: a leftover of a store that failed is replaced.
    zu::CURI temporary(uri.getParent(), uri.getName() + ".kord-new");
    // Whole sectors, the rest zeros, as the files we make.
    long long newSize = (textBytes + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize;
    fileSystem->deleteFile(temporary, true);
    zu::P<zu::IIOStream> out = openVMDKFileStream(fileSystem, temporary, zu::IIOStream::accessCreateNew);
    try {
        zu::TBuffer<unsigned char> pad;
        pad.setUsedFill(newSize - textBytes, 0);
        descriptor->store(*out, static_cast<int>(newSize), pad);
        // The new text must be on disk before its name replaces the old file.
        if (auto* durable = zu::tryCast<zu::IDurableStream>(out.get())) durable->sync();
        out->close();
        out = nullptr;
        fileSystem->renameFile(temporary, uri);
    } catch (...) {
        out = nullptr;
        try {
            fileSystem->deleteFile(temporary, true);
        } catch (const std::exception& e) {
            zu::logError(e, "Error deleting the unfinished copy of a VMDK descriptor file. Ignoring.");
        }
        throw;
    }
    stream = openVMDKFileStream(fileSystem, uri, access);
    descriptorStart = 0;
    areaSize = newSize;
}

unsigned CVMDKDescriptorAccessor::changeContentID()
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the accessor was "
                         "not opened for writing.");
    unsigned old = descriptor->getContentID();
    unsigned value;
    {
        zu::CMutexLock lock(zu::getGlobalMutex());
        do {
            value = zu::CMTRand::getGlobal().rand32();
        } while (value == 0 || value == 0xFFFFFFFFu || value == old);
    }
    descriptor->setContentID(value);
    return value;
}

} // namespace kord
