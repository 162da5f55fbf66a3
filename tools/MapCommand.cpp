#include "MapCommand.h"

#include "ChainMap.h"
#include "ImageFormat.h"
#include "Passwords.h"
#include "Progress.h"
#include "ToolSupport.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

namespace kordtool {

namespace {

using Json = nlohmann::ordered_json;
using CMapEntry = CChainMap::CEntry;

struct CMapOptions {
    CImageFormat format;
    bool json = false;
    bool progress = false;
    std::string disk;
    CPasswordSource passwords;
};

std::vector<CMapEntry> mapChain(kord::CVMDKDisk* top, const CChainMap& chain, CProgress& progress)
{
    std::vector<CMapEntry> entries;
    long long size = top->getDiskSizeBytes();
    for (long long position = 0; position < size;) {
        CMapEntry entry = chain.entryAt(position);
        position += entry.length;
        if (!entries.empty() && entry.continues(entries.back()))
            entries.back().length += entry.length;
        else
            entries.push_back(entry);
        progress.update(position, size);
    }
    return entries;
}

Json entryJson(const CMapEntry& entry)
{
    Json json{{"start", entry.start}, {"length", entry.length}, {"depth", entry.depth},
              {"present", entry.present}, {"zero", entry.zero},     {"data", entry.data}};
    if (entry.offset >= 0) json["offset"] = entry.offset;
    if (entry.missing) json["missing"] = true;
    return json;
}

// One entry a line, as other image tools print their maps.
void printJson(const std::vector<CMapEntry>& entries)
{
    std::cout << "[";
    for (size_t i = 0; i < entries.size(); ++i) std::cout << (i ? ",\n" : "") << entryJson(entries[i]).dump();
    std::cout << "]\n";
}

// The ranges some disk of the chain holds, with where they lie.
void printText(const std::vector<CMapEntry>& entries, const CChainMap& chain)
{
    std::printf("%-16s%-16s%-16s%s\n", "Offset", "Length", "Mapped to", "File");
    for (const CMapEntry& entry : entries) {
        if (!entry.present) continue;
        char mapped[32];
        if (entry.offset >= 0)
            std::snprintf(mapped, sizeof mapped, "%#llx", entry.offset);
        else
            std::snprintf(mapped, sizeof mapped, "%s", entry.data ? "-" : "zeros");
        std::printf("%#-16llx%#-16llx%-16s%s\n", entry.start, entry.length, mapped, uriToDisplay(entry.file).c_str());
    }
    if (!chain.getMissingParent().isEmpty())
        std::printf("parent missing: %s\n", uriToDisplay(chain.getMissingParent()).c_str());
    std::fflush(stdout);
}

void runMap(CMapOptions& options)
{
    zu::P<kord::CVMDKDisk> top = openDisk(options.disk, zu::IIOStream::accessRead, options.passwords, options.format);
    CChainMap chain(top);
    CProgress progress(options.progress, "map");
    std::vector<CMapEntry> entries = mapChain(top, chain, progress);
    progress.finish();
    if (options.json)
        printJson(entries);
    else
        printText(entries, chain);
}

} // namespace

void addMapCommand(CLI::App& app)
{
    auto options = std::make_shared<CMapOptions>();
    CLI::App* command = app.add_subcommand(
        "map", "Show which ranges of a disk hold data, read as zeros or come from its parents, and where they lie");
    command->add_flag("-p,--progress", options->progress, "Show progress on standard error");
    addOutputOptions(command, options->json);
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options] { runMap(*options); });
}

} // namespace kordtool
