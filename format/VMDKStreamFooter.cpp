#include "format/VMDKStreamFooter.h"

#include "base/CDataInStream.h"
#include "base/CIOError.h"
#include "format/VMDKMarker.h"

namespace kord {

namespace {

constexpr int footerSectors = 3;

} // namespace

void loadVMDKStreamFooter(zu::IIOStream* stream, CVMDKSparseExtentHeader& footer)
{
    long long fileSize = stream->getLength();
    // The header sector, then at least the footer group.
    bool found = fileSize % vmdkSectorSize == 0 && fileSize >= (1 + footerSectors) * vmdkSectorSize;
    unsigned char sectors[footerSectors * vmdkSectorSize];
    if (found) {
        stream->seek(fileSize - footerSectors * vmdkSectorSize);
        stream->read(sectors, sizeof sectors);
        found = isVMDKMarker(sectors, vmdkMarkerFooter, nullptr) &&
                isVMDKMarker(sectors + 2 * vmdkSectorSize, vmdkMarkerEndOfStream, nullptr);
    }
    if (!found)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK stream-optimized file does not end with its footer: the file is truncated or was "
                           "never finished.",
                           zu::CProps().set("uri", stream->getURI().toString(true)).set("fileSize", fileSize));
    stream->seek(fileSize - 2 * vmdkSectorSize);
    zu::CDataInStream in(stream);
    footer.load(in);
}

} // namespace kord
