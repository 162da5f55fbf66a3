#include "GrainCopy.h"

#include <algorithm>

namespace kordtool {

void copyPlain(IConvertSource& source, IConvertTarget& target, long long chunkBytes, long long start,
               CProgress& progress)
{
    long long size = source.getSizeBytes();
    zu::TBuffer<unsigned char> buffer(chunkBytes);
    for (long long position = start; position < size; position += chunkBytes) {
        long long bytes = std::min(chunkBytes, size - position);
        if (source.read(position, buffer.getData(), bytes) && !isAllZero(buffer.getData(), bytes))
            target.write(position, buffer.getData(), bytes);
        progress.update(position + bytes, size);
    }
}

void copyPrepared(CDiskSource& source, CDiskTarget& target, CProgress& progress)
{
    kord::CVMDKDisk* from = source.getDisk();
    kord::CVMDKDisk* to = target.getDisk();
    long long grain = from->getGrainSizeBytes();
    long long size = from->getDiskSizeBytes();
    long long wholeGrains = size / grain;
    zu::TBuffer<unsigned char> prepared;
    for (long long index = 0; index < wholeGrains; ++index) {
        long long position = index * grain;
        from->seek(position);
        if (from->isGrainWritten()) {
            from->readPreparedGrainData(prepared);
            // Uncompressed prepared data is the plain grain: zeros can be seen.
            if (to->getCompressed() || !isAllZero(prepared.getData(), prepared.getUsed())) {
                to->seek(position);
                to->writePreparedGrainData(prepared);
            }
        }
        progress.update(position + grain, size);
    }
    copyPlain(source, target, grain, wholeGrains * grain, progress);
}

} // namespace kordtool
