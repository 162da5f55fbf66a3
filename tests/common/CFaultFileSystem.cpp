#include "common/CFaultFileSystem.h"

#include "base/CIOError.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace kordtest {

namespace {

using Bytes = std::vector<unsigned char>;

std::string keyOf(const zu::CURI& uri) { return uri.toNormalized().toString(false).toUTF8(); }

std::string folderOf(const std::string& key) { return key.substr(0, key.find_last_of('/') + 1); }

} // namespace

// What each file held at its last sync, and what happened to it since.
struct CFaultFileSystem::CModel {
    struct Op {
        long long offset = 0;
        Bytes data;
        long long truncateTo = -1; // a setLength instead of a write
    };
    struct Inode {
        Bytes durable;
        std::vector<Op> pending;
    };

    int newInode() { return inodes.emplace_back(), static_cast<int>(inodes.size()) - 1; }
    // The file's durable bytes with the pending operations that keep() picks
    // applied: a truncation whole, a write sector by sector, as a disk tears it.
    template <class Keep>
    static Bytes replay(const Inode& node, Keep keep)
    {
        Bytes file = node.durable;
        for (const Op& op : node.pending) {
            if (op.truncateTo >= 0) {
                if (keep()) file.resize(static_cast<size_t>(op.truncateTo), 0);
                continue;
            }
            const long long end = op.offset + static_cast<long long>(op.data.size());
            for (long long at = op.offset, next; at < end; at = next) {
                next = std::min(end, (at / 512 + 1) * 512);
                if (!keep()) continue;
                if (static_cast<long long>(file.size()) < next) file.resize(static_cast<size_t>(next), 0);
                std::memcpy(file.data() + at, op.data.data() + (at - op.offset), static_cast<size_t>(next - at));
            }
        }
        return file;
    }
    Bytes current(int inode) const { return replay(inodes[static_cast<size_t>(inode)], [] { return true; }); }
    void apply(int inode, Op op) { inodes[static_cast<size_t>(inode)].pending.push_back(std::move(op)); }
    void sync(int inode)
    {
        inodes[static_cast<size_t>(inode)].durable = current(inode);
        inodes[static_cast<size_t>(inode)].pending.clear();
    }

    std::vector<Inode> inodes;
    std::map<std::string, int> names;
    std::map<std::string, int> durableNames;
    long long armedCall = 0;
    Fault armedFault = Fault::ioError;
    bool crashed = false;
    std::vector<std::string> kinds;
};

// A stream on one file of the in-memory file system that tells the model what
// it writes and syncs.
class CFaultFileSystem::CStream : public zu::CBase, public zu::IIOStream, public zu::IDurableStream {
public:
    CStream(CFaultFileSystem* owner, zu::IIOStream* inner, int inode, const zu::CURI& uri)
        : owner(owner), inner(inner), inode(inode), uri(uri) {}

    void read(void* data, int bytes) override { inner->read(data, bytes); }
    int readLax(void* data, int bytes) override { return inner->readLax(data, bytes); }
    int readAvailable(void* data, int bytes) override { return inner->readAvailable(data, bytes); }
    bool waitReadable(int timeoutMs) const override { return inner->waitReadable(timeoutMs); }
    bool isEndOfStream() const override { return inner->isEndOfStream(); }
    bool isEndOfStream_NonBlocking() const override { return inner->isEndOfStream_NonBlocking(); }
    void write(const void* data, int bytes, zu::IWriteBarrier*) override { writeAt(static_cast<const unsigned char*>(data), bytes); }
    void writeKeepBuffer(const zu::TConstBufferSlice<unsigned char>& data, zu::IWriteBarrier*) override
    {
        writeAt(data.getData(), data.getLength());
    }
    zu::P<zu::IWriteBarrier> createWriteBarrier(zu::IWriteBarrier* chained) override { return inner->createWriteBarrier(chained); }
    void flush() override { inner->flush(); }
    void setLength(long long length) override
    {
        owner->enterCall("truncate", uri);
        inner->setLength(length);
        owner->model->apply(inode, {0, {}, length});
    }
    long long getLength() const override { return inner->getLength(); }
    long long getPosition() const override { return inner->getPosition(); }
    zu::CURI getURI() const override { return uri; }
    void seek(long long position) override { inner->seek(position); }
    void lockRange(long long start, long long length, LockType type) override { inner->lockRange(start, length, type); }
    void close() override { inner->close(); }
    void sync() override
    {
        owner->enterCall("sync", uri);
        inner->flush();
        owner->model->sync(inode);
    }

private:
    void writeAt(const unsigned char* data, long long bytes)
    {
        long long offset = inner->getPosition();
        long long cut = owner->enterCall("write", uri, bytes);
        long long done = cut >= 0 ? cut : bytes;
        inner->write(data, static_cast<int>(done));
        owner->model->apply(inode, {offset, Bytes(data, data + done)});
        if (cut >= 0)
            throw zu::CIOError(zu::CIOError::codeWrite, "Error writing data. Injected error after a short write.",
                               zu::CProps().set("uri", uri.toString(true)).set("bytes", bytes).set("written", done));
    }

    zu::P<CFaultFileSystem> owner;
    zu::P<zu::IIOStream> inner;
    int inode;
    zu::CURI uri;
};

CFaultFileSystem::CFaultFileSystem(const Files& files) : model(std::make_unique<CModel>())
{
    for (const auto& file : files) {
        zu::CURI uri{zu::String(file.first)};
        zu::P<zu::IIOStream> stream = CMemoryFileSystem::openStream(uri, zu::IIOStream::accessCreateNew, zu::CProps());
        if (!file.second.empty()) stream->write(file.second.data(), static_cast<int>(file.second.size()));
        model->inodes[static_cast<size_t>(model->names[keyOf(uri)] = model->newInode())].durable = file.second;
    }
    model->durableNames = model->names;
}

CFaultFileSystem::~CFaultFileSystem() = default;

void CFaultFileSystem::arm(long long call, Fault fault)
{
    model->armedCall = call;
    model->armedFault = fault;
}

long long CFaultFileSystem::getCallCount() const { return static_cast<long long>(model->kinds.size()); }

std::vector<std::string> CFaultFileSystem::getCallKinds() const { return model->kinds; }

long long CFaultFileSystem::enterCall(const char* kind, const zu::CURI& uri, long long bytes)
{
    bool data = std::strcmp(kind, "write") == 0 || std::strcmp(kind, "truncate") == 0 || std::strcmp(kind, "sync") == 0;
    zu::CProps props = zu::CProps().set("uri", uri.toString(true)).set("call", getCallCount() + 1);
    auto fail = [&](const char* what, int problem) -> long long {
        if (data) throw zu::CIOError(zu::CIOError::codeWrite, zu::String("Error writing data. ") + what, props);
        throw zu::CFileSystemError(problem, what, props);
    };
    if (model->crashed) fail("The process has crashed.", zu::CFileSystemError::problemIO);
    model->kinds.push_back(kind);
    if (getCallCount() != model->armedCall) return -1;
    if (model->armedFault == Fault::shortWrite && std::strcmp(kind, "write") == 0) return bytes / 2;
    if (model->armedFault == Fault::noSpace)
        return fail("Injected error: no space left on the device.", zu::CFileSystemError::problemNoSpace);
    model->crashed = model->armedFault == Fault::crash;
    return fail(model->crashed ? "The process has crashed." : "Injected error: input/output error.",
                zu::CFileSystemError::problemIO);
}

zu::P<zu::IIOStream> CFaultFileSystem::openStream(const zu::CURI& uri, int access, const zu::CProps& options)
{
    enterCall("open", uri);
    zu::P<zu::IIOStream> stream = CMemoryFileSystem::openStream(uri, access, options);
    std::string key = keyOf(uri);
    auto it = model->names.find(key);
    int inode = it != model->names.end() ? it->second : model->names[key] = model->newInode();
    return zu::newObj<CStream>(this, stream, inode, uri);
}

void CFaultFileSystem::deleteFile(const zu::CURI& uri, bool ignoreMissing)
{
    enterCall("delete", uri);
    CMemoryFileSystem::deleteFile(uri, ignoreMissing);
    model->names.erase(keyOf(uri));
}

void CFaultFileSystem::renameFile(const zu::CURI& from, const zu::CURI& to)
{
    enterCall("rename", from);
    CMemoryFileSystem::renameFile(from, to);
    std::string fromKey = keyOf(from), toKey = keyOf(to);
    model->names[toKey] = model->names.at(fromKey);
    model->names.erase(fromKey);
    // The folder is synced: its names as they stand now survive a power loss.
    std::string folder = folderOf(toKey);
    for (auto it = model->durableNames.begin(); it != model->durableNames.end();)
        it = folderOf(it->first) == folder ? model->durableNames.erase(it) : std::next(it);
    for (const auto& name : model->names)
        if (folderOf(name.first) == folder) model->durableNames.insert(name);
}

zu::P<zu::IBase> CFaultFileSystem::lockFile(const zu::CURI& uri, zu::IStreamBase::LockType type, bool wait,
                                            bool removeOnRelease)
{
    enterCall("lock", uri);
    return CMemoryFileSystem::lockFile(uri, type, wait, removeOnRelease);
}

CFaultFileSystem::Files CFaultFileSystem::getFiles() const
{
    Files out;
    for (const auto& name : model->names) out[name.first] = model->current(name.second);
    return out;
}

CFaultFileSystem::Files CFaultFileSystem::getFilesAfterPowerLoss(unsigned seed) const
{
    std::mt19937 rng(seed);
    Files out;
    for (const auto& name : model->durableNames)
        out[name.first] = CModel::replay(model->inodes[static_cast<size_t>(name.second)],
                                         [&] { return seed == 1 || (seed != 0 && rng() % 2 == 0); });
    return out;
}

} // namespace kordtest
