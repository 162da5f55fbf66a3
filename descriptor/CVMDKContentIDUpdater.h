// Renews a disk's content ID before the first change of its data, so that
// delta disks made from it can tell that it changed (their parentCID no
// longer matches). Once per opened disk, lazily: a disk opened for writing
// but never written keeps its content ID.
//
// Made by the disk, shared with its extent files (which report their first
// change), and holding the disk's in-memory descriptor.
#pragma once

#include "base/IFileSystem.h"
#include "descriptor/CVMDKDescriptor.h"

namespace kord {

class CVMDKContentIDUpdater : public zu::CBase {
public:
    CVMDKContentIDUpdater(zu::IFileSystem* fileSystem, const zu::CURI& descriptorFileURI, CVMDKDescriptor* descriptor);

    void setContentIDUpdatesEnabled(bool enabled) { this->enabled = enabled; }
    bool isDone() const { return done; }
    // Whether the next change would renew the content ID.
    bool isRenewalPending() const { return !done && enabled; }

    // Called by an extent file before it changes its content. When the
    // descriptor is embedded in that very file (same normalised URI), its
    // open stream is used and the extent makes it durable with its own
    // changes; otherwise the descriptor file is opened, and with `sync` the
    // new content ID is durable when this returns. Errors pass on and leave
    // the renewal to be tried again at the next change.
    void onDiskAboutToChange(const zu::CURI& extentURI, zu::IIOStream* extentStream, bool sync);

private:
    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI descriptorFileURI;
    zu::P<CVMDKDescriptor> descriptor;
    bool done = false;
    bool enabled = true;
};

} // namespace kord
