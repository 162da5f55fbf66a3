#include "descriptor/CVMDKDescriptorAccessor.h"

#include "base/CBufferStream.h"
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
    storedText = readText();
    checkLineCount(storedText);
    descriptor = zu::newObj<CVMDKDescriptor>(storedText);
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

void CVMDKDescriptorAccessor::storeDescriptor(bool durable)
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was "
                         "not opened for writing.");
    if (canGrow()) {
        std::string text = descriptor->toStoredText();
        if (static_cast<long long>(text.size()) > areaSize) {
            replaceTextFile(static_cast<long long>(text.size()));
            storedText.assign(reinterpret_cast<const unsigned char*>(text.data()), static_cast<long long>(text.size()));
            return;
        }
    }
    zu::P<zu::TBuffer<unsigned char>> area = zu::newObj<zu::TBuffer<unsigned char>>();
    area->ensureAllocated(areaSize);
    zu::TBuffer<unsigned char> pad;
    pad.setUsedFill(areaSize, 0);
    zu::P<zu::CBufferStream> out = zu::newObj<zu::CBufferStream>(area, 2.0, stream->getURI());
    descriptor->store(*out, static_cast<int>(areaSize), pad);
    // Each text is followed by a zero byte (unless it fills the area); what
    // lies behind that is never read.
    const unsigned char* now = area->getData();
    const void* nul = std::memchr(now, 0, static_cast<size_t>(areaSize));
    long long length = nul ? static_cast<const unsigned char*>(nul) - now : areaSize;
    long long oldLength = storedText.getUsed();
    auto before = [&](long long i) { return i < oldLength ? storedText[i] : 0; };
    long long end = std::min(areaSize, std::max(length, oldLength) + 1);
    long long first = 0;
    while (first < end && now[first] == before(first)) ++first;
    while (end > first && now[end - 1] == before(end - 1)) --end;
    CPositionKeeper keeper(stream);
    if (end > first) {
        stream->seek(descriptorStart + first);
        stream->write(now + first, static_cast<int>(end - first));
    }
    stream->flush();
    if (durable) zu::syncStream(*stream);
    storedText.assign(now, length);
}

void CVMDKDescriptorAccessor::checkRoomForNewContentID() const
{
    if (canGrow()) return;
    // A renewed content ID is as long as the old one (changeContentID), so
    // the text grows only by what every store adds.
    CVMDKDescriptor renewed;
    renewed = *descriptor;
    CVMDKDescriptor::checkRoom(static_cast<long long>(renewed.toStoredText().size()), areaSize, stream->getURI());
}

void CVMDKDescriptorAccessor::replaceTextFile(long long textBytes)
{
    if (textBytes > maxDescriptorTextBytes) throw tooBig(stream, zu::toString(textBytes));
    zu::CURI uri = stream->getURI();
    // Whole sectors, the rest zeros, as the files we make.
    long long newSize = (textBytes + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize;
    writeVMDKFileAtomically(fileSystem, uri, true, [&](zu::IIOStream& out) {
        zu::TBuffer<unsigned char> pad;
        pad.setUsedFill(newSize - textBytes, 0);
        descriptor->store(out, static_cast<int>(newSize), pad);
    });
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
    // As many digits as the old one has characters: the text keeps its
    // length and only the digits are rewritten.
    int digits = static_cast<int>(std::min<size_t>(8, std::max<size_t>(1, descriptor->getValue("CID").length())));
    unsigned low = digits == 1 ? 0 : 1u << (4 * (digits - 1));
    unsigned span = digits == 8 ? 0xF0000000u : (1u << (4 * digits)) - low;
    unsigned value;
    {
        zu::CMutexLock lock(zu::getGlobalMutex());
        do {
            value = low + zu::CMTRand::getGlobal().rand32() % span;
        } while (value == 0 || value == 0xFFFFFFFFu || value == old);
    }
    descriptor->setContentID(value);
    return value;
}

} // namespace kord
