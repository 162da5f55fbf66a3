#include "MapCommand.h"

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

struct CMapOptions {
    CImageFormat format;
    bool json = false;
    bool progress = false;
    std::string disk;
    CPasswordSource passwords;
};

// One run of the map. depth: the disk of the chain that supplies the bytes
// (0 the disk itself); for bytes no disk holds, the deepest disk, or the
// missing parent's depth.
struct CMapEntry {
    long long start = 0;
    long long length = 0;
    int depth = 0;
    bool present = false;
    bool zero = true;
    bool data = false;
    // The parent that would supply the bytes is missing: what they read as
    // is unknown.
    bool missing = false;
    zu::CURI file;
    long long offset = -1;

    bool continues(const CMapEntry& previous) const
    {
        return depth == previous.depth && present == previous.present && zero == previous.zero &&
               data == previous.data && missing == previous.missing && file == previous.file &&
               (offset < 0 ? previous.offset < 0 : previous.offset >= 0 && previous.offset + previous.length == offset);
    }
};

// The disks of the chain, top first, as far as their files are there.
struct CChain {
    zu::P<kord::CVMDKDisk> top;
    std::vector<kord::CVMDKDisk*> disks;
    zu::CURI missingParent;
};

CChain openChain(CMapOptions& options)
{
    CChain chain;
    chain.top = openDisk(options.disk, zu::IIOStream::accessRead, options.passwords, options.format);
    for (kord::CVMDKDisk* disk = chain.top; disk; disk = kordinfo::openParentIfPresent(disk)) {
        chain.disks.push_back(disk);
        if (kordinfo::isParentMissing(disk)) chain.missingParent = disk->getParentURI();
    }
    return chain;
}

// The entry at `position`: the first disk of the chain that holds the bytes
// decides, over the run every disk asked agrees on.
CMapEntry entryAt(const CChain& chain, long long position)
{
    CMapEntry entry;
    entry.start = position;
    entry.length = chain.top->getDiskSizeBytes() - position;
    for (size_t depth = 0; depth < chain.disks.size(); ++depth) {
        kord::CVMDKDisk* disk = chain.disks[depth];
        entry.depth = static_cast<int>(depth);
        // Past the end of a smaller parent: zeros.
        if (position >= disk->getDiskSizeBytes()) return entry;
        disk->seek(position);
        kord::CVMDKDataPlace place = disk->locate();
        entry.length = std::min(entry.length, place.bytes);
        if (place.kind == kord::CVMDKDataPlace::kindUnwritten) continue;
        entry.present = true;
        entry.data = place.kind == kord::CVMDKDataPlace::kindData;
        entry.zero = !entry.data;
        entry.file = place.file.isEmpty() ? disk->getMainURI() : place.file;
        entry.offset = place.offsetBytes;
        return entry;
    }
    if (!chain.missingParent.isEmpty()) {
        entry.depth = static_cast<int>(chain.disks.size());
        entry.zero = false;
        entry.missing = true;
    }
    return entry;
}

std::vector<CMapEntry> mapChain(const CChain& chain, CProgress& progress)
{
    std::vector<CMapEntry> entries;
    long long size = chain.top->getDiskSizeBytes();
    for (long long position = 0; position < size;) {
        CMapEntry entry = entryAt(chain, position);
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
void printText(const std::vector<CMapEntry>& entries, const CChain& chain)
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
    if (!chain.missingParent.isEmpty()) std::printf("parent missing: %s\n", uriToDisplay(chain.missingParent).c_str());
    std::fflush(stdout);
}

void runMap(CMapOptions& options)
{
    CChain chain = openChain(options);
    CProgress progress(options.progress, "map");
    std::vector<CMapEntry> entries = mapChain(chain, progress);
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
