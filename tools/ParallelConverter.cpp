#include "ParallelConverter.h"

#include <thread>

namespace kordtool {

namespace {

// Slots per worker: enough that workers rarely wait for the reader or writer.
constexpr int slotsPerWorker = 4;

} // namespace

CParallelConverter::CParallelConverter(IConvertSource& source, CDiskSource* sourceDisk, IConvertTarget& target,
                                       CDiskTarget* targetDisk, bool passPrepared, int workerCount,
                                       CProgress& progress)
    : source(source), sourceDisk(sourceDisk ? sourceDisk->getDisk() : nullptr), target(target),
      targetDisk(targetDisk ? targetDisk->getDisk() : nullptr), passPrepared(passPrepared),
      storedInput(this->sourceDisk && (passPrepared || readsStoredGrains(this->sourceDisk))), progress(progress),
      grainBytes(this->targetDisk ? this->targetDisk->getGrainSizeBytes() : this->sourceDisk->getGrainSizeBytes()),
      grainCount(source.getSizeBytes() / grainBytes), workers(static_cast<size_t>(workerCount)),
      slots(static_cast<size_t>(workerCount * slotsPerWorker))
{
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
    if (state == stateRead) grainRead.notify_one();
    if (state == statePrepared) grainPrepared.notify_one();
}

void CParallelConverter::fail()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!error) error = std::current_exception();
        failed = true;
    }
    slotFreed.notify_all();
    grainRead.notify_all();
    grainPrepared.notify_all();
}

void CParallelConverter::readGrains()
{
    try {
        for (long long index = 0; index < grainCount; ++index) {
            CSlot& slot = slots[static_cast<size_t>(index) % slots.size()];
            {
                std::unique_lock<std::mutex> lock(mutex);
                if (!waitFor(slotFreed, lock, [&] { return slot.state == stateFree; })) return;
            }
            slot.grainIndex = index;
            readGrain(slot);
            setState(slot, stateRead);
        }
    } catch (...) {
        fail();
    }
}

void CParallelConverter::readGrain(CSlot& slot)
{
    long long position = slot.grainIndex * grainBytes;
    if (!storedInput) {
        slot.plain.setUsed(grainBytes);
        slot.skip = !source.read(position, slot.plain.getData(), grainBytes);
        return;
    }
    sourceDisk->seek(position);
    slot.skip = !sourceDisk->isGrainWritten();
    if (!slot.skip) slot.encrypted = sourceDisk->readStoredGrainData(slot.input);
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
                    if (nextToPrepare >= grainCount) return true;
                    const CSlot& next = slots[static_cast<size_t>(nextToPrepare) % slots.size()];
                    return next.state == stateRead && next.grainIndex == nextToPrepare;
                };
                if (!waitFor(grainRead, lock, claimable) || nextToPrepare >= grainCount) return;
                slot = &slots[static_cast<size_t>(nextToPrepare++) % slots.size()];
                slot->state = statePreparing;
                tookLast = nextToPrepare >= grainCount;
            }
            // The last grain taken: the other workers wait for nothing more.
            if (tookLast) grainRead.notify_all();
            if (!slot->skip) prepareGrain(worker, *slot);
            setState(*slot, statePrepared);
        }
    } catch (...) {
        fail();
    }
}

const zu::TBuffer<unsigned char>& CParallelConverter::expand(CWorker& worker, CSlot& slot)
{
    if (!storedInput || !worker.sourcePreparer->doesAnything()) return storedInput ? slot.input : slot.plain;
    slot.plain.setUsed(grainBytes);
    worker.sourcePreparer->unprepareGrainData(slot.input.getData(), slot.input.getUsed(), slot.plain.getData());
    return slot.plain;
}

void CParallelConverter::prepareGrain(CWorker& worker, CSlot& slot)
{
    if (slot.encrypted) worker.sourceCipher->decrypt(slot.input, slot.grainIndex);
    const zu::TBuffer<unsigned char>* out = &slot.input;
    if (passPrepared) {
        // Uncompressed prepared data is the plain grain: zeros can be seen.
        slot.skip = !worker.targetPreparer->doesAnything() && isAllZero(slot.input.getData(), slot.input.getUsed());
    } else {
        out = &expand(worker, slot);
        slot.skip = isAllZero(out->getData(), grainBytes);
        if (!slot.skip && targetDisk && worker.targetPreparer->doesAnything()) {
            worker.targetPreparer->prepareGrainData(out->getData(), grainBytes, slot.grainIndex, slot.prepared);
            out = &slot.prepared;
        }
    }
    if (!slot.skip && worker.targetCipher) {
        worker.targetCipher->encrypt(out->getData(), out->getUsed(), slot.grainIndex, slot.stored);
        out = &slot.stored;
    }
    slot.output = out;
}

void CParallelConverter::writeGrains()
{
    for (long long index = 0; index < grainCount; ++index) {
        CSlot& slot = slots[static_cast<size_t>(index) % slots.size()];
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!waitFor(grainPrepared, lock, [&] { return slot.state == statePrepared; })) return;
        }
        if (!slot.skip && targetDisk) {
            targetDisk->seek(index * grainBytes);
            targetDisk->writeStoredGrainData(*slot.output);
        } else if (!slot.skip) {
            target.write(index * grainBytes, slot.output->getData(), grainBytes);
        }
        setState(slot, stateFree);
        progress.update((index + 1) * grainBytes, source.getSizeBytes());
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
