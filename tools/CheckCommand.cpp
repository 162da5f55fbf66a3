#include "CheckCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "Progress.h"
#include "ToolSupport.h"

#include "disk/CVMDKChecker.h"

#include <iostream>
#include <memory>

namespace kordtool {

namespace {

struct CCheckOptions {
    CImageFormat format;
    bool progress = false;
    std::string disk;
    CPasswordSource passwords;
};

// "<file>: <kind>: <message> name=value ...", the file's URI not repeated.
void printFinding(const kord::CVMDKChecker::CFinding& finding)
{
    std::cout << uriToDisplay(finding.uri) << ": " << kord::CVMDKChecker::getKindName(finding.kind) << ": "
              << finding.message.toUTF8();
    for (const auto& property : finding.props)
        if (property.first != zu::String("uri"))
            std::cout << " " << property.first.toUTF8() << "=" << property.second.toUTF8();
    std::cout << "\n";
}

int runCheck(CCheckOptions& options)
{
    options.format.requireVMDK(options.disk);
    zu::CURI uri = pathToURI(options.disk);
    zu::String password;
    if (diskNeedsPassword(uri)) password = options.passwords.get("Password for " + options.disk + ": ");
    kord::CVMDKChecker checker(localFileSystem(), uri, password);
    CProgress progress(options.progress, "check");
    checker.setProgressFunction([&progress](long long done, long long total) { progress.update(done, total); });
    std::vector<kord::CVMDKChecker::CFinding> findings = checker.check();
    progress.finish();
    for (const auto& finding : findings) printFinding(finding);
    if (findings.empty()) {
        std::cout << options.disk << ": no problems found\n";
        return exitSuccess;
    }
    std::cout << options.disk << ": " << findings.size() << (findings.size() == 1 ? " problem" : " problems")
              << " found\n";
    return exitProblemsFound;
}

} // namespace

void addCheckCommand(CLI::App& app, int& exitCode)
{
    auto options = std::make_shared<CCheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check a disk's metadata and its parents'; exit status 0 clean, 1 problems found, 2 could not check");
    command->add_flag("-p,--progress", options->progress, "Show progress on standard error");
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options, &exitCode] { exitCode = runCheck(*options); });
}

} // namespace kordtool
