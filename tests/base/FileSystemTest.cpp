// The same cases on the in-memory and the local file system: open modes and
// their errors, and positional I/O. (Lock files are checked between real
// processes in the lock file tests and through disks that keep out a second
// writer; renames with the descriptors that grow by replacement.)
#include "common/TestUtil.h"

#include <sys/stat.h>

using namespace zu;
using namespace kordtest;

namespace {

P<IIOStream> open(IFileSystem* fs, const CURI& uri, int access) { return fs->openStream(uri, access, CProps()); }

} // namespace

TEST_P(FileSystemTest, openModesMissingFilesPositionalIOAndShortRead)
{
    CURI file = uri("a.bin");
    auto missing = expectThrows<CFileSystemError>([&] { open(fs, file, IIOStream::accessRead); });
    EXPECT_EQ(missing.getProblem(), CFileSystemError::problemNotFound);
    EXPECT_EQ(missing.getProp("uri"), file.toString(true));
    EXPECT_EQ(expectThrows<CFileSystemError>([&] { fs->deleteFile(file, false); }).getProblem(),
              CFileSystemError::problemNotFound);
    fs->deleteFile(file, true);

    open(fs, file, IIOStream::accessCreateNew)->write("abc", 3);
    auto exists = expectThrows<CFileSystemError>([&] { open(fs, file, IIOStream::accessCreateNew); });
    EXPECT_EQ(exists.getProblem(), CFileSystemError::problemAlreadyExists);
    EXPECT_EQ(exists.getProp("fileSysProblem"), "2");
    // Opening an existing file for creation keeps its contents.
    EXPECT_EQ(open(fs, file, IIOStream::accessOpenOrCreate)->getLength(), 3);

    P<IIOStream> readOnly = open(fs, file, IIOStream::accessRead);
    EXPECT_EQ(expectThrows<CIOError>([&] { readOnly->write("x", 1); }).getCode(), CIOError::codeWrite);
    EXPECT_EQ(expectThrows<CIOError>([&] { readOnly->setLength(0); }).getCode(), CIOError::codeWrite);
    EXPECT_THROW(open(fs, file, 0), CInvalidArgError);

    // Positional I/O and a short read.
    file = uri("b.bin");
    auto data = kordtest::pattern(100000, 1);
    P<IIOStream> s = open(fs, file, IIOStream::accessOpenOrCreate);
    s->seek(5000);
    s->write(data.data(), static_cast<int>(data.size()));

    // A second stream sees the bytes the first wrote; the gap reads as zeros.
    std::vector<unsigned char> expected(105000, 0);
    std::copy(data.begin(), data.end(), expected.begin() + 5000);
    EXPECT_EQ(kordtest::readAll(fs, file), expected);

    P<IIOStream> other = open(fs, file, IIOStream::accessRead);
    other->seek(104990);
    auto shortRead = kordtest::expectError([&] { other->read(expected.data(), 20); }, "Unexpected end of data.",
                                           CIOError::codeEndOfData);
    EXPECT_EQ(shortRead.getProp("position"), "104990");
    EXPECT_EQ(shortRead.getProp("bytesToRead"), "20");
    EXPECT_EQ(other->getPosition(), 104990);
    EXPECT_EQ(other->readLax(expected.data(), 20), 10);

    // Shrinking then growing leaves zeros, not the old bytes.
    s->setLength(10);
    s->setLength(20);
    EXPECT_EQ(kordtest::readAll(fs, file), std::vector<unsigned char>(20, 0));
    EXPECT_EQ(fs->getFileSize(file), 20);

    s->close();
    s->close();
    EXPECT_EQ(expectThrows<CIOError>([&] { s->write("x", 1); }).getCode(), CIOError::codeClosed);
}

KORD_INSTANTIATE_FS(FileSystemTest);

// What is not a regular file is refused at once, whatever the access: a
// FIFO without a writer would otherwise block the open forever. (FIFOs among
// a disk's files, and links that name one extent twice, are refused with the
// hostile disks.)
TEST(LocalFileSystemTest, onlyRegularFilesOpenAndNothingBlocks)
{
    kordtest::TempDir dir;
    P<IFileSystem> fs = newObj<CLocalFileSystem>();
    auto local = [&](const std::string& name) { return CLocalFileSystem::pathToURI(dir.file(name)); };
    ASSERT_EQ(0, ::mkfifo(dir.file("fifo").c_str(), 0600));
    ASSERT_EQ(0, ::mkdir(dir.file("folder").c_str(), 0700));
    const std::pair<CURI, std::string> special[] = {
        {CLocalFileSystem::pathToURI("/dev/null"), "Cannot open the file: it is a character device, not a regular file."},
        {local("folder"), "Cannot open the file: Is a directory."},
    };
    for (const auto& [file, message] : special) {
        for (int access : {IIOStream::accessRead, IIOStream::accessReadWrite}) {
            auto e = expectThrows<CFileSystemError>([&] { open(fs, file, access); });
            EXPECT_EQ(message, kordtest::msg(e));
            EXPECT_EQ(file.toString(true), e.getProp("uri"));
        }
    }
    EXPECT_EQ(CFileSystemError::problemNotRegularFile,
              expectThrows<CFileSystemError>([&] { fs->lockFile(local("fifo"), IStreamBase::lockShared, false, false); })
                  .getProblem());
}
