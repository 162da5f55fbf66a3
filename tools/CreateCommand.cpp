#include "CreateCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "Sizes.h"
#include "ToolSupport.h"

#include "format/VMDKMarker.h"

#include <memory>

namespace kordtool {

namespace {

struct CCreateOptions {
    std::string type;
    long long grainSectors = 0;
    std::string adapter = "lsilogic";
    bool encrypt = false;
    bool onDemand = false;
    std::string parent;
    std::string disk;
    std::string size;
    std::string format;
    CImageFormat parentFormat;
    CPasswordSource passwords;
};

// A delta disk takes its parent's geometry, its password and, unless told
// otherwise, the create type that matches the parent's compression.
void takeFromParent(CCreateOptions& options, kord::CVMDKDisk::CCreateParams& params)
{
    zu::P<kord::CVMDKDisk> parent =
        openDisk(options.parent, zu::IIOStream::accessRead, options.passwords, options.parentFormat);
    params.parentURI = parent->getMainURI();
    if (options.type.empty()) params.createType = parent->getCompressed() ? "streamOptimized" : "monolithicSparse";
    if (options.grainSectors != 0 && options.grainSectors != parent->getGrainSizeSectors())
        throw toolError("A delta disk has its parent's grain size.",
                        zu::CProps().set("grainSize", options.grainSectors).set("parentGrainSize", parent->getGrainSizeSectors()));
    params.grainSizeSectors = parent->getGrainSizeSectors();
    if (parent->isEncrypted()) params.password = options.passwords.get("");
}

void runCreate(CCreateOptions& options)
{
    kord::CVMDKDisk::CCreateParams params;
    params.createType = options.type.empty() ? "monolithicSparse" : options.type;
    params.adapterType = options.adapter;
    params.createExtentFilesOnDemand = options.onDemand;
    if (options.grainSectors != 0) params.grainSizeSectors = options.grainSectors;
    if (!options.parent.empty()) takeFromParent(options, params);
    if (!options.size.empty()) {
        long long bytes = parseSize(options.size);
        params.capacitySectors = (bytes + kord::vmdkSectorSize - 1) / kord::vmdkSectorSize;
        if (params.capacitySectors == 0) throw toolError("The disk size must not be 0.");
    } else if (options.parent.empty()) {
        throw toolError("A disk size is needed (it defaults to the parent's only with -b).");
    }
    if (options.encrypt && params.password.empty())
        params.password = options.passwords.getForNewDisk("Password for " + options.disk + ": ");
    zu::P<kord::CVMDKDisk> disk = kord::CVMDKDisk::create(localFileSystem(), pathToURI(options.disk), params);
    disk->flushChanges();
}

} // namespace

void addCreateCommand(CLI::App& app)
{
    auto options = std::make_shared<CCreateOptions>();
    CLI::App* command = app.add_subcommand("create", "Make a new disk, or a delta disk of a parent (-b)");
    command->add_option("-t,--type", options->type,
                        "Create type: monolithicSparse (default), twoGbMaxExtentSparse or streamOptimized; a delta "
                        "disk defaults to its parent's kind")
        ->type_name("TYPE");
    command->add_option("-g,--grain", options->grainSectors, "Grain size in 512-byte sectors (default 128)")
        ->type_name("GRAIN_SECTORS")
        ->check(CLI::Range(1, 2048));
    command->add_option("--adapter", options->adapter, "Adapter type: lsilogic (default), ide, buslogic or legacyESX")
        ->type_name("A");
    command->add_flag("--encrypt", options->encrypt, "Encrypt the disk (AES-256-CBC) under a password");
    command->add_flag("--on-demand", options->onDemand,
                      "twoGbMaxExtentSparse: make extent files only when they are first written");
    // As other image tools take them: the format of the new disk and of its
    // parent, both only ever VMDK here.
    command->add_option("-f,--format", options->format, "Format of the new disk: vmdk (the only one kord makes)")
        ->type_name("FMT")
        ->check(CLI::IsMember({"vmdk"}));
    command->add_option("-b,--backing", options->parent, "Make a delta disk of this parent disk")->type_name("PARENT");
    options->parentFormat.addOption(command, {"vmdk"}, "-F,--backing-format");
    command->add_option("DISK", options->disk, "The new disk's main file")->required();
    command->add_option("SIZE", options->size, "Virtual size in bytes, with an optional K, M, G or T suffix");
    options->passwords.addOptions(command);
    command->callback([options] { runCreate(*options); });
}

} // namespace kordtool
