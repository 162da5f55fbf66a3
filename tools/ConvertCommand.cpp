#include "ConvertCommand.h"

#include "ConvertEndpoints.h"
#include "GrainCopy.h"
#include "ImageFormat.h"
#include "ParallelConverter.h"
#include "Passwords.h"
#include "Progress.h"
#include "ToolSupport.h"

#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKMarker.h"

#include <memory>

namespace kordtool {

namespace {

// Raw images are copied in chunks of this size when no grain size applies.
constexpr long long rawChunkBytes = 1024 * 1024;

struct CConvertOptions {
    bool progress = false;
    std::string outputFormat = "vmdk";
    std::string type;
    bool encrypt = false;
    bool plainStream = false;
    int compressionLevel = -1;
    int threads = 1;
    std::string source;
    std::string destination;
    CImageFormat format;
    CPasswordSource passwords;
};

void checkOptions(const CConvertOptions& options)
{
    bool raw = options.outputFormat == "raw";
    if (raw && !options.type.empty()) throw toolError("-t applies to VMDK output only.");
    if (raw && options.encrypt) throw toolError("--encrypt applies to VMDK output only.");
    if (options.compressionLevel != -1 && options.type != "streamOptimized")
        throw toolError("-c applies to streamOptimized output only.");
    if (options.plainStream && options.type != "streamOptimized")
        throw toolError("--plain-stream applies to streamOptimized output only.");
    if (options.plainStream && options.encrypt)
        throw toolError("--plain-stream cannot be encrypted: encryption is one of kord's extensions.");
}

// The source disk's adapter where the library can make it, else the default.
zu::String sourceAdapter(kord::CVMDKDisk* sourceDisk)
{
    kord::CVMDKDisk::CCreateParams defaults;
    try {
        zu::String adapter = sourceDisk->getDescriptor()->getAdapterType();
        for (const char* known : {"lsilogic", "ide", "buslogic", "legacyESX"})
            if (adapter == zu::String(known)) return adapter;
    } catch (const zu::CError&) {
        // Disks made elsewhere need not name one.
    }
    return defaults.adapterType;
}

kord::CVMDKDisk::CCreateParams targetParams(CConvertOptions& options, const IConvertSource& source,
                                            kord::CVMDKDisk* sourceDisk)
{
    kord::CVMDKDisk::CCreateParams params;
    params.createType = options.type.empty() ? "monolithicSparse" : options.type;
    params.capacitySectors = (source.getSizeBytes() + kord::vmdkSectorSize - 1) / kord::vmdkSectorSize;
    params.compressionLevel = options.compressionLevel;
    if (sourceDisk) {
        params.grainSizeSectors = sourceDisk->getGrainSizeSectors();
        params.adapterType = sourceAdapter(sourceDisk);
    }
    if (options.encrypt)
        params.password = options.passwords.getForNewDisk("Password for " + options.destination + ": ");
    if (params.capacitySectors == 0) throw toolError("The source is empty: a disk cannot have size 0.");
    return params;
}

// Prepared grains move between disks whose grains look alike; asking for
// another compression level means recompressing.
bool canCopyPrepared(kord::CVMDKDisk* from, kord::CVMDKDisk* to, const CConvertOptions& options)
{
    return from->getGrainSizeBytes() == to->getGrainSizeBytes() && from->getCompressed() == to->getCompressed() &&
           !(to->getCompressed() && options.compressionLevel != -1);
}

void copy(CConvertOptions& options, IConvertSource& source, CDiskSource* sourceDisk, IConvertTarget& target,
          CDiskTarget* targetDisk, CProgress& progress)
{
    bool passPrepared =
        sourceDisk && targetDisk && canCopyPrepared(sourceDisk->getDisk(), targetDisk->getDisk(), options);
    // Threads pay where grains are deflated, inflated, encrypted or decrypted.
    bool grainWork = targetDisk || (sourceDisk && CParallelConverter::readsStoredGrains(sourceDisk->getDisk()));
    if (options.threads > 1 && grainWork) {
        CParallelConverter converter(source, sourceDisk, target, targetDisk, passPrepared, options.threads, progress);
        converter.run();
        long long grain = targetDisk ? targetDisk->getDisk()->getGrainSizeBytes() : sourceDisk->getDisk()->getGrainSizeBytes();
        copyPlain(source, target, grain, source.getSizeBytes() / grain * grain, progress);
    } else if (passPrepared) {
        copyPrepared(*sourceDisk, *targetDisk, progress);
    } else {
        long long chunk = targetDisk    ? targetDisk->getDisk()->getGrainSizeBytes()
                          : sourceDisk ? sourceDisk->getDisk()->getGrainSizeBytes()
                                       : rawChunkBytes;
        copyPlain(source, target, chunk, 0, progress);
    }
}

void runConvert(CConvertOptions& options)
{
    checkOptions(options);
    std::unique_ptr<IConvertSource> source;
    CDiskSource* sourceDisk = nullptr;
    if (options.format.isVMDK(options.source)) {
        auto disk = std::make_unique<CDiskSource>(
            openDisk(options.source, zu::IIOStream::accessRead, options.passwords, options.format));
        sourceDisk = disk.get();
        source = std::move(disk);
    } else {
        source = std::make_unique<CRawSource>(options.source);
    }
    CProgress progress(options.progress, "convert");
    if (options.outputFormat == "raw") {
        kord::writeVMDKFileAtomically(localFileSystem(), pathToURI(options.destination), false,
                                      [&](zu::IIOStream& stream) {
                                          CRawTarget target(stream, source->getSizeBytes());
                                          copy(options, *source, sourceDisk, target, nullptr, progress);
                                          target.finish();
                                      });
    } else {
        CDiskTarget target(options.destination,
                           targetParams(options, *source, sourceDisk ? sourceDisk->getDisk() : nullptr),
                           options.plainStream);
        try {
            copy(options, *source, sourceDisk, target, &target, progress);
            target.finish();
        } catch (...) {
            target.discard();
            throw;
        }
    }
    progress.finish();
}

} // namespace

void addConvertCommand(CLI::App& app)
{
    auto options = std::make_shared<CConvertOptions>();
    CLI::App* command = app.add_subcommand(
        "convert", "Convert a raw image or a disk into a raw image or a new disk of any create type");
    command->add_flag("-p,--progress", options->progress, "Show progress on standard error");
    command->add_option("-O,--output-format", options->outputFormat, "Output format: vmdk (default) or raw")
        ->check(CLI::IsMember({"raw", "vmdk"}));
    command->add_option("-t,--type", options->type,
                        "Create type of a VMDK output: monolithicSparse (default), twoGbMaxExtentSparse or "
                        "streamOptimized")
        ->type_name("TYPE");
    command->add_flag("--encrypt", options->encrypt, "Encrypt the new disk (AES-256-CBC) under a password");
    command->add_flag("--plain-stream", options->plainStream,
                      "With -t streamOptimized: a stream file without kord's extensions (no slot-size directory), "
                      "for readers that validate strictly; kord reads it but does not write to it");
    command->add_option("-c,--compression", options->compressionLevel,
                        "Deflate level of streamOptimized output, 0 to 12 (default 1)")
        ->type_name("LEVEL")
        ->check(CLI::Range(0, 12));
    command->add_option("-j,--threads", options->threads, "Compress, expand, encrypt and decrypt grains on this many threads (default 1)")
        ->type_name("THREADS")
        ->check(CLI::Range(1, 256));
    command->add_option("SRC", options->source, "The source: a disk's main file or a raw image")->required();
    options->format.addOption(command, {"raw", "vmdk"});
    command->add_option("DST", options->destination, "The new file (an existing file is not overwritten)")->required();
    options->passwords.addOptions(command);
    options->passwords.addNewPasswordOption(command);
    command->callback([options] { runConvert(*options); });
}

} // namespace kordtool
