// kord convert -j: one thread reads grains from the source in order,
// several worker threads turn them into what the target takes, and the
// calling thread writes them in order. Each disk is used by one thread
// only, as the library requires; the work on grain data (inflating,
// deflating, decrypting, encrypting) happens on the workers, each with its
// own preparers and ciphers.
//
// A compressed or encrypted source disk gives its grains as stored
// (readStoredGrainData), for the workers to decrypt and inflate; other
// sources give plain bytes. A target disk takes grains prepared and
// encrypted by the workers (writeStoredGrainData); between two disks whose
// grains look alike, prepared grains pass without being inflated and
// deflated again. A raw image takes the plain bytes.
//
// Grains travel in runs of consecutive grains through a fixed ring of
// slots, each grain with its own buffers, so the steady state allocates
// nothing; a slot is reused once its run is written, which also bounds how
// far reading runs ahead of writing. Handing a run between threads costs
// one wake-up, where a grain at a time cost more than the work on it.
#pragma once

#include "ConvertEndpoints.h"
#include "Progress.h"

#include "grain/CVMDKDataPreparer.h"
#include "grain/CVMDKGrainCipher.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <vector>

namespace kordtool {

class CParallelConverter {
public:
    // sourceDisk and targetDisk: the disks behind source and target, or
    // null for raw images. passPrepared: the disks' grains look alike
    // (same grain size and compression), so prepared grains pass as they are.
    CParallelConverter(IConvertSource& source, CDiskSource* sourceDisk, IConvertTarget& target,
                       CDiskTarget* targetDisk, bool passPrepared, int workers, CProgress& progress);

    // Converts every grain that the source holds whole; the rest of a last
    // grain is left to the caller. The first error of any thread stops all
    // of them and is thrown here.
    void run();

    // Whether the source disk's grains are worth reading in stored form.
    static bool readsStoredGrains(kord::CVMDKDisk* sourceDisk);

private:
    enum State { stateFree, stateRead, statePreparing, statePrepared };
    struct CGrain {
        zu::TBuffer<unsigned char> input;
        zu::TBuffer<unsigned char> plain;
        zu::TBuffer<unsigned char> prepared;
        zu::TBuffer<unsigned char> stored;
        // What the writer writes: one of the buffers above.
        const zu::TBuffer<unsigned char>* output = nullptr;
        long long grainIndex = -1;
        // input holds the grain encrypted.
        bool encrypted = false;
        bool skip = false;
    };
    // A run of consecutive grains: those of run `run`.
    struct CSlot {
        std::vector<CGrain> grains;
        long long run = -1;
        int count = 0;
        State state = stateFree;
    };
    // What one worker thread uses, its own.
    struct CWorker {
        zu::P<kord::CVMDKDataPreparer> sourcePreparer;
        zu::P<kord::CVMDKGrainCipher> sourceCipher;
        zu::P<kord::CVMDKDataPreparer> targetPreparer;
        zu::P<kord::CVMDKGrainCipher> targetCipher;
    };

    void readGrains();
    void readGrain(CGrain& grain);
    void prepareGrains(CWorker& worker);
    void prepareGrain(CWorker& worker, CGrain& grain);
    // The grain in plain form (its input or its plain buffer).
    const zu::TBuffer<unsigned char>& expand(CWorker& worker, CGrain& grain);
    void writeGrains();
    void writeGrain(const CGrain& grain);
    CSlot& slotOf(long long run) { return slots[static_cast<size_t>(run % static_cast<long long>(slots.size()))]; }
    // Waits on `signal` until `ready` holds or a thread failed; false on
    // failure.
    template <class Ready>
    bool waitFor(std::condition_variable& signal, std::unique_lock<std::mutex>& lock, Ready ready);
    void setState(CSlot& slot, State state);
    void fail();

    IConvertSource& source;
    kord::CVMDKDisk* sourceDisk;
    IConvertTarget& target;
    kord::CVMDKDisk* targetDisk;
    bool passPrepared;
    bool storedInput;
    CProgress& progress;
    long long grainBytes;
    long long grainCount;
    // Grains the ring holds (before it grows for many workers).
    int ring;
    int runGrains;
    long long runCount;
    std::vector<CWorker> workers;
    std::vector<CSlot> slots;

    // One signal per kind of waiter, so that a handed-on run wakes only the
    // thread that takes it next.
    std::mutex mutex;
    std::condition_variable slotFreed;   // the reader waits for a free slot
    std::condition_variable runRead;     // the workers wait for the next run
    std::condition_variable runPrepared; // the writer waits for its run
    long long nextToPrepare = 0;
    bool failed = false;
    std::exception_ptr error;
};

} // namespace kordtool
