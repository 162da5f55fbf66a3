#include "ToolSupport.h"

#include "ImageFormat.h"
#include "Passwords.h"

#include "base/Log.h"
#include "descriptor/CVMDKDescriptorAccessor.h"
#include "format/CVMDKLowLevelFileStream.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <mutex>
#include <set>
#include <vector>

namespace kordtool {

namespace {

std::mutex logMutex;
std::vector<zu::String> heldErrors;
// A file opened twice (by the disk and by an inspection) warns twice.
std::set<zu::String> printedWarnings;

void logLine(zu::LogLevel level, const zu::String& line)
{
    std::lock_guard<std::mutex> lock(logMutex);
    if (level == zu::LogLevel::error)
        heldErrors.push_back(line);
    else if (printedWarnings.insert(line).second)
        std::cerr << "kord: warning: " << line.toUTF8() << std::endl;
}

// One line, whatever the message holds.
std::string oneLine(std::string text)
{
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

// The message and its properties, without the causes.
std::string errorLine(const zu::CError& error)
{
    zu::String text = error.getMessage();
    for (const auto& property : error.getProps()) text += " " + property.first + "=" + property.second;
    return oneLine(text.toUTF8());
}

} // namespace

zu::IFileSystem* localFileSystem()
{
    static zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    return fs;
}

zu::CURI pathToURI(const std::string& path) { return zu::CLocalFileSystem::pathToURI(zu::String(path)).toNormalized(); }

bool diskNeedsPassword(const zu::CURI& uri)
{
    try {
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(localFileSystem(), uri, zu::IIOStream::accessRead);
        kord::CVMDKDescriptorAccessor accessor(stream, zu::IIOStream::accessRead);
        return !accessor.getDescriptor()->getZuEncryptionAlgorithm().empty();
    } catch (const std::exception&) {
        return false;
    }
}

zu::P<kord::CVMDKDisk> openDisk(const std::string& path, int access, CPasswordSource& passwords,
                                const CImageFormat& format)
{
    format.requireVMDK(path);
    zu::CURI uri = pathToURI(path);
    zu::String password;
    if (diskNeedsPassword(uri)) password = passwords.get("Password for " + path + ": ");
    return kord::CVMDKDisk::openAny(localFileSystem(), uri, access, password);
}

void addOutputOptions(CLI::App* command, bool& json)
{
    command
        ->add_option_function<std::string>(
            "--output", [&json](const std::string& format) { json = format == "json"; },
            "Output format: human (default) or json")
        ->type_name("FMT")
        ->check(CLI::IsMember({"human", "json"}));
    command->add_flag("--json", json, "Print JSON (as --output=json)");
}

zu::CError toolError(const std::string& message, const zu::CProps& props)
{
    return zu::CError(zu::String(message), zu::String("kord"), -1, props);
}

CToolLog::CToolLog() { zu::setLogSink(logLine); }

CToolLog::~CToolLog() { zu::setLogSink(zu::LogSink()); }

void CToolLog::printHeldErrors()
{
    std::lock_guard<std::mutex> lock(logMutex);
    for (const zu::String& line : heldErrors) std::cerr << "kord: warning: " << line.toUTF8() << std::endl;
    heldErrors.clear();
}

void printError(const std::exception& error)
{
    const auto* zuError = dynamic_cast<const zu::CError*>(&error);
    if (!zuError) {
        std::cerr << "kord: " << oneLine(error.what()) << std::endl;
        return;
    }
    std::cerr << "kord: " << errorLine(*zuError) << "\n";
    for (const zu::CError* cause = zuError->getCause(); cause; cause = cause->getCause())
        std::cerr << "kord:   caused by: " << errorLine(*cause) << "\n";
    std::cerr.flush();
}

} // namespace kordtool
