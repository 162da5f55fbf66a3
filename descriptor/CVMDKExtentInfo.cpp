#include "descriptor/CVMDKExtentInfo.h"

#include "base/Parse.h"

namespace kord {

namespace {

// Splits off the text before the first U+0020 (tabs do not separate); the
// rest loses its leading white space. False when there is no space.
bool splitAtSpace(const zu::String& text, zu::String& word, zu::String& rest)
{
    size_t space = text.find(L' ');
    if (space == zu::String::npos) return false;
    word = text.substr(0, space);
    rest = text.substr(space + 1);
    rest.Trim(false);
    return true;
}

} // namespace

CVMDKExtentInfo::CVMDKExtentInfo(const zu::String& access, long long sizeSectors, const zu::String& type,
                                 const zu::String& fileName, long long offset)
    : access(access), sizeSectors(sizeSectors), type(type), fileName(fileName), offset(offset)
{
}

zu::P<CVMDKExtentInfo> CVMDKExtentInfo::tryParseDescriptorLine(const zu::String& line)
{
    zu::String access, sizeText, type, rest;
    if (!splitAtSpace(line, access, rest)) return nullptr;
    if (!splitAtSpace(zu::String(rest), sizeText, rest)) return nullptr;
    if (!splitAtSpace(zu::String(rest), type, rest)) {
        // Only a ZERO extent may end after its type.
        rest.Trim(true);
        return rest == zu::String("ZERO") ? zeroLineWithoutFileName(access, sizeText) : nullptr;
    }
    if (rest.empty() && type == zu::String("ZERO")) return zeroLineWithoutFileName(access, sizeText);
    if (rest.empty() || rest[0] != L'"') return nullptr;
    size_t closing = rest.find(L'"', 1);
    if (closing == zu::String::npos) return nullptr;
    zu::String fileName = rest.substr(1, closing - 1);
    zu::String offsetText = rest.substr(closing + 1);
    offsetText.Trim(true);
    offsetText.Trim(false);
    try {
        long long size = zu::parseInt64(sizeText, false);
        long long offset = offsetText.empty() ? -1 : zu::parseInt64(offsetText, false);
        return zu::newObj<CVMDKExtentInfo>(access, size, type, fileName, offset);
    } catch (const std::exception&) {
        return nullptr;
    }
}

zu::P<CVMDKExtentInfo> CVMDKExtentInfo::zeroLineWithoutFileName(const zu::String& access, const zu::String& sizeText)
{
    try {
        zu::P<CVMDKExtentInfo> info =
            zu::newObj<CVMDKExtentInfo>(access, zu::parseInt64(sizeText, false), "ZERO", zu::String(), -1);
        info->hasFileName = false;
        return info;
    } catch (const std::exception&) {
        return nullptr;
    }
}

zu::String CVMDKExtentInfo::toString() const
{
    if (!hasFileName) return access + " " + zu::toString(sizeSectors) + " " + type;
    zu::String line = access + " " + zu::toString(sizeSectors) + " " + type + " \"" + fileName + "\"";
    if (offset != -1) line += " " + zu::toString(offset);
    return line;
}

zu::P<CVMDKDescriptorEntry> CVMDKExtentInfo::cloneDescriptorEntry() const
{
    zu::P<CVMDKExtentInfo> copy = zu::newObj<CVMDKExtentInfo>(access, sizeSectors, type, fileName, offset);
    copy->hasFileName = hasFileName;
    return copy;
}

} // namespace kord
