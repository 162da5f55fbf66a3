// The same cases on the in-memory and the local file system: open modes and
// their errors, positional I/O, lock files and range locks.
#include "common/TestUtil.h"

#include "base/CLockFile.h"

#include <chrono>
#include <thread>

using namespace zu;
using kordtest::expectThrows;
using kordtest::FileSystemTest;

namespace {

P<IIOStream> open(IFileSystem* fs, const CURI& uri, int access) { return fs->openStream(uri, access, CProps()); }

} // namespace

TEST_P(FileSystemTest, openModes)
{
    CURI file = uri("a.bin");
    auto missing = expectThrows<CFileSystemError>([&] { open(fs, file, IIOStream::accessRead); });
    EXPECT_EQ(missing.getProblem(), CFileSystemError::problemNotFound);
    EXPECT_EQ(missing.getProp("uri"), file.toString(true));

    open(fs, file, IIOStream::accessCreateNew)->write("abc", 3);
    auto exists = expectThrows<CFileSystemError>([&] { open(fs, file, IIOStream::accessCreateNew); });
    EXPECT_EQ(exists.getProblem(), CFileSystemError::problemAlreadyExists);
    EXPECT_EQ(exists.getProp("fileSysProblem"), "2");

    // Opening an existing file for creation keeps its contents.
    EXPECT_EQ(open(fs, file, IIOStream::accessOpenOrCreate)->getLength(), 3);

    P<IIOStream> readOnly = open(fs, file, IIOStream::accessRead);
    EXPECT_EQ(expectThrows<CIOError>([&] { readOnly->write("x", 1); }).getCode(), CIOError::codeWrite);
    EXPECT_EQ(expectThrows<CIOError>([&] { readOnly->setLength(0); }).getCode(), CIOError::codeWrite);
    char text[3];
    readOnly->read(text, 3);
    EXPECT_EQ(std::string(text, 3), "abc");
    EXPECT_THROW(open(fs, file, 0), CInvalidArgError);
}

TEST_P(FileSystemTest, positionalReadWriteAndShortRead)
{
    CURI file = uri("b.bin");
    auto data = kordtest::pattern(100000, 1);
    P<IIOStream> s = open(fs, file, IIOStream::accessOpenOrCreate);
    s->seek(5000);
    s->write(data.data(), static_cast<int>(data.size()));
    EXPECT_EQ(s->getPosition(), 105000);
    EXPECT_EQ(s->getLength(), 105000);

    // A second stream sees the bytes the first wrote; the gap reads as zeros.
    P<IIOStream> other = open(fs, file, IIOStream::accessRead);
    std::vector<unsigned char> back(105000);
    other->read(back.data(), 105000);
    EXPECT_EQ(std::vector<unsigned char>(back.begin(), back.begin() + 5000), std::vector<unsigned char>(5000, 0));
    EXPECT_EQ(std::vector<unsigned char>(back.begin() + 5000, back.end()), data);
    EXPECT_TRUE(other->isEndOfStream());

    other->seek(104990);
    auto shortRead = expectThrows<CIOError>([&] { other->read(back.data(), 20); });
    EXPECT_EQ(shortRead.getCode(), CIOError::codeEndOfData);
    EXPECT_EQ(kordtest::msg(shortRead), "Unexpected end of data.");
    EXPECT_EQ(shortRead.getProp("position"), "104990");
    EXPECT_EQ(shortRead.getProp("bytesToRead"), "20");
    EXPECT_EQ(other->getPosition(), 104990);
    EXPECT_EQ(other->readLax(back.data(), 20), 10);

    s->setLength(10);
    s->setLength(20);
    EXPECT_EQ(kordtest::readAll(fs, file), std::vector<unsigned char>(20, 0));
    EXPECT_EQ(fs->getFileSize(file), 20);

    s->close();
    s->close();
    EXPECT_EQ(expectThrows<CIOError>([&] { s->getLength(); }).getCode(), CIOError::codeClosed);
    EXPECT_EQ(expectThrows<CIOError>([&] { s->write("x", 1); }).getCode(), CIOError::codeClosed);
    EXPECT_EQ(s->getURI(), file);
}

TEST_P(FileSystemTest, sizeExistsDelete)
{
    CURI file = uri("c.bin");
    EXPECT_FALSE(fs->exists(file));
    EXPECT_EQ(expectThrows<CFileSystemError>([&] { fs->getFileSize(file); }).getProblem(), CFileSystemError::problemNotFound);
    EXPECT_EQ(expectThrows<CFileSystemError>([&] { fs->deleteFile(file, false); }).getProblem(),
              CFileSystemError::problemNotFound);
    fs->deleteFile(file, true);

    kordtest::writeAll(fs, file, kordtest::pattern(777, 2));
    EXPECT_TRUE(fs->exists(file));
    EXPECT_EQ(fs->getFileSize(file), 777);
    fs->deleteFile(file, false);
    EXPECT_FALSE(fs->exists(file));
}

TEST_P(FileSystemTest, lockFileConflicts)
{
    CURI lock = uri("disk.vmdk.lock");
    auto take = [&](IStreamBase::LockType type) { return fs->lockFile(lock, type, false, false); };
    {
        P<IBase> writer = take(IStreamBase::lockExclusive);
        auto e = expectThrows<CLockFileError>([&] { take(IStreamBase::lockExclusive); });
        EXPECT_EQ(kordtest::msg(e), "The lock file is held by another process.");
        EXPECT_EQ(e.getProp("uri"), lock.toString(true));
        EXPECT_EQ(e.getProblem(), CFileSystemError::problemLocked);
        EXPECT_THROW(take(IStreamBase::lockShared), CLockFileError);
    }
    {
        P<IBase> reader1 = take(IStreamBase::lockShared);
        P<IBase> reader2 = take(IStreamBase::lockShared);
        EXPECT_THROW(take(IStreamBase::lockExclusive), CLockFileError);
        // The same conflicts through the CLockFile wrapper.
        EXPECT_THROW(CLockFile(fs, lock, CLockFile::lockTypeWrite, false, false), CLockFileError);
        CLockFile reader3(fs, lock, CLockFile::lockTypeRead, false, false);
    }
    // Nobody holds the file that is left behind: it does not block.
    EXPECT_TRUE(fs->exists(lock));
    take(IStreamBase::lockExclusive);

    // A waiting taker gets the lock once the holder lets go.
    P<IBase> holder = take(IStreamBase::lockExclusive);
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        holder = nullptr;
    });
    P<IBase> waited = fs->lockFile(lock, IStreamBase::lockExclusive, true, false);
    releaser.join();
    EXPECT_TRUE(waited);
}

TEST_P(FileSystemTest, lockFileRemoveOnRelease)
{
    CURI lock = uri("disk.vmdk.lock");
    P<IBase> first = fs->lockFile(lock, IStreamBase::lockShared, false, true);
    P<IBase> second = fs->lockFile(lock, IStreamBase::lockShared, false, true);
    first = nullptr;
    EXPECT_TRUE(fs->exists(lock)) << "deleted while another reader held it";
    second = nullptr;
    EXPECT_FALSE(fs->exists(lock));

    // Through CLockFile, as a disk takes it.
    { CLockFile held(fs, lock, CLockFile::lockTypeWrite, false, true); EXPECT_TRUE(fs->exists(lock)); }
    EXPECT_FALSE(fs->exists(lock));
}

TEST_P(FileSystemTest, rangeLocks)
{
    CURI file = uri("d.bin");
    P<IIOStream> a = open(fs, file, IIOStream::accessOpenOrCreate);
    P<IIOStream> b = open(fs, file, IIOStream::accessReadWrite);
    a->lockRange(0, 100, IStreamBase::lockExclusive);
    auto e = expectThrows<CFileSystemError>([&] { b->lockRange(50, 10, IStreamBase::lockShared); });
    EXPECT_EQ(e.getProblem(), CFileSystemError::problemLocked);
    b->lockRange(100, 0, IStreamBase::lockExclusive);
    EXPECT_THROW(a->lockRange(1000000, 1, IStreamBase::lockShared), CFileSystemError);
    a->close();
    b->lockRange(0, 10, IStreamBase::lockExclusive);
}

KORD_INSTANTIATE_FS(FileSystemTest);

TEST(MemoryFileSystemTest, readOnlyMediumRefusesWritesAndNewLockFiles)
{
    auto fs = newObj<CMemoryFileSystem>();
    CURI file("file:///vm/disk.vmdk"), lock("file:///vm/disk.vmdk.lock");
    kordtest::writeAll(fs, file, {1, 2, 3});
    fs->lockFile(lock, IStreamBase::lockShared, false, false);
    fs->setReadOnly(true);
    for (int access : {IIOStream::accessReadWrite, IIOStream::accessOpenOrCreate})
        EXPECT_EQ(expectThrows<CFileSystemError>([&] { fs->openStream(file, access, CProps()); }).getProblem(),
                  CFileSystemError::problemAccessDenied);
    EXPECT_EQ(kordtest::readAll(fs, file), (std::vector<unsigned char>{1, 2, 3}));
    // An existing lock file can still be shared; a new one cannot be made.
    fs->lockFile(lock, IStreamBase::lockShared, false, false);
    EXPECT_EQ(expectThrows<CFileSystemError>([&] { fs->lockFile(CURI("file:///vm/x.lock"), IStreamBase::lockShared, false, false); })
                  .getProblem(),
              CFileSystemError::problemAccessDenied);
    // Spellings of one file name the same file.
    EXPECT_TRUE(fs->exists(CURI("file:///vm/./sub/../disk.vmdk")));
}
