#include "ImageFormat.h"

#include "ToolSupport.h"

#include "base/Endian.h"
#include "descriptor/CVMDKDescriptor.h"
#include "format/CVMDKSparseExtentHeader.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace kordtool {

namespace {

bool hasSparseMagic(const zu::TBuffer<unsigned char>& start)
{
    if (start.getUsed() < 4) return false;
    std::uint32_t magic = zu::loadLE32(start.getData());
    return magic == kord::CVMDKSparseExtentHeader::magicStandard ||
           magic == kord::CVMDKSparseExtentHeader::magicExtended;
}

// Text (no control characters but tab and line ends) up to its first zero
// byte, only zeros behind it, and a descriptor with a create type and at
// least one extent line.
bool isDescriptorText(const zu::TBuffer<unsigned char>& content)
{
    const unsigned char* bytes = content.getData();
    long long size = content.getUsed();
    long long text = std::find(bytes, bytes + size, 0) - bytes;
    if (text == 0 || std::any_of(bytes + text, bytes + size, [](unsigned char c) { return c != 0; })) return false;
    if (std::any_of(bytes, bytes + text, [](unsigned char c) {
            return (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7F;
        }))
        return false;
    kord::CVMDKDescriptor descriptor(content);
    zu::String createType;
    zu::TArray<zu::P<kord::CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    return descriptor.tryGetValue("createType", createType) && !createType.empty() && !extents.empty();
}

} // namespace

void CImageFormat::addOption(CLI::App* command, const std::vector<std::string>& formats, const std::string& names)
{
    std::string offered;
    for (const std::string& format : formats) offered += (offered.empty() ? "" : " or ") + format;
    command
        ->add_option(names, given,
                     "Format of the file: " + offered + " (default: VMDK when the file is one by its header or "
                                                      "descriptor, else raw)")
        ->type_name("FMT")
        ->check(CLI::IsMember(formats));
}

bool CImageFormat::isVMDK(const std::string& path) const
{
    if (!given.empty()) return given == "vmdk";
    zu::P<zu::IIOStream> stream = localFileSystem()->openStream(pathToURI(path), zu::IIOStream::accessRead, zu::CProps());
    long long size = stream->getLength();
    zu::TBuffer<unsigned char> content(std::min(size, maxDetectedDescriptorBytes));
    int got = stream->readLax(content.getData(), static_cast<int>(content.getUsed()));
    content.setUsed(got);
    if (hasSparseMagic(content)) return true;
    return size <= maxDetectedDescriptorBytes && got == size && isDescriptorText(content);
}

void CImageFormat::requireVMDK(const std::string& path) const
{
    if (!isVMDK(path))
        throw toolError("The file is not a VMDK disk: it has neither a sparse extent header nor a descriptor "
                        "(-f vmdk takes it as one).",
                        zu::CProps().set("path", zu::String(path)));
}

} // namespace kordtool
