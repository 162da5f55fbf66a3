#include "descriptor/CVMDKContentIDUpdater.h"

#include "descriptor/CVMDKDescriptorAccessor.h"
#include "format/CVMDKLowLevelFileStream.h"

namespace kord {

CVMDKContentIDUpdater::CVMDKContentIDUpdater(zu::IFileSystem* fileSystem, const zu::CURI& descriptorFileURI,
                                             CVMDKDescriptor* descriptor)
    : fileSystem(fileSystem), descriptorFileURI(descriptorFileURI.toNormalized()), descriptor(descriptor)
{
}

void CVMDKContentIDUpdater::onDiskAboutToChange(const zu::CURI& extentURI, zu::IIOStream* extentStream, bool sync)
{
    if (done || !enabled) return;
    zu::P<zu::IIOStream> stream;
    bool embedded = extentURI.toNormalized() == descriptorFileURI;
    if (embedded)
        stream = extentStream;
    else
        stream = openVMDKFileStream(fileSystem, descriptorFileURI, zu::IIOStream::accessReadWrite);
    // The descriptor is read as it is on disk now, and only its content ID changes.
    CVMDKDescriptorAccessor accessor(stream, zu::IIOStream::accessReadWrite, fileSystem);
    unsigned newContentID = accessor.changeContentID();
    accessor.storeDescriptor(sync && !embedded);
    descriptor->setContentID(newContentID);
    done = true;
}

} // namespace kord
