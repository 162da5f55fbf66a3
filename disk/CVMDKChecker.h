// Walks the metadata of a disk and of its parent chain and lists every
// inconsistency it finds, without changing a byte.
//
// The disk is opened as CVMDKDisk::openAny opens it, and each extent
// read-only through the library's own reading code (header, grain
// directory, grain tables, allocator); what those refuse to open is itself
// a finding. Flat and ZERO extents have no metadata beyond opening. The rest are the very checks with which the
// library refuses to read or write (CVMDKSparseExtentVerifier, the grain's
// own checks of a compressed grain, the disk's checks of an extent), here
// with a sink that lists each problem and goes on, so that the check finds
// exactly what reading and writing refuse. On top of those it reports what
// the library tolerates: grain tables that differ from their redundant
// copies, a stream-optimized file without its trail, a compressed grain
// whose header names another grain, extents left marked as not cleanly
// closed and a parent changed under its child. And it finds an embedded
// descriptor with no room for the content ID that a first change writes.
//
// Findings are damage in the files. What keeps the check from running at
// all (a missing file, a wrong password, a lock held by another process, a
// read error) is thrown instead.
#pragma once

#include "base/CIOError.h"
#include "base/IFileSystem.h"
#include "disk/CVMDKDisk.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "extent/CVMDKSparseExtentVerifier.h"

#include <functional>
#include <vector>

namespace kord {

class CVMDKChecker {
public:
    using Kind = CVMDKProblem::Kind;

    struct CFinding {
        Kind kind;
        zu::CURI uri;
        zu::String message;
        zu::CProps props;
    };

    // Called after each grain table: the bytes of the current disk's
    // virtual contents whose grains have been checked, and the disk's size
    // (each disk of a chain starts again at 0).
    using ProgressFunction = std::function<void(long long doneBytes, long long totalBytes)>;

    // Listing stops after this many findings (a file of garbage would
    // otherwise give one per grain).
    static constexpr size_t maxFindings = 10000;

    // password may be empty for disks without encryption; it is used for
    // the whole chain, as the library does.
    CVMDKChecker(zu::IFileSystem* fileSystem, const zu::CURI& uri, const zu::String& password);

    void setProgressFunction(const ProgressFunction& function) { progress = function; }

    // Opens the disk and each parent read-only (taking their locks, one at
    // a time) and returns what it found. Throws what stops the check.
    std::vector<CFinding> check();

    // "refused", "directoriesDisagree", ...: stable names for reports.
    static const char* getKindName(Kind kind) { return CVMDKProblem::getKindName(kind); }
    // Findings that waste room but leave every byte reading as it was
    // written: space behind everything the metadata uses (what a crash
    // between appending a grain and recording it leaves), and the mark of
    // an extent not closed cleanly (after which there may be such space).
    // Every other finding is damage.
    static bool isLeak(Kind kind)
    {
        return kind == CVMDKProblem::kindLeakedSpace || kind == CVMDKProblem::kindUncleanShutdown;
    }

private:
    struct CExtentContext;

    zu::P<CVMDKDisk> openDisk(const zu::CURI& uri);
    void checkDisk(CVMDKDisk* disk);
    void checkDescriptorRoom(CVMDKDisk* disk);
    void checkExtent(CVMDKDisk* disk, int index);
    void checkHeader(CExtentContext& context);
    void checkLeakedSpace(CExtentContext& context, long long usedEndSectors);
    long long endOfNonZeroSectors(zu::IIOStream* stream, long long fromSectors, long long endSectors);
    void compareTableWithCopy(CExtentContext& context, long long tableIndex, long long redundantPosSectors);
    void checkCompressedGrain(CExtentContext& context, long long grainIndex, long long posSectors,
                              long long slotSectors);
    // The parent, opened read-only, and compared with what the child expects.
    zu::P<CVMDKDisk> openParent(CVMDKDisk* child);
    void addFinding(Kind kind, const zu::CURI& uri, const zu::String& message, const zu::CProps& props);
    void addRefusal(const zu::CIOError& error, const zu::CURI& fallbackURI);
    // Lists the problems of the file at `uri`.
    VMDKProblemSink sinkFor(const zu::CURI& uri);
    bool full() const { return findings.size() >= maxFindings; }

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI mainURI;
    zu::String password;
    ProgressFunction progress;
    std::vector<CFinding> findings;
    // One grain (or a chunk of the file's end), reused from grain to grain.
    std::vector<unsigned char> grainBuffer;
};

} // namespace kord
