// A file system for fault tests. It works in memory, numbers the calls that
// can change or fail on a real disk (opens, locks, writes, truncations,
// syncs, renames, deletions), fails one of them on request, and remembers
// what each file held at its last sync and which names its folder held at
// its last sync, so that a power loss can be replayed afterwards.
//
// Faults: an I/O error or a full disk (nothing done), a short write (half
// the bytes written, then an I/O error), or a crash: the call and every
// later one fail, as if the process had died there.
//
// A power loss leaves each file as it was at its last sync plus some of the
// writes made since (none, all, or a choice of them, sector by sector, as a
// seed decides); files created since their folder was last synced are gone,
// and names deleted or renamed since are back. A folder is synced by
// renameFile, as on the local file system.
#pragma once

#include "base/CMemoryFileSystem.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kordtest {

class CFaultFileSystem : public zu::CMemoryFileSystem {
public:
    enum class Fault { ioError, noSpace, shortWrite, crash };
    // Files by URI text, as the image of a disk's folder.
    using Files = std::map<std::string, std::vector<unsigned char>>;

    // Starts with these files, all durable.
    explicit CFaultFileSystem(const Files& files = Files());
    ~CFaultFileSystem() override;

    // Call number `call` (from 1) fails with `fault`.
    void arm(long long call, Fault fault);
    long long getCallCount() const;
    // What each call so far was: "open", "lock", "write", "truncate", "sync", "rename", "delete".
    std::vector<std::string> getCallKinds() const;

    Files getFiles() const;
    // The files as a power loss now would leave them. Seed 0 keeps none of
    // the writes made since the last syncs, seed 1 all of them, other seeds
    // a choice of their sectors.
    Files getFilesAfterPowerLoss(unsigned seed) const;

    zu::P<zu::IIOStream> openStream(const zu::CURI& uri, int access, const zu::CProps& options) override;
    void deleteFile(const zu::CURI& uri, bool ignoreMissing) override;
    void renameFile(const zu::CURI& from, const zu::CURI& to) override;
    zu::P<zu::IBase> lockFile(const zu::CURI& uri, zu::IStreamBase::LockType type, bool wait,
                              bool removeOnRelease) override;

    class CStream;
    struct CModel;

private:
    friend class CStream;
    // Counts a call; throws when it is the armed one or after a crash. For
    // a short write, returns how many bytes to write before failing (-1: all).
    long long enterCall(const char* kind, const zu::CURI& uri, long long bytes = 0);

    std::unique_ptr<CModel> model;
};

} // namespace kordtest
