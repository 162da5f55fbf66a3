#include "PasswdCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "ToolSupport.h"

#include "disk/CVMDKPasswordChange.h"

#include <iostream>
#include <memory>

namespace kordtool {

namespace {

struct CPasswdOptions {
    CImageFormat format;
    std::string disk;
    CPasswordSource passwords;
};

// What keeps the change from starting (a missing or damaged file, a lock
// held elsewhere, a disk without encryption) is reported before any
// password is asked for.
void checkChangeable(const zu::CURI& uri)
{
    try {
        zu::newObj<kord::CVMDKDisk>(localFileSystem(), uri, zu::IIOStream::accessRead, zu::String(), -1, nullptr, nullptr);
    } catch (const zu::CError& e) {
        if (e.getMessage() == zu::String(kord::CVMDKDisk::noPasswordMessage)) return;
        throw;
    }
    throw toolError("VMDK disk is not encrypted, so it has no password to change.");
}

void runPasswd(CPasswdOptions& options)
{
    options.format.requireVMDK(options.disk);
    zu::CURI uri = pathToURI(options.disk);
    checkChangeable(uri);
    zu::String oldPassword = options.passwords.get("Password for " + options.disk + ": ");
    zu::String newPassword = options.passwords.getNew("New password for " + options.disk + ": ");
    // A rerun after an interruption finishes the change.
    for (const zu::CURI& changed : kord::CVMDKPasswordChange(localFileSystem(), uri, oldPassword, newPassword).run())
        std::cout << "password changed: " << uriToDisplay(changed) << "\n";
}

} // namespace

void addPasswdCommand(CLI::App& app)
{
    auto options = std::make_shared<CPasswdOptions>();
    CLI::App* command = app.add_subcommand(
        "passwd", "Give an encrypted disk (and its encrypted parents) a new password without rewriting its data");
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    options->passwords.addNewPasswordOption(command);
    command->callback([options] { runPasswd(*options); });
}

} // namespace kordtool
