#include "InfoCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "Sizes.h"
#include "ToolSupport.h"

#include "info/DiskInfo.h"

#include <iostream>
#include <memory>

namespace kordtool {

namespace {

using kordinfo::Json;

struct CInfoOptions {
    CImageFormat format;
    bool json = false;
    std::string disk;
    CPasswordSource passwords;
};

std::string text(const Json& value)
{
    if (value.is_null()) return "unknown";
    if (value.is_string()) return value.get<std::string>();
    return value.dump();
}

std::string sizeText(long long bytes) { return formatSize(bytes) + " (" + std::to_string(bytes) + " bytes)"; }

void printLine(const std::string& indent, const std::string& name, const std::string& value)
{
    std::string label = name + ":";
    // Values line up at column 22 whatever the nesting.
    label.resize(std::max<size_t>(label.size() + 1, 22 - std::min<size_t>(indent.size(), 20)), ' ');
    std::cout << indent << label << value << "\n";
}

void printDisk(const Json& info, const std::string& indent)
{
    printLine(indent, "disk", text(info["file"]));
    printLine(indent, "create type", text(info["createType"]));
    printLine(indent, "virtual size", sizeText(info["virtualSize"].get<long long>()));
    long long grain = info["grainSize"].get<long long>();
    printLine(indent, "grain size", std::to_string(grain) + " sectors (" + formatSize(grain * 512) + ")");
    printLine(indent, "compression", text(info["compression"]));
    printLine(indent, "encryption", text(info["encryption"]));
    printLine(indent, "content ID", text(info["contentID"]));
    printLine(indent, "parent content ID", text(info["parentContentID"]));
    if (!info["parentFileNameHint"].is_null()) printLine(indent, "parent file", text(info["parentFileNameHint"]));
    printLine(indent, "adapter type", text(info["adapterType"]));
    const Json& geometry = info["geometry"];
    printLine(indent, "geometry (C/H/S)",
              geometry.is_null() ? "unknown"
                                 : text(geometry["cylinders"]) + "/" + text(geometry["heads"]) + "/" + text(geometry["sectors"]));
    if (info["extentFilesOnDemand"].get<bool>()) printLine(indent, "extent files", "made on demand");
    printLine(indent, "dirty", info["dirty"].get<bool>() ? "yes (not closed cleanly)" : "no");
    std::cout << indent << "extents:\n";
    for (const Json& extent : info["extents"]) {
        std::string file = extent["file"].is_null()               ? "no file"
                           : !extent["fileSize"].is_null()        ? "file " + sizeText(extent["fileSize"].get<long long>())
                           : text(extent["access"]) == "NOACCESS" ? "not there"
                                                                  : "not made yet";
        std::string kind = text(extent["access"]) + " " + text(extent["type"]);
        if (extent.contains("offset")) kind += " at sector " + text(extent["offset"]);
        std::cout << indent << "  " << (extent["file"].is_null() ? "(zeros)" : text(extent["file"])) << ": " << kind
                  << ", " << text(extent["sectors"]) << " sectors, " << text(extent["writtenGrains"])
                  << " written grains, " << file << "\n";
        if (extent.contains("nameInDescriptor"))
            std::cout << indent << "    note: the extent line names \"" << text(extent["nameInDescriptor"])
                      << "\"; the descriptor is embedded in this file, which is the extent\n";
    }
    const Json& space = info["space"];
    std::cout << indent << "space:\n";
    printLine(indent + "  ", "payload", sizeText(space["payloadSize"].get<long long>()));
    printLine(indent + "  ", "payload in files", sizeText(space["payloadSizeInFile"].get<long long>()));
    printLine(indent + "  ", "header", sizeText(space["headerSize"].get<long long>()));
    printLine(indent + "  ", "dead space", sizeText(space["deadSpace"].get<long long>()));
    if (!info.contains("parent")) return;
    const Json& parent = info["parent"];
    if (parent.contains("missing")) {
        printLine(indent, "parent", text(parent["file"]) + " (missing)");
        return;
    }
    std::cout << indent << "parent:\n";
    printDisk(parent, indent + "  ");
}

void runInfo(CInfoOptions& options)
{
    zu::P<kord::CVMDKDisk> disk = openDisk(options.disk, zu::IIOStream::accessRead, options.passwords, options.format);
    Json info = kordinfo::diskInfoJson(disk);
    if (options.json)
        std::cout << info.dump(2) << "\n";
    else
        printDisk(info, "");
}

} // namespace

void addInfoCommand(CLI::App& app)
{
    auto options = std::make_shared<CInfoOptions>();
    CLI::App* command = app.add_subcommand("info", "Show what a disk and its parent chain are made of");
    addOutputOptions(command, options->json);
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options] { runInfo(*options); });
}

} // namespace kordtool
