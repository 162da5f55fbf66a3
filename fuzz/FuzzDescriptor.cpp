// Descriptor text: parse, query every typed key, write back.
#include "FuzzTarget.h"

#include "base/CBufferStream.h"
#include "base/CError.h"
#include "descriptor/CVMDKDescriptor.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > fuzzMaxInputBytes) return 0;
    zu::TBuffer<unsigned char> bytes(data, static_cast<long long>(size));
    kord::CVMDKDescriptor descriptor(bytes);
    zu::TArray<zu::P<kord::CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    auto attempt = [](auto&& f) {
        try {
            f();
        } catch (const zu::CError&) {
        }
    };
    attempt([&] { descriptor.getContentID(); });
    attempt([&] { descriptor.getParentContentID(); });
    attempt([&] { descriptor.getVersion(); });
    attempt([&] { descriptor.getGeometryCylinders(); });
    attempt([&] { descriptor.getZuCreateExtentFilesOnDemand(); });
    attempt([&] { descriptor.getZuEncryptionIV(); });
    attempt([&] { descriptor.getZuEncryptedEncryptionKey(); });
    // Store round trip: what we write must parse to the same text.
    std::string text = descriptor.toString().toUTF8();
    zu::P<zu::TBuffer<unsigned char>> out = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::P<zu::CBufferStream> stream = zu::newObj<zu::CBufferStream>(out);
    zu::TBuffer<unsigned char> pad;
    pad.setUsedFill(64, 0);
    attempt([&] { descriptor.store(*stream, static_cast<int>(text.size()) + 64, pad); });
    return 0;
}

std::vector<std::vector<std::uint8_t>> fuzzSeeds()
{
    std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=fffffffe\nparentCID=ffffffff\n"
                       "createType=\"twoGbMaxExtentSparse\"\nzuEncIV=00112233445566778899aabbccddeeff\n\n"
                       "# Extent description\nRW 4192256 SPARSE \"disk-s001.vmdk\"\nRW 2048 FLAT \"flat.vmdk\" 0\n\n"
                       "#DDB\nddb.geometry.cylinders = \"16383\"\nddb.adapterType = \"lsilogic\"\n";
    return {std::vector<std::uint8_t>(text.begin(), text.end())};
}
