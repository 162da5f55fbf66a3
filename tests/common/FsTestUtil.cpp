#include "TestUtil.h"

namespace kordtest {

void FileSystemTest::SetUp()
{
    temp = std::make_unique<TempDir>();
    if (GetParam() == FsKind::memory)
        fs = zu::newObj<zu::CMemoryFileSystem>();
    else
        fs = zu::newObj<zu::CLocalFileSystem>();
}

zu::CURI FileSystemTest::uri(const std::string& name) const
{
    return zu::CLocalFileSystem::pathToURI(zu::String(temp->file(name)));
}

std::vector<unsigned char> readAll(zu::IFileSystem* fs, const zu::CURI& uri)
{
    zu::P<zu::IIOStream> s = fs->openStream(uri, zu::IIOStream::accessRead, zu::CProps());
    std::vector<unsigned char> data(static_cast<std::size_t>(s->getLength()));
    if (!data.empty()) s->read(data.data(), static_cast<int>(data.size()));
    s->close();
    return data;
}

void writeAll(zu::IFileSystem* fs, const zu::CURI& uri, const std::vector<unsigned char>& data)
{
    zu::P<zu::IIOStream> s = fs->openStream(uri, zu::IIOStream::accessOpenOrCreate, zu::CProps());
    s->setLength(0);
    if (!data.empty()) s->write(data.data(), static_cast<int>(data.size()));
    s->close();
}

void patchFile(zu::IFileSystem* fs, const zu::CURI& uri, long long offset, const std::vector<unsigned char>& bytes)
{
    zu::P<zu::IIOStream> s = fs->openStream(uri, zu::IIOStream::accessReadWrite, zu::CProps());
    s->seek(offset);
    s->write(bytes.data(), static_cast<int>(bytes.size()));
    s->close();
}

} // namespace kordtest
