// "cmake --install" gives a prefix from which a program outside the tree
// builds against libkord, through find_package(kord) and through
// pkg-config, and runs; the installed kord program and its man page are
// there too.
#include "common/TestUtil.h"

#include <filesystem>
#include <fstream>

namespace {

// Makes a disk, writes into it, reads it back through a second opening.
const char* const programSource = R"(#include "disk/CVMDKDisk.h"
#include "base/CLocalFileSystem.h"
#include <cstdio>
int main(int, char** argv)
{
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    zu::CURI uri = zu::CLocalFileSystem::pathToURI(zu::String(argv[1]));
    kord::CVMDKDisk::CCreateParams params;
    params.capacitySectors = 2048;
    kord::CVMDKDisk::create(fs, uri, params)->write("installed", 10);
    kord::CVMDKDisk disk(fs, uri, zu::IIOStream::accessRead, zu::String(), -1, nullptr, nullptr);
    char back[10];
    disk.read(back, 10);
    std::printf("%s %lld\n", back, disk.getDiskSizeBytes());
}
)";

const char* const cmakeSource = R"(cmake_minimum_required(VERSION 3.25)
project(installcheck CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(kord 0.1 REQUIRED)
add_executable(app main.cpp)
target_link_libraries(app PRIVATE kord::kord)
)";

// A sanitized build installs sanitized libraries: the program must be too.
#if defined(__SANITIZE_ADDRESS__)
const std::string sanitizeFlags = "-fsanitize=address,undefined";
#else
const std::string sanitizeFlags;
#endif

TEST(InstallTest, programBuildsAgainstInstalledPrefix)
{
    kordtest::TempDir temp;
    auto sh = [&](const std::string& command) { return kordtest::runIn(temp.path(), command); };
    const std::string prefix = temp.file("prefix");
    sh("cmake --install '" KORD_BINARY_DIR "' --prefix '" + prefix + "'");
    // The library's folder, where kord.pc is in pkgconfig/; the header, the
    // man page and the program.
    const std::string libdir = sh("dirname $(dirname $(find prefix -name kord.pc)) | tr -d '\\n'");
    sh("ls prefix/include/kord/disk/CVMDKDisk.h prefix/share/man/man1/kord.1.gz && prefix/bin/kord --help");

    std::filesystem::create_directories(temp.file("app"));
    std::ofstream(temp.file("app/main.cpp")) << programSource;
    std::ofstream(temp.file("app/CMakeLists.txt")) << cmakeSource;
    // find_package(kord)
    sh("cmake -S app -B app/build -G Ninja -DCMAKE_PREFIX_PATH='" + prefix + "' -DCMAKE_CXX_FLAGS='" + sanitizeFlags +
       "' && cmake --build app/build");
    EXPECT_EQ("installed 1048576\n", sh("app/build/app one.vmdk"));
    // pkg-config, with the prefix found from the .pc file's own place.
    sh("PKG_CONFIG_PATH='" + libdir + "/pkgconfig' && export PKG_CONFIG_PATH && c++ " + sanitizeFlags +
       " -std=c++17 app/main.cpp -o app2 $(pkg-config --cflags --libs kord) -Wl,-rpath,\"$PWD/" + libdir + "\"");
    EXPECT_EQ("installed 1048576\n", sh("./app2 two.vmdk"));
}

} // namespace
