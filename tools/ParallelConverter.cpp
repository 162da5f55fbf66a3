#include "ParallelConverter.h"

#include <thread>

namespace kordtool {

namespace {

// Slots per worker: enough that workers rarely wait for the reader or writer.
constexpr int slotsPerWorker = 4;

} // namespace

CParallelConverter::CParallelConverter(IConvertSource& source, kord::CVMDKDisk* target, int workers,
                                       CProgress& progress)
    : source(source), target(target), progress(progress), grainBytes(target->getGrainSizeBytes()),
      grainCount(source.getSizeBytes() / grainBytes), slots(static_cast<size_t>(workers * slotsPerWorker))
{
    for (int i = 0; i < workers; ++i) preparers.push_back(target->createDataPreparer());
    for (CSlot& slot : slots) {
        slot.plain = zu::newObj<zu::TBuffer<unsigned char>>(grainBytes);
        slot.aux = zu::newObj<zu::TBuffer<unsigned char>>();
    }
}

template <class Ready>
bool CParallelConverter::waitFor(std::unique_lock<std::mutex>& lock, Ready ready)
{
    changed.wait(lock, [&] { return failed || ready(); });
    return !failed;
}

void CParallelConverter::setState(CSlot& slot, State state)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        slot.state = state;
    }
    changed.notify_all();
}

void CParallelConverter::fail()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!error) error = std::current_exception();
        failed = true;
    }
    changed.notify_all();
}

void CParallelConverter::readGrains()
{
    try {
        for (long long index = 0; index < grainCount; ++index) {
            CSlot& slot = slots[static_cast<size_t>(index) % slots.size()];
            {
                std::unique_lock<std::mutex> lock(mutex);
                if (!waitFor(lock, [&] { return slot.state == stateFree; })) return;
            }
            slot.grainIndex = index;
            slot.skip = !source.read(index * grainBytes, slot.plain->getData(), grainBytes);
            setState(slot, stateRead);
        }
    } catch (...) {
        fail();
    }
}

void CParallelConverter::prepareGrains(kord::CVMDKDataPreparer* preparer)
{
    try {
        for (;;) {
            CSlot* slot = nullptr;
            {
                std::unique_lock<std::mutex> lock(mutex);
                auto claimable = [&] {
                    if (nextToPrepare >= grainCount) return true;
                    const CSlot& next = slots[static_cast<size_t>(nextToPrepare) % slots.size()];
                    return next.state == stateRead && next.grainIndex == nextToPrepare;
                };
                if (!waitFor(lock, claimable) || nextToPrepare >= grainCount) return;
                slot = &slots[static_cast<size_t>(nextToPrepare++) % slots.size()];
                slot->state = statePreparing;
            }
            if (!slot->skip) slot->skip = isAllZero(slot->plain->getData(), grainBytes);
            if (!slot->skip) slot->prepared = preparer->prepareGrainData(slot->plain, slot->grainIndex, slot->aux);
            setState(*slot, statePrepared);
        }
    } catch (...) {
        fail();
    }
}

void CParallelConverter::writeGrains()
{
    for (long long index = 0; index < grainCount; ++index) {
        CSlot& slot = slots[static_cast<size_t>(index) % slots.size()];
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!waitFor(lock, [&] { return slot.state == statePrepared; })) return;
        }
        if (!slot.skip) {
            target->seek(index * grainBytes);
            target->writePreparedGrainData(*slot.prepared);
            slot.prepared = nullptr;
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
        for (const auto& preparer : preparers) {
            kord::CVMDKDataPreparer* own = preparer;
            threads.emplace_back([this, own] { prepareGrains(own); });
        }
        writeGrains();
    } catch (...) {
        fail();
    }
    for (std::thread& thread : threads) thread.join();
    if (error) std::rethrow_exception(error);
}

} // namespace kordtool
