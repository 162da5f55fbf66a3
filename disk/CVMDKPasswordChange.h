// Gives an encrypted disk, and the encrypted disks of its parent chain, a
// new password. A chain opens with one password (a delta disk opens its
// parents with its own), so the disks change in two rounds: first every
// disk takes the new password beside the old one, then every disk drops
// the old one. An interruption at any point leaves a chain that opens with
// the old or the new password, and the same change run again finishes the
// job: it finds the chain with whichever password opens it, and each step
// does nothing on a disk where it is done.
#pragma once

#include "base/IFileSystem.h"

#include <vector>

namespace kord {

class CVMDKDisk;

class CVMDKPasswordChange {
public:
    CVMDKPasswordChange(zu::IFileSystem* fileSystem, const zu::CURI& uri, const zu::String& oldPassword,
                        const zu::String& newPassword);

    // Changes the password and returns the main URIs of the disks changed,
    // the given disk first. A disk that is not encrypted is refused (by the
    // disk, before anything changes when it is the given one).
    std::vector<zu::CURI> run();

private:
    std::vector<zu::CURI> findChain(const zu::String& password);
    zu::P<CVMDKDisk> open(const zu::CURI& uri, int access, const zu::String& password);
    zu::P<CVMDKDisk> openWithEitherPassword(const zu::CURI& uri);

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI uri;
    zu::String oldPassword;
    zu::String newPassword;
};

} // namespace kord
