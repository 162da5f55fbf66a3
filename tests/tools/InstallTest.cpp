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
#include <cstring>

int main(int argc, char** argv)
{
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    zu::CURI uri = zu::CLocalFileSystem::pathToURI(zu::String(argv[argc - 1]));
    kord::CVMDKDisk::CCreateParams params;
    params.capacitySectors = 2048;
    const char text[] = "installed";
    kord::CVMDKDisk::create(fs, uri, params)->write(text, sizeof text);
    kord::CVMDKDisk disk(fs, uri, zu::IIOStream::accessRead, zu::String(), -1, nullptr, nullptr);
    char back[sizeof text];
    disk.read(back, sizeof back);
    std::printf("%s %lld\n", back, disk.getDiskSizeBytes());
    return std::strcmp(back, text) == 0 ? 0 : 1;
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
    const std::string prefix = temp.file("prefix");
    std::string out;
    ASSERT_EQ(0, kordtest::runCommand("cmake --install '" KORD_BINARY_DIR "' --prefix '" + prefix + "'", &out)) << out;

    std::string pcFile;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(prefix))
        if (entry.path().filename() == "kord.pc") pcFile = entry.path().string();
    ASSERT_FALSE(pcFile.empty()) << "kord.pc not installed";
    const std::string libdir = std::filesystem::path(pcFile).parent_path().parent_path().string();
    EXPECT_TRUE(std::filesystem::exists(prefix + "/include/kord/disk/CVMDKDisk.h"));
    EXPECT_TRUE(std::filesystem::exists(prefix + "/share/man/man1/kord.1"));
    EXPECT_EQ(0, kordtest::runCommand("'" + prefix + "/bin/kord' --help", &out)) << out;

    std::filesystem::create_directories(temp.file("app"));
    std::ofstream(temp.file("app/main.cpp")) << programSource;
    std::ofstream(temp.file("app/CMakeLists.txt")) << cmakeSource;

    // find_package(kord)
    ASSERT_EQ(0, kordtest::runCommand("cmake -S '" + temp.file("app") + "' -B '" + temp.file("app/build") +
                                          "' -G Ninja -DCMAKE_PREFIX_PATH='" + prefix + "' -DCMAKE_CXX_FLAGS='" +
                                          sanitizeFlags + "' && cmake --build '" + temp.file("app/build") + "'",
                                      &out))
        << out;
    ASSERT_EQ(0, kordtest::runCommand("'" + temp.file("app/build/app") + "' '" + temp.file("one.vmdk") + "'", &out))
        << out;
    EXPECT_EQ("installed 1048576\n", out);

    // pkg-config, with the prefix found from the .pc file's own place.
    ASSERT_EQ(0, kordtest::runCommand("PKG_CONFIG_PATH='" + libdir + "/pkgconfig' && export PKG_CONFIG_PATH && c++ " +
                                          sanitizeFlags + " -std=c++17 '" + temp.file("app/main.cpp") + "' -o '" +
                                          temp.file("app2") + "' $(pkg-config --cflags --libs kord) -Wl,-rpath,'" +
                                          libdir + "'",
                                      &out))
        << out;
    ASSERT_EQ(0, kordtest::runCommand("'" + temp.file("app2") + "' '" + temp.file("two.vmdk") + "'", &out)) << out;
    EXPECT_EQ("installed 1048576\n", out);
}

} // namespace
