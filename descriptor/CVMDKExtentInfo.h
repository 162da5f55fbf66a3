// An extent description line of a descriptor, such as
//   RW 4192256 SPARSE "disk-s001.vmdk"
//   RW 2048 FLAT "disk-flat.vmdk" 0
//   RW 1024 ZERO
// (a ZERO extent has no file, and its line may name none).
// The grammar is loose on purpose: the access and type words are kept as
// written and judged by whoever uses the extent.
#pragma once

#include "descriptor/CVMDKDescriptorEntry.h"

namespace kord {

class CVMDKExtentInfo : public CVMDKDescriptorEntry {
public:
    CVMDKExtentInfo(const zu::String& access, long long sizeSectors, const zu::String& type,
                    const zu::String& fileName, long long offset);

    // The entry, or null when the line is not an extent line. Never throws.
    static zu::P<CVMDKExtentInfo> tryParseDescriptorLine(const zu::String& line);

    // Single spaces between the items, whatever spacing the parsed line had.
    zu::String toString() const override;
    zu::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    zu::String access;
    long long sizeSectors;
    zu::String type;
    // Relative to the descriptor's file, as written (without the quotes).
    zu::String fileName;
    // The optional fifth item; -1 when the line has none.
    long long offset;
    // False for a ZERO line written without file name, which is written
    // back so.
    bool hasFileName = true;

private:
    static zu::P<CVMDKExtentInfo> zeroLineWithoutFileName(const zu::String& access, const zu::String& sizeText);
};

} // namespace kord
