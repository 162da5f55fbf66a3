#include "MapCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "ToolSupport.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <iostream>
#include <memory>

namespace kordtool {

namespace {

using Json = nlohmann::ordered_json;

struct CMapOptions {
    CImageFormat format;
    bool json = false;
    std::string disk;
    CPasswordSource passwords;
};

// The ranges of whole grains this disk holds itself (not through its
// parent), neighbours merged; the last grain is cut at the disk's end.
Json writtenRanges(kord::CVMDKDisk* disk)
{
    Json ranges = Json::array();
    long long size = disk->getDiskSizeBytes();
    long long grain = disk->getGrainSizeBytes();
    long long start = -1;
    for (long long position = 0; position < size; position += grain) {
        disk->seek(position);
        bool written = disk->isGrainWrittenAndIndependentOfParent();
        if (written && start < 0) start = position;
        if (!written && start >= 0) {
            ranges.push_back(Json{{"offset", start}, {"length", position - start}});
            start = -1;
        }
    }
    if (start >= 0) ranges.push_back(Json{{"offset", start}, {"length", size - start}});
    return ranges;
}

void printLayer(const Json& layer)
{
    std::cout << "layer " << layer["layer"].get<int>() << ": " << layer["file"].get<std::string>() << "\n";
    if (layer["ranges"].empty()) std::cout << "  (nothing written)\n";
    for (const Json& range : layer["ranges"]) {
        char line[96];
        std::snprintf(line, sizeof line, "  offset %15lld  length %15lld\n", range["offset"].get<long long>(),
                      range["length"].get<long long>());
        std::cout << line;
    }
}

void runMap(CMapOptions& options)
{
    zu::P<kord::CVMDKDisk> top = openDisk(options.disk, zu::IIOStream::accessRead, options.passwords, options.format);
    Json layers = Json::array();
    int depth = 0;
    for (kord::CVMDKDisk* disk = top; disk; disk = disk->getParentDisk(), ++depth)
        layers.push_back(Json{{"layer", depth}, {"file", uriToDisplay(disk->getMainURI())}, {"ranges", writtenRanges(disk)}});
    if (options.json) {
        std::cout << layers.dump(2) << "\n";
        return;
    }
    for (const Json& layer : layers) printLayer(layer);
}

} // namespace

void addMapCommand(CLI::App& app)
{
    auto options = std::make_shared<CMapOptions>();
    CLI::App* command = app.add_subcommand("map", "List the written ranges of a disk, layer by layer through its parents");
    command->add_flag("--json", options->json, "Print JSON instead of text");
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options] { runMap(*options); });
}

} // namespace kordtool
