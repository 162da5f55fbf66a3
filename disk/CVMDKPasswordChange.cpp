#include "disk/CVMDKPasswordChange.h"

#include "disk/CVMDKDisk.h"

namespace kord {

namespace {

bool isWrongPassword(const zu::CError& error) { return error.getMessage() == zu::String(CVMDKDisk::wrongPasswordMessage); }

} // namespace

CVMDKPasswordChange::CVMDKPasswordChange(zu::IFileSystem* fileSystem, const zu::CURI& uri,
                                         const zu::String& oldPassword, const zu::String& newPassword)
    : fileSystem(fileSystem), uri(uri), oldPassword(oldPassword), newPassword(newPassword)
{
}

std::vector<zu::CURI> CVMDKPasswordChange::run()
{
    std::vector<zu::CURI> chain;
    try {
        chain = findChain(oldPassword);
    } catch (const zu::CError& e) {
        // Interrupted after some disks dropped the old password.
        if (!isWrongPassword(e)) throw;
        chain = findChain(newPassword);
    }
    for (const zu::CURI& disk : chain) openWithEitherPassword(disk)->stagePasswordChange(newPassword);
    for (const zu::CURI& disk : chain) openWithEitherPassword(disk)->commitPasswordChange(newPassword);
    return chain;
}

std::vector<zu::CURI> CVMDKPasswordChange::findChain(const zu::String& password)
{
    zu::P<CVMDKDisk> top = open(uri, zu::IIOStream::accessRead, password);
    std::vector<zu::CURI> chain{top->getMainURI()};
    for (CVMDKDisk* disk = top->getParentDisk(); disk; disk = disk->getParentDisk())
        if (disk->isEncrypted()) chain.push_back(disk->getMainURI());
    return chain;
}

zu::P<CVMDKDisk> CVMDKPasswordChange::open(const zu::CURI& disk, int access, const zu::String& password)
{
    return zu::newObj<CVMDKDisk>(fileSystem, disk, access, password, -1, nullptr, nullptr);
}

// Each disk on its own (its parent is not opened): one that already dropped
// the old password opens with the new one.
zu::P<CVMDKDisk> CVMDKPasswordChange::openWithEitherPassword(const zu::CURI& disk)
{
    try {
        return open(disk, zu::IIOStream::accessReadWrite, oldPassword);
    } catch (const zu::CError& e) {
        if (!isWrongPassword(e)) throw;
        return open(disk, zu::IIOStream::accessReadWrite, newPassword);
    }
}

} // namespace kord
