#include "ParallelConverter.h"

#include <algorithm>
#include <thread>

namespace kordtool {

namespace {

// Slots per worker: enough that workers rarely wait for the reader or writer.
constexpr int slotsPerWorker = 3;
// The ring holds this many grain-sized buffers, at most longestRing grains,
// so that memory stays bounded: fewer grains where each passes through more
// forms. Runs get shorter as workers are added, down to one grain. Only
// with more workers than grains does the ring grow, by a grain a worker:
// each works on a run of its own while the reader fills one and the writer
// drains another.
constexpr int ringBuffers = 36;
constexpr int longestRing = 24;
constexpr int longestRun = 8;

// Grain-sized buffers a grain fills on its way: what is read, and each form
// it is turned into.
int buffersPerGrain(kord::CVMDKDisk* sourceDisk, kord::CVMDKDisk* targetDisk, bool storedInput, bool passPrepared)
{
    int buffers = 1;
    if (storedInput && !passPrepared && sourceDisk->getCompressed()) ++buffers;
    if (targetDisk && !passPrepared && targetDisk->getCompressed()) ++buffers;
    if (targetDisk && targetDisk->isEncrypted()) ++buffers;
    return buffers;
}

int ringGrains(int buffers) { return std::min(longestRing, ringBuffers / buffers); }

int runLength(int workers, int ring) { return std::max(1, std::min(longestRun, ring / (slotsPerWorker * workers))); }

int slotCount(int workers, int ring) { return std::max(workers + 2, ring / runLength(workers, ring)); }

} // namespace

CParallelConverter::CParallelConverter(IConvertSource& source, CDiskSource* sourceDisk, IConvertTarget& target,
                                       CDiskTarget* targetDisk, bool passPrepared, int workerCount,
                                       CProgress& progress)
    : source(source), sourceDisk(sourceDisk ? sourceDisk->getDisk() : nullptr), target(target),
      targetDisk(targetDisk ? targetDisk->getDisk() : nullptr), passPrepared(passPrepared),
      storedInput(this->sourceDisk && (passPrepared || readsStoredGrains(this->sourceDisk))), progress(progress),
      grainBytes(this->targetDisk ? this->targetDisk->getGrainSizeBytes() : this->sourceDisk->getGrainSizeBytes()),
      grainCount(source.getSizeBytes() / grainBytes),
      ring(ringGrains(buffersPerGrain(this->sourceDisk, this->targetDisk, storedInput, passPrepared))),
      runGrains(runLength(workerCount, ring)), runCount((grainCount + runGrains - 1) / runGrains),
      workers(static_cast<size_t>(workerCount)), slots(static_cast<size_t>(slotCount(workerCount, ring)))
{
    for (CSlot& slot : slots) slot.grains.resize(static_cast<size_t>(runGrains));
    for (CWorker& worker : workers) {
        if (storedInput) {
            worker.sourcePreparer = this->sourceDisk->createDataPreparer();
            worker.sourceCipher = this->sourceDisk->createGrainCipher();
        }
        if (this->targetDisk) {
            worker.targetPreparer = this->targetDisk->createDataPreparer();
            worker.targetCipher = this->targetDisk->createGrainCipher();
        }
    }
}

bool CParallelConverter::readsStoredGrains(kord::CVMDKDisk* disk) { return disk->getCompressed() || disk->isEncrypted(); }

template <class Ready>
bool CParallelConverter::waitFor(std::condition_variable& signal, std::unique_lock<std::mutex>& lock, Ready ready)
{
    signal.wait(lock, [&] { return failed || ready(); });
    return !failed;
}

void CParallelConverter::setState(CSlot& slot, State state)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        slot.state = state;
    }
    // Grains are read, taken and written in order, so one waiter of each
    // kind is all a state change can let go on.
    if (state == stateFree) slotFreed.notify_one();
    if (state == stateRead) runRead.notify_one();
    if (state == statePrepared) runPrepared.notify_one();
}

void CParallelConverter::fail()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!error) error = std::current_exception();
        failed = true;
    }
    slotFreed.notify_all();
    runRead.notify_all();
    runPrepared.notify_all();
}

void CParallelConverter::readGrains()
{
    try {
        for (long long run = 0; run < runCount; ++run) {
            CSlot& slot = slotOf(run);
            {
                std::unique_lock<std::mutex> lock(mutex);
                if (!waitFor(slotFreed, lock, [&] { return slot.state == stateFree; })) return;
            }
            slot.run = run;
            slot.count = static_cast<int>(std::min<long long>(runGrains, grainCount - run * runGrains));
            for (int i = 0; i < slot.count; ++i) {
                CGrain& grain = slot.grains[static_cast<size_t>(i)];
                grain.grainIndex = run * runGrains + i;
                readGrain(grain);
            }
            setState(slot, stateRead);
        }
    } catch (...) {
        fail();
    }
}

void CParallelConverter::readGrain(CGrain& grain)
{
    long long position = grain.grainIndex * grainBytes;
    if (!storedInput) {
        grain.plain.setUsed(grainBytes);
        grain.skip = !source.read(position, grain.plain.getData(), grainBytes);
        return;
    }
    sourceDisk->seek(position);
    grain.skip = !sourceDisk->isGrainWritten();
    if (!grain.skip) grain.encrypted = sourceDisk->readStoredGrainData(grain.input);
}

void CParallelConverter::prepareGrains(CWorker& worker)
{
    try {
        for (;;) {
            CSlot* slot = nullptr;
            bool tookLast = false;
            {
                std::unique_lock<std::mutex> lock(mutex);
                auto claimable = [&] {
                    if (nextToPrepare >= runCount) return true;
                    const CSlot& next = slotOf(nextToPrepare);
                    return next.state == stateRead && next.run == nextToPrepare;
                };
                if (!waitFor(runRead, lock, claimable) || nextToPrepare >= runCount) return;
                slot = &slotOf(nextToPrepare++);
                slot->state = statePreparing;
                tookLast = nextToPrepare >= runCount;
            }
            // The last run taken: the other workers wait for nothing more.
            if (tookLast) runRead.notify_all();
            for (int i = 0; i < slot->count; ++i) {
                CGrain& grain = slot->grains[static_cast<size_t>(i)];
                if (!grain.skip) prepareGrain(worker, grain);
            }
            setState(*slot, statePrepared);
        }
    } catch (...) {
        fail();
    }
}

const zu::TBuffer<unsigned char>& CParallelConverter::expand(CWorker& worker, CGrain& grain)
{
    if (!storedInput || !worker.sourcePreparer->doesAnything()) return storedInput ? grain.input : grain.plain;
    grain.plain.setUsed(grainBytes);
    worker.sourcePreparer->unprepareGrainData(grain.input.getData(), grain.input.getUsed(), grain.plain.getData());
    return grain.plain;
}

void CParallelConverter::prepareGrain(CWorker& worker, CGrain& grain)
{
    if (grain.encrypted) worker.sourceCipher->decrypt(grain.input, grain.grainIndex);
    const zu::TBuffer<unsigned char>* out = &grain.input;
    if (passPrepared) {
        // Uncompressed prepared data is the plain grain: zeros can be seen.
        grain.skip = !worker.targetPreparer->doesAnything() && isAllZero(grain.input.getData(), grain.input.getUsed());
    } else {
        out = &expand(worker, grain);
        grain.skip = isAllZero(out->getData(), grainBytes);
        if (!grain.skip && targetDisk && worker.targetPreparer->doesAnything()) {
            worker.targetPreparer->prepareGrainData(out->getData(), grainBytes, grain.grainIndex, grain.prepared);
            out = &grain.prepared;
        }
    }
    if (!grain.skip && worker.targetCipher) {
        worker.targetCipher->encrypt(out->getData(), out->getUsed(), grain.grainIndex, grain.stored);
        out = &grain.stored;
    }
    grain.output = out;
}

void CParallelConverter::writeGrains()
{
    for (long long run = 0; run < runCount; ++run) {
        CSlot& slot = slotOf(run);
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!waitFor(runPrepared, lock, [&] { return slot.state == statePrepared; })) return;
        }
        for (int i = 0; i < slot.count; ++i) writeGrain(slot.grains[static_cast<size_t>(i)]);
        setState(slot, stateFree);
        progress.update((run * runGrains + slot.count) * grainBytes, source.getSizeBytes());
    }
}

void CParallelConverter::writeGrain(const CGrain& grain)
{
    if (grain.skip) return;
    if (targetDisk) {
        targetDisk->seek(grain.grainIndex * grainBytes);
        targetDisk->writeStoredGrainData(*grain.output);
    } else {
        target.write(grain.grainIndex * grainBytes, grain.output->getData(), grainBytes);
    }
}

void CParallelConverter::run()
{
    std::vector<std::thread> threads;
    try {
        threads.emplace_back([this] { readGrains(); });
        for (CWorker& worker : workers) threads.emplace_back([this, &worker] { prepareGrains(worker); });
        writeGrains();
    } catch (...) {
        fail();
    }
    for (std::thread& thread : threads) thread.join();
    if (error) std::rethrow_exception(error);
}

} // namespace kordtool
