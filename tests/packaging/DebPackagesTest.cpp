// The Debian packages that "cpack -G DEB" makes from this build: each holds
// its part of the installation, they depend on each other at exactly this
// version, lintian finds nothing to warn about, and unpacked side by side
// into an empty folder the program, the plugin and the Python package run.
#include "disk/DiskTestUtil.h"

#include <tuple>

namespace {

const std::string version = "0.1.0";

class DebPackagesTest : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "packages are made from a release build, not a sanitized one";
#endif
        const std::string cache = disktest::fileText(KORD_BINARY_DIR "/CMakeCache.txt");
        if (cache.find("\nCMAKE_INSTALL_PREFIX:PATH=/usr\n") == std::string::npos)
            GTEST_SKIP() << "packages are made from a build configured with -DCMAKE_INSTALL_PREFIX=/usr";
        for (const char* program : {"cpack", "dpkg-deb", "dpkg-shlibdeps"})
            if (!kordtest::haveTool(program)) GTEST_SKIP() << program << " is not installed (packages cmake, dpkg-dev)";
    }

    std::string sh(const std::string& command) { return kordtest::runIn(temp.path(), command); }

    kordtest::TempDir temp;
};

TEST_F(DebPackagesTest, packagesInstallWhatTheBuildInstalls)
{
    sh("cpack -G DEB --config '" KORD_BINARY_DIR "/CPackConfig.cmake' -B debs");
    // Name, files, what it depends on.
    std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> packages = {
        {"libkord0", {"usr/lib/x86_64-linux-gnu/libkord.so.0", "usr/lib/x86_64-linux-gnu/libpell.so.0",
                      "usr/lib/x86_64-linux-gnu/libzu.so.0"}, "libssl3"},
        {"libkord-dev", {"usr/include/kord/disk/CVMDKDisk.h", "usr/lib/x86_64-linux-gnu/libkord.so",
                         "usr/lib/x86_64-linux-gnu/pkgconfig/kord.pc", "usr/lib/x86_64-linux-gnu/cmake/kord/kordConfig.cmake"},
         "libkord0 (= " + version + ")"},
        {"kord", {"usr/bin/kord", "usr/share/man/man1/kord.1.gz"}, "libkord0 (= " + version + ")"},
    };
    if (std::filesystem::exists(KORD_BINARY_DIR "/nbdkit/nbdkit-kord-plugin.so"))
        packages.push_back({"nbdkit-plugin-kord", {"usr/lib/x86_64-linux-gnu/nbdkit/plugins/nbdkit-kord-plugin.so"}, "nbdkit ("});
    if (std::filesystem::exists(KORD_BINARY_DIR "/python/kord/__init__.py"))
        packages.push_back({"python3-kord", {"usr/lib/python3/dist-packages/kord/__init__.py"}, "python3 (<< 3."});
    std::string debs;
    for (const auto& [name, files, depends] : packages) {
        SCOPED_TRACE(name);
        const std::string deb = "debs/" + name + "_" + version + "_amd64.deb";
        debs += " " + deb;
        const std::string contents = sh("dpkg-deb -c " + deb);
        for (const std::string& file : files) EXPECT_NE(std::string::npos, contents.find("./" + file)) << contents;
        EXPECT_NE(std::string::npos, contents.find("./usr/share/doc/" + name + "/copyright")) << contents;
        EXPECT_NE(std::string::npos, sh("dpkg-deb -f " + deb + " Depends").find(depends));
        sh("dpkg-deb -x " + deb + " root");
    }
    // lintian finds nothing at error or warning level.
    EXPECT_EQ("", kordtest::haveTool("lintian") ? sh("lintian" + debs + " 2>&1 | grep -E '^(E|W):' || true") : "");
    EXPECT_EQ("kord " + version + "\n", sh("root/usr/bin/kord --version"));
    EXPECT_TRUE(!std::filesystem::exists(temp.file("root/usr/lib/python3/dist-packages/kord")) ||
                sh("PYTHONPATH=root/usr/lib/python3/dist-packages /usr/bin/python3 -c "
                   "'import kord; print(kord.__version__)'") == version + "\n");
    const std::string plugin = "root/usr/lib/x86_64-linux-gnu/nbdkit/plugins/nbdkit-kord-plugin.so";
    EXPECT_TRUE(!std::filesystem::exists(temp.file(plugin)) || !kordtest::haveTool("nbdkit") ||
                sh("nbdkit " + plugin + " --dump-plugin").find("version=" + version) != std::string::npos);
}

} // namespace
