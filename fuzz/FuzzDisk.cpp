// A whole disk from untrusted bytes: up to five files (a descriptor or
// monolithic file, two extents, a parent and its extent) in the in-memory
// file system, opened with a password, read, written, flushed and read
// again. Errors are expected. What is not: a crash, a hang, a huge
// allocation, and, when every write and the flush went through, a written
// byte that does not read back or any other byte that changed.
//
// Input: one flag byte (bit 0: also write whole grains in prepared form),
// four bytes of seed for the writes, then per file a 32-bit little-endian
// length and that many bytes (a length past the end takes the rest; a
// length of 0 leaves the file out).
#include "FuzzTarget.h"

#include "base/CError.h"
#include "base/CMemoryFileSystem.h"
#include "base/Endian.h"
#include "disk/CVMDKDisk.h"
#include "format/VMDKEmptyLayout.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>

namespace {

const char* const fileNames[] = {"d.vmdk", "d-s001.vmdk", "d-s002.vmdk", "p.vmdk", "p-s001.vmdk"};
const char* const password = "pw";
// Grains read to compare before and after writing, at most.
constexpr long long sampledGrains = 48;
constexpr long long maxWriteBytes = 96 * 1024;

zu::CURI fileURI(const char* name) { return zu::CURI(zu::String("file:///fuzz/") + name); }

zu::P<kord::CVMDKDisk> openDisk(zu::IFileSystem* fs, int access)
{
    return zu::newObj<kord::CVMDKDisk>(fs, fileURI(fileNames[0]), access, zu::String(password), -1, nullptr, nullptr);
}

void putFile(zu::IFileSystem* fs, const char* name, const std::uint8_t* data, std::size_t size)
{
    zu::P<zu::IIOStream> file = fs->openStream(fileURI(name), zu::IIOStream::accessCreateNew, zu::CProps());
    file->write(data, static_cast<int>(size));
    file->close();
}

struct CWrite {
    long long position;
    std::vector<unsigned char> data;
};

// Disk bytes by grain index: the sampled grains that read without error.
using Contents = std::map<long long, std::vector<unsigned char>>;

Contents readSample(kord::CVMDKDisk& disk, const std::vector<long long>& grains)
{
    Contents out;
    long long grainBytes = disk.getGrainSizeBytes();
    for (long long g : grains) {
        std::vector<unsigned char> bytes(static_cast<size_t>(std::min(grainBytes, disk.getDiskSizeBytes() - g * grainBytes)));
        try {
            disk.seek(g * grainBytes);
            disk.read(bytes.data(), static_cast<int>(bytes.size()));
            out[g] = std::move(bytes);
        } catch (const zu::CError&) {
        }
    }
    return out;
}

std::vector<CWrite> planWrites(long long diskBytes, long long grainBytes, std::mt19937& random)
{
    std::vector<CWrite> writes;
    for (int i = 0; i < 3 && diskBytes > 0; ++i) {
        long long position = static_cast<long long>(random() % static_cast<unsigned long long>(diskBytes));
        if (random() % 2) position -= position % grainBytes;
        long long wanted = 1 + static_cast<long long>(random() % static_cast<unsigned long long>(2 * grainBytes));
        long long bytes = std::min({wanted, diskBytes - position, maxWriteBytes});
        CWrite w{position, std::vector<unsigned char>(static_cast<size_t>(bytes))};
        // Runs of one byte compress; the rest does not.
        unsigned char value = static_cast<unsigned char>(random());
        for (size_t k = 0; k < w.data.size(); ++k) w.data[k] = k % 512 < 256 ? value : static_cast<unsigned char>(random());
        writes.push_back(std::move(w));
    }
    return writes;
}

// The grains sampled for comparison: the written ones, their neighbours,
// and grains spread over the disk.
std::vector<long long> sampleGrains(long long diskBytes, long long grainBytes, const std::vector<CWrite>& writes)
{
    long long grains = (diskBytes + grainBytes - 1) / grainBytes;
    std::vector<long long> out;
    for (long long i = 0; i < sampledGrains / 2 && grains > 0; ++i) out.push_back(i * grains / (sampledGrains / 2));
    for (const CWrite& w : writes)
        for (long long g = w.position / grainBytes - 1;
             g <= (w.position + static_cast<long long>(w.data.size())) / grainBytes + 1; ++g)
            if (g >= 0 && g < grains) out.push_back(g);
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

// Applies the writes to a copy of the sampled contents.
Contents expectedAfter(Contents contents, long long grainBytes, const std::vector<CWrite>& writes)
{
    for (const CWrite& w : writes)
        for (size_t k = 0; k < w.data.size(); ++k) {
            long long at = w.position + static_cast<long long>(k);
            auto it = contents.find(at / grainBytes);
            if (it != contents.end()) it->second[static_cast<size_t>(at % grainBytes)] = w.data[k];
        }
    return contents;
}

void exercise(zu::IFileSystem* fs, bool preparedGrains, unsigned seed)
{
    std::vector<CWrite> writes;
    std::vector<long long> grains;
    Contents before;
    long long grainBytes = 0;
    {
        zu::P<kord::CVMDKDisk> disk = openDisk(fs, zu::IIOStream::accessRead);
        grainBytes = disk->getGrainSizeBytes();
        std::mt19937 random(seed);
        writes = planWrites(disk->getDiskSizeBytes(), grainBytes, random);
        grains = sampleGrains(disk->getDiskSizeBytes(), grainBytes, writes);
        before = readSample(*disk, grains);
    }
    try {
        zu::P<kord::CVMDKDisk> disk = openDisk(fs, zu::IIOStream::accessReadWrite);
        for (const CWrite& w : writes) {
            disk->seek(w.position);
            disk->write(w.data.data(), static_cast<int>(w.data.size()));
        }
        if (preparedGrains && disk->getDiskSizeBytes() >= 2 * grainBytes) {
            // A grain copied in prepared form onto the next one.
            zu::TBuffer<unsigned char> prepared;
            disk->seek(0);
            disk->readPreparedGrainData(prepared);
            disk->writePreparedGrainData(prepared);
            std::vector<unsigned char> copy(static_cast<size_t>(grainBytes));
            disk->seek(0);
            disk->read(copy.data(), static_cast<int>(grainBytes));
            writes.push_back(CWrite{grainBytes, copy});
        }
        disk->flushChanges();
    } catch (const zu::CError&) {
        return; // which bytes a failed write left is not defined
    }
    zu::P<kord::CVMDKDisk> disk = openDisk(fs, zu::IIOStream::accessRead);
    Contents expected = expectedAfter(before, grainBytes, writes);
    Contents after = readSample(*disk, grains);
    // Grains that read before read the same now, but for what was written.
    for (const auto& [grain, bytes] : expected)
        if (after.count(grain) == 0 || after[grain] != bytes) std::abort();
    // Every written byte reads back.
    for (const CWrite& w : writes) {
        std::vector<unsigned char> back(w.data.size());
        disk->seek(w.position);
        disk->read(back.data(), static_cast<int>(back.size()));
        if (back != w.data) std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > fuzzMaxInputBytes || size < 5) return 0;
    zu::P<zu::CMemoryFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
    std::size_t at = 5;
    for (const char* name : fileNames) {
        if (size - at < 4) break;
        std::size_t length = std::min<std::size_t>(zu::loadLE32(data + at), size - at - 4);
        at += 4;
        if (length > 0) putFile(fs, name, data + at, length);
        at += length;
    }
    try {
        exercise(fs, (data[0] & 1) != 0, zu::loadLE32(data + 1));
    } catch (const zu::CError&) {
    }
    return 0;
}

namespace {

// The files of a disk made in memory, in the input format.
std::vector<std::uint8_t> packFiles(zu::CMemoryFileSystem* fs, std::uint8_t flags)
{
    std::vector<std::uint8_t> out = {flags, 1, 2, 3, 4};
    for (const char* name : fileNames) {
        zu::P<zu::TBuffer<unsigned char>> bytes = fs->getFileData(fileURI(name));
        std::uint32_t length = bytes ? static_cast<std::uint32_t>(bytes->getUsed()) : 0;
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
        if (bytes) out.insert(out.end(), bytes->getData(), bytes->getData() + bytes->getUsed());
    }
    return out;
}

// Re-wraps an encrypted disk's key under 1000 PBKDF2 iterations, the
// fewest a disk may ask for: every open then costs a tenth as much.
void cheapenKeyDerivation(kord::CVMDKDisk& disk)
{
    if (!disk.isEncrypted()) return;
    kord::CVMDKDisk::storeEncryptionKeys(*disk.getDescriptor(), disk.getEncryptionKey(), disk.getEncryptionIV(),
                                         password, 1000);
    disk.storeDescriptor();
}

void writeSome(kord::CVMDKDisk& disk)
{
    std::vector<unsigned char> bytes(20000);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i % 700 < 300 ? 7 : i * 31);
    for (long long position : {0LL, 70000LL, disk.getDiskSizeBytes() - 20000}) {
        disk.seek(position);
        disk.write(bytes.data(), static_cast<int>(bytes.size()));
    }
    disk.flushChanges();
    cheapenKeyDerivation(disk);
}

zu::P<kord::CVMDKDisk> create(zu::IFileSystem* fs, const char* name, const char* type, const char* pass,
                              const char* parent)
{
    kord::CVMDKDisk::CCreateParams p;
    p.createType = type;
    p.capacitySectors = parent ? 0 : 4096;
    p.grainSizeSectors = 16;
    p.password = pass;
    if (parent) p.parentURI = fileURI(parent);
    return kord::CVMDKDisk::create(fs, fileURI(name), p);
}

// Two small extents behind a text descriptor.
void createSplit(zu::IFileSystem* fs)
{
    zu::TBuffer<unsigned char> zeros;
    zeros.setUsedFill(4096, 0);
    for (const char* name : {fileNames[1], fileNames[2]})
        kord::createEmptyVMDKSparseExtentFile(fs, fileURI(name), false, 2048, 16, zeros, nullptr, 0,
                                              zu::TBuffer<unsigned char>());
    std::string text = "# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n"
                       "createType=\"twoGbMaxExtentSparse\"\n\nRW 2048 SPARSE \"d-s001.vmdk\"\n"
                       "RW 2048 SPARSE \"d-s002.vmdk\"\n\nddb.adapterType = \"lsilogic\"\n";
    // Room for the lines a writer adds (a text descriptor keeps its size).
    text.resize(text.size() + 256, '\0');
    putFile(fs, fileNames[0], reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

} // namespace

std::vector<std::vector<std::uint8_t>> fuzzSeeds()
{
    std::vector<std::vector<std::uint8_t>> seeds;
    const char* const types[][2] = {{"monolithicSparse", ""}, {"monolithicSparse", password},
                                    {"streamOptimized", ""}, {"streamOptimized", password}};
    for (const auto& type : types) {
        zu::P<zu::CMemoryFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
        writeSome(*create(fs, fileNames[0], type[0], type[1], nullptr));
        seeds.push_back(packFiles(fs, 1));
    }
    {
        zu::P<zu::CMemoryFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
        writeSome(*create(fs, fileNames[3], "monolithicSparse", password, nullptr));
        zu::P<kord::CVMDKDisk> child = create(fs, fileNames[0], "monolithicSparse", password, fileNames[3]);
        std::vector<unsigned char> bytes(3000, 9);
        child->seek(100000);
        child->write(bytes.data(), static_cast<int>(bytes.size()));
        cheapenKeyDerivation(*child);
        child = nullptr;
        seeds.push_back(packFiles(fs, 0));
    }
    {
        zu::P<zu::CMemoryFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
        createSplit(fs);
        writeSome(*openDisk(fs, zu::IIOStream::accessReadWrite));
        seeds.push_back(packFiles(fs, 1));
    }
    return seeds;
}
