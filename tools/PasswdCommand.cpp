#include "PasswdCommand.h"

#include "Passwords.h"
#include "ToolSupport.h"

#include <iostream>
#include <memory>
#include <vector>

namespace kordtool {

namespace {

struct CPasswdOptions {
    std::string disk;
    CPasswordSource passwords;
};

// The disk and the encrypted disks of its parent chain: a chain opens with
// one password, so a delta disk's new password must be its parents' too.
std::vector<zu::CURI> encryptedChain(CPasswdOptions& options)
{
    std::vector<zu::CURI> chain;
    zu::P<kord::CVMDKDisk> top = openDisk(options.disk, zu::IIOStream::accessRead, options.passwords);
    // A disk without encryption is passed on: the library refuses it.
    chain.push_back(top->getMainURI());
    for (kord::CVMDKDisk* disk = top->getParentDisk(); disk; disk = disk->getParentDisk())
        if (disk->isEncrypted()) chain.push_back(disk->getMainURI());
    return chain;
}

void runPasswd(CPasswdOptions& options)
{
    std::vector<zu::CURI> chain = encryptedChain(options);
    zu::String oldPassword = diskNeedsPassword(chain.front()) ? options.passwords.get("") : zu::String();
    zu::String newPassword = options.passwords.getNew("New password for " + options.disk + ": ");
    for (const zu::CURI& uri : chain) {
        zu::P<kord::CVMDKDisk> disk = zu::newObj<kord::CVMDKDisk>(localFileSystem(), uri, zu::IIOStream::accessReadWrite,
                                                                  oldPassword, -1, nullptr, nullptr);
        disk->changePassword(newPassword);
        disk->flushChanges();
        std::cout << "password changed: " << uriToDisplay(uri) << "\n";
    }
}

} // namespace

void addPasswdCommand(CLI::App& app)
{
    auto options = std::make_shared<CPasswdOptions>();
    CLI::App* command = app.add_subcommand(
        "passwd", "Give an encrypted disk (and its encrypted parents) a new password without rewriting its data");
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->passwords.addOptions(command);
    options->passwords.addNewPasswordOption(command);
    command->callback([options] { runPasswd(*options); });
}

} // namespace kordtool
