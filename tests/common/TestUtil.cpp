#include "TestUtil.h"

#include "base/Endian.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace kordtest {

TempDir::TempDir()
{
    dirPath = (std::filesystem::temp_directory_path() / "kord-test-XXXXXX").string();
    if (!mkdtemp(dirPath.data())) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(dirPath, ec);
}

std::string msg(const zu::CError& e) { return e.getMessage().toUTF8(); }


std::vector<unsigned char> le64(unsigned long long v)
{
    std::vector<unsigned char> out(8);
    zu::storeLE64(out.data(), v);
    return out;
}

// Little-endian: the low four bytes of the 64-bit value come first.
std::vector<unsigned char> le32(unsigned v)
{
    std::vector<unsigned char> out = le64(v);
    out.resize(4);
    return out;
}

std::vector<unsigned char> pattern(std::size_t bytes, unsigned seed)
{
    std::mt19937 gen(seed);
    std::vector<unsigned char> out(bytes);
    for (auto& b : out) b = static_cast<unsigned char>(gen());
    return out;
}

int runCommand(const std::string& command, std::string* output)
{
    std::string full = command + " 2>&1";
    FILE* pipe = popen(full.c_str(), "r");
    if (!pipe) return -1;
    char buf[4096];
    std::string out;
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
    int status = pclose(pipe);
    if (output) *output = out;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string& name) { return runCommand("command -v " + name + " >/dev/null") == 0; }

std::string runIn(const std::string& dir, const std::string& command)
{
    std::string out;
    EXPECT_EQ(0, runCommand("cd '" + dir + "' && (" + command + ")", &out)) << command << "\n" << out;
    return out;
}

void QemuTest::SetUp()
{
    if (!haveTool("qemu-img") || !haveTool("qemu-io"))
        GTEST_SKIP() << "qemu-img or qemu-io is not installed (package qemu-utils): interop not checked";
}

void FileSystemTest::SetUp()
{
    temp = std::make_unique<TempDir>();
    fs = GetParam() ? zu::P<zu::IFileSystem>(zu::newObj<zu::CLocalFileSystem>())
                    : zu::P<zu::IFileSystem>(zu::newObj<zu::CMemoryFileSystem>());
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
    zu::P<zu::IIOStream>(fs->openStream(uri, zu::IIOStream::accessOpenOrCreate, zu::CProps()))->setLength(0);
    if (!data.empty()) patchFile(fs, uri, 0, data);
}

void patchFile(zu::IFileSystem* fs, const zu::CURI& uri, long long offset, const std::vector<unsigned char>& bytes)
{
    zu::P<zu::IIOStream> s = fs->openStream(uri, zu::IIOStream::accessReadWrite, zu::CProps());
    s->seek(offset);
    s->write(bytes.data(), static_cast<int>(bytes.size()));
    s->close();
}

} // namespace kordtest
