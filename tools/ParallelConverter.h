// kord convert -j: grains are read by one thread, prepared (compressed) by
// several worker threads, each with its own data preparer, and written in
// order by the calling thread through writePreparedGrainData, which also
// encrypts them for an encrypted disk. Each disk is used by one thread
// only, as the library requires.
//
// Grains travel in a fixed ring of slots, each with its own buffers, so the
// steady state allocates nothing; a slot is reused once its grain is
// written, which also bounds how far reading runs ahead of writing.
#pragma once

#include "ConvertEndpoints.h"
#include "Progress.h"

#include "grain/CVMDKDataPreparer.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <vector>

namespace kordtool {

class CParallelConverter {
public:
    CParallelConverter(IConvertSource& source, kord::CVMDKDisk* target, int workers, CProgress& progress);

    // Converts every grain that the source holds whole; the rest of a last
    // grain is left to the caller. The first error of any thread
    // stops all of them and is thrown here.
    void run();

private:
    enum State { stateFree, stateRead, statePreparing, statePrepared };
    struct CSlot {
        zu::P<zu::TBuffer<unsigned char>> plain;
        zu::P<zu::TBuffer<unsigned char>> aux;
        zu::P<zu::TBuffer<unsigned char>> prepared;
        long long grainIndex = -1;
        bool skip = false;
        State state = stateFree;
    };

    void readGrains();
    void prepareGrains(kord::CVMDKDataPreparer* preparer);
    void writeGrains();
    // Waits until `ready` holds or a thread failed; false on failure.
    template <class Ready>
    bool waitFor(std::unique_lock<std::mutex>& lock, Ready ready);
    void setState(CSlot& slot, State state);
    void fail();

    IConvertSource& source;
    kord::CVMDKDisk* target;
    CProgress& progress;
    long long grainBytes;
    long long grainCount;
    std::vector<zu::P<kord::CVMDKDataPreparer>> preparers;
    std::vector<CSlot> slots;

    std::mutex mutex;
    std::condition_variable changed;
    long long nextToPrepare = 0;
    bool failed = false;
    std::exception_ptr error;
};

} // namespace kordtool
