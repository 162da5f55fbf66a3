// Helpers shared by the disk and tool tests: making and opening disks, a
// sparse model of what a disk should hold, whole files and snapshots of a
// folder's files, and editing a disk's descriptor behind the disk's back.
#pragma once

#include "common/TestUtil.h"

#include "descriptor/CVMDKDescriptorAccessor.h"
#include "disk/CVMDKChecker.h"
#include "disk/CVMDKDisk.h"
#include "format/CVMDKLowLevelFileStream.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

namespace disktest {

using kord::CVMDKDisk;
using Bytes = std::vector<unsigned char>;

constexpr int R = zu::IIOStream::accessRead;
constexpr int RW = zu::IIOStream::accessReadWrite;
constexpr long long sector = 512;
constexpr long long grainSectors = 128;
constexpr long long grainBytes = grainSectors * sector;
constexpr long long splitSectors = CVMDKDisk::maxSplitExtentSectors;
constexpr const char* password = "pässwörd";

inline zu::CURI fileURI(const std::string& path) { return zu::CLocalFileSystem::pathToURI(zu::String(path)); }
inline zu::String zuText(const std::string& text) { return zu::String::fromUTF8(text.data(), text.size()); }

inline CVMDKDisk::CCreateParams params(const std::string& type, long long capacitySectors,
                                       const std::string& pass = std::string(), const zu::CURI& parent = zu::CURI())
{
    CVMDKDisk::CCreateParams p;
    p.createType = zu::String(type), p.capacitySectors = capacitySectors, p.password = zuText(pass), p.parentURI = parent;
    return p;
}

inline zu::P<CVMDKDisk> openDisk(zu::IFileSystem* fs, const zu::CURI& uri, int access,
                                 const std::string& pass = std::string())
{
    return zu::newObj<CVMDKDisk>(fs, uri, access, zuText(pass), -1, nullptr, nullptr);
}

// The checker's findings, by kind name.
inline std::vector<std::string> findingKinds(zu::IFileSystem* fs, const zu::CURI& uri, const std::string& pass = "")
{
    std::vector<std::string> out;
    for (const auto& f : kord::CVMDKChecker(fs, uri, zuText(pass)).check())
        out.push_back(kord::CVMDKChecker::getKindName(f.kind));
    return out;
}

// A single-file disk's extent read through the library, to find where to patch.
inline zu::P<kord::CVMDKSparseExtentFile> inspectExtent(zu::IFileSystem* fs, const zu::CURI& uri)
{
    return zu::newObj<kord::CVMDKSparseExtentFile>(kord::openVMDKFileStream(fs, uri, R), R, 0, -1,
                                                   zu::newObj<kord::CVMDKGrainTableCache>(64), nullptr, nullptr, nullptr,
                                                   zu::TCryptBuffer<unsigned char>(), zu::TBuffer<unsigned char>());
}

// Points a grain's entry in a single-file disk elsewhere: in the redundant
// grain table and, unless told otherwise, in the primary one too.
inline void patchGrainEntry(zu::IFileSystem* fs, const zu::CURI& uri, long long grain, long long posSectors,
                            bool bothCopies = true)
{
    zu::P<kord::CVMDKGrainDirectory> directory = inspectExtent(fs, uri)->getGrainDirectory();
    const long long offset = grain % 512 * 4;
    const Bytes entry = kordtest::le32(static_cast<unsigned>(posSectors));
    kordtest::patchFile(fs, uri, directory->getRedundantEntries()[grain / 512] * sector + offset, entry);
    if (bothCopies) kordtest::patchFile(fs, uri, directory->getEntries()[grain / 512] * sector + offset, entry);
}

// What one attempt did: "" when it went through, else the error's message.
inline std::string outcome(const std::function<void()>& action)
{
    try {
        action();
        return "";
    } catch (const zu::CError& e) {
        return kordtest::msg(e);
    }
}

inline void writeAt(CVMDKDisk& disk, long long position, const Bytes& data)
{
    disk.seek(position);
    disk.write(data.data(), static_cast<int>(data.size()));
}

inline Bytes readAt(CVMDKDisk& disk, long long position, long long bytes)
{
    Bytes out(static_cast<size_t>(bytes));
    disk.seek(position);
    disk.read(out.data(), static_cast<int>(bytes));
    return out;
}

// What a disk should hold, grain by grain; grains never written are zeros.
class Mirror {
public:
    explicit Mirror(long long sizeBytes) : sizeBytes(sizeBytes) {}
    void write(long long position, const Bytes& data)
    {
        for (size_t done = 0; done < data.size();) {
            long long pos = position + static_cast<long long>(done);
            Bytes& grain = grains[pos / grainBytes];
            grain.resize(grainBytes);
            size_t n = std::min(data.size() - done, static_cast<size_t>(grainBytes - pos % grainBytes));
            std::memcpy(grain.data() + pos % grainBytes, data.data() + done, n);
            done += n;
        }
    }
    Bytes read(long long position, long long bytes) const
    {
        Bytes out(static_cast<size_t>(bytes), 0);
        for (long long done = 0; done < bytes;) {
            long long pos = position + done;
            long long n = std::min(bytes - done, grainBytes - pos % grainBytes);
            auto it = grains.find(pos / grainBytes);
            if (it != grains.end()) std::memcpy(out.data() + done, it->second.data() + pos % grainBytes, n);
            done += n;
        }
        return out;
    }
    // The grains written so far, and the first grain after each.
    std::vector<long long> touchedGrains() const
    {
        std::vector<long long> out;
        long long last = (sizeBytes - 1) / grainBytes;
        for (const auto& g : grains)
            for (long long i = g.first; i <= std::min(g.first + 1, last); ++i)
                if (out.empty() || out.back() < i) out.push_back(i);
        return out;
    }
    long long size() const { return sizeBytes; }

private:
    long long sizeBytes;
    std::map<long long, Bytes> grains;
};

// Compares the disk with the mirror over every written grain and its
// successor (a whole disk would be too much to read for the big ones).
inline void expectMatches(CVMDKDisk& disk, const Mirror& mirror, const std::string& when)
{
    ASSERT_EQ(mirror.size(), disk.getDiskSizeBytes());
    for (long long grain : mirror.touchedGrains()) {
        long long pos = grain * grainBytes;
        long long n = std::min(grainBytes, mirror.size() - pos);
        ASSERT_TRUE(readAt(disk, pos, n) == mirror.read(pos, n)) << when << ": grain " << grain;
    }
}

inline std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void putFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Every file of a folder with its bytes: equal snapshots prove that nothing
// was created, deleted or changed.
inline std::map<std::string, std::string> snapshot(const std::string& dir)
{
    std::map<std::string, std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        if (entry.is_regular_file()) out[entry.path().filename().string()] = fileText(entry.path().string());
    return out;
}

// A main file's descriptor through the library's accessor, which keeps its
// room: an edit that no longer fits fails (test descriptor files whose text
// must grow are rewritten whole with putFile).
inline zu::P<kord::CVMDKDescriptorAccessor> descriptorAccessor(const std::string& file, int access = R)
{
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    return zu::newObj<kord::CVMDKDescriptorAccessor>(kord::openVMDKFileStream(fs, fileURI(file), access), access);
}

inline unsigned contentID(const std::string& file) { return descriptorAccessor(file)->getDescriptor()->getContentID(); }

inline void editDescriptor(const std::string& file, const std::function<void(kord::CVMDKDescriptor&)>& edit)
{
    zu::P<kord::CVMDKDescriptorAccessor> accessor = descriptorAccessor(file, RW);
    edit(*accessor->getDescriptor());
    accessor->storeDescriptor(true);
}

inline std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    const size_t at = text.find(from);
    EXPECT_NE(std::string::npos, at) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// Disks in a fresh folder of the local file system, named by file name.
class DiskFolderTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return temp.file(name); }
    zu::CURI uri(const std::string& name) const { return fileURI(temp.file(name)); }
    zu::P<CVMDKDisk> create(const std::string& name, const std::string& type, long long sectors,
                            const std::string& pass = "", const std::string& parent = "")
    {
        return CVMDKDisk::create(fs, uri(name), params(type, sectors, pass, parent.empty() ? zu::CURI() : uri(parent)));
    }
    zu::P<CVMDKDisk> open(const std::string& name, int access, const std::string& pass = "")
    {
        return openDisk(fs, uri(name), access, pass);
    }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

} // namespace disktest
