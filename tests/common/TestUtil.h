// Shared test helpers: temporary folders, the two file systems every
// file-level test runs on, and checks for the exact errors the libraries throw.
#pragma once

#include "base/CError.h"
#include "base/CIOError.h"
#include "base/CLocalFileSystem.h"
#include "base/CMemoryFileSystem.h"
#include "base/CURI.h"
#include "base/IFileSystem.h"
#include "base/TBuffer.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace kordtest {

// A fresh folder under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return dirPath; }
    std::string file(const std::string& name) const { return dirPath + "/" + name; }

private:
    std::string dirPath;
};

// Fixture for cases that must pass on the in-memory and the local file
// system (the parameter: whether local).
class FileSystemTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override;
    // URI of a file in the test's folder.
    zu::CURI uri(const std::string& name) const;
    zu::P<zu::IFileSystem> fs;
    std::unique_ptr<TempDir> temp;
};

#define KORD_INSTANTIATE_FS(Fixture) \
    INSTANTIATE_TEST_SUITE_P(Fs, Fixture, testing::Bool(), [](const auto& info) { return info.param ? "Local" : "Memory"; })

// Runs f and returns the CError it throws (of class E); fails the test when
// nothing or something else is thrown.
template <class E = zu::CError>
E expectThrows(const std::function<void()>& f)
{
    try {
        f();
    } catch (const E& e) {
        return e;
    } catch (const std::exception& e) {
        ADD_FAILURE() << "unexpected exception: " << e.what();
        throw;
    }
    ADD_FAILURE() << "no exception thrown";
    throw std::runtime_error("no exception thrown");
}

std::string msg(const zu::CError& e);

// Runs f and checks that it throws E with this message and code.
template <class E = zu::CIOError>
E expectError(const std::function<void()>& f, const std::string& message, long long code)
{
    E e = expectThrows<E>(f);
    EXPECT_EQ(message, msg(e));
    EXPECT_EQ(code, e.getCode());
    return e;
}

// Whole-file helpers through a file system.
std::vector<unsigned char> readAll(zu::IFileSystem* fs, const zu::CURI& uri);
void writeAll(zu::IFileSystem* fs, const zu::CURI& uri, const std::vector<unsigned char>& data);
// Overwrites bytes at an offset of an existing file.
void patchFile(zu::IFileSystem* fs, const zu::CURI& uri, long long offset, const std::vector<unsigned char>& bytes);
std::vector<unsigned char> le32(unsigned v);
std::vector<unsigned char> le64(unsigned long long v);

// Deterministic pseudo-random bytes.
std::vector<unsigned char> pattern(std::size_t bytes, unsigned seed);

// Runs a shell command; returns its exit status and fills `output` with
// standard output and error.
int runCommand(const std::string& command, std::string* output = nullptr);
bool haveTool(const std::string& name);
// Runs a shell command in the folder `dir`; expects it to succeed and
// returns its output.
std::string runIn(const std::string& dir, const std::string& command);

// Fixture for cases on local files in a fresh folder with qemu-img and
// qemu-io at hand; they skip where those are missing.
class QemuTest : public testing::Test {
protected:
    void SetUp() override;
    std::string path(const std::string& name) const { return temp.file(name); }
    std::string sh(const std::string& command) { return runIn(temp.path(), command); }

    TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

} // namespace kordtest
