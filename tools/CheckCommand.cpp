#include "CheckCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "Progress.h"
#include "ToolSupport.h"

#include "disk/CVMDKChecker.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <memory>

namespace kordtool {

namespace {

using Json = nlohmann::ordered_json;
using kord::CVMDKChecker;

struct CCheckOptions {
    CImageFormat format;
    bool progress = false;
    bool json = false;
    std::string disk;
    CPasswordSource passwords;
};

// "<file>: <kind>: <message> name=value ...", the file's URI not repeated.
void printFinding(const CVMDKChecker::CFinding& finding)
{
    std::cout << uriToDisplay(finding.uri) << ": " << CVMDKChecker::getKindName(finding.kind) << ": "
              << finding.message.toUTF8();
    for (const auto& property : finding.props)
        if (property.first != zu::String("uri"))
            std::cout << " " << property.first.toUTF8() << "=" << property.second.toUTF8();
    std::cout << "\n";
}

Json findingJson(const CVMDKChecker::CFinding& finding)
{
    Json props = Json::object();
    for (const auto& property : finding.props)
        if (property.first != zu::String("uri")) props[property.first.toUTF8()] = property.second.toUTF8();
    return Json{{"file", uriToDisplay(finding.uri)},
                {"kind", CVMDKChecker::getKindName(finding.kind)},
                {"leak", CVMDKChecker::isLeak(finding.kind)},
                {"message", finding.message.toUTF8()},
                {"properties", props}};
}

std::string plural(size_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// The keys other image checkers print, then the findings themselves.
void printJson(const std::string& disk, const std::vector<CVMDKChecker::CFinding>& findings, size_t leaks)
{
    Json report{{"filename", disk},
                {"format", "vmdk"},
                {"check-errors", 0},
                {"corruptions", findings.size() - leaks},
                {"leaks", leaks},
                {"findings", Json::array()}};
    for (const auto& finding : findings) report["findings"].push_back(findingJson(finding));
    std::cout << report.dump(4) << "\n";
}

void printSummary(const std::string& disk, size_t corruptions, size_t leaks)
{
    std::cout << disk << ": ";
    if (corruptions == 0 && leaks == 0)
        std::cout << "no problems found\n";
    else if (corruptions == 0)
        std::cout << plural(leaks, "leak") << " found, no corruption\n";
    else
        std::cout << plural(corruptions, "corruption") << (leaks ? " and " + plural(leaks, "leak") : "") << " found\n";
}

int runCheck(CCheckOptions& options)
{
    options.format.requireVMDK(options.disk);
    zu::CURI uri = pathToURI(options.disk);
    zu::String password;
    if (diskNeedsPassword(uri)) password = options.passwords.get("Password for " + options.disk + ": ");
    CVMDKChecker checker(localFileSystem(), uri, password);
    CProgress progress(options.progress, "check");
    checker.setProgressFunction([&progress](long long done, long long total) { progress.update(done, total); });
    std::vector<CVMDKChecker::CFinding> findings = checker.check();
    progress.finish();
    size_t leaks = 0;
    for (const auto& finding : findings) leaks += CVMDKChecker::isLeak(finding.kind) ? 1 : 0;
    size_t corruptions = findings.size() - leaks;
    if (options.json) {
        printJson(options.disk, findings, leaks);
    } else {
        for (const auto& finding : findings) printFinding(finding);
        printSummary(options.disk, corruptions, leaks);
    }
    return corruptions > 0 ? exitCheckCorrupt : leaks > 0 ? exitCheckLeaksOnly : exitSuccess;
}

} // namespace

CLI::App* addCheckCommand(CLI::App& app, int& exitCode)
{
    auto options = std::make_shared<CCheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Check a disk's metadata and its parents'; exit status 0 clean, 2 damage found, 3 only leaked space "
                 "found, 1 could not check");
    command->add_flag("-p,--progress", options->progress, "Show progress on standard error");
    addOutputOptions(command, options->json);
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options, &exitCode] {
        try {
            exitCode = runCheck(*options);
        } catch (const std::exception& e) {
            printError(e);
            exitCode = exitCheckIncomplete;
        }
    });
    return command;
}

} // namespace kordtool
