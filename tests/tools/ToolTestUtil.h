// Running the kord program in a test's folder: its status, standard output
// and standard error, and the check that a failure is one line and status 2.
#pragma once

#include "disk/DiskTestUtil.h"

#include <tuple>

namespace {

struct CRun {
    int status;
    std::string out;
    std::string err;
};

class ToolFixture : public testing::Test {
protected:
    // Runs kord in the test's folder with the given arguments (and
    // environment assignments in front); no terminal and no input unless
    // the arguments redirect it.
    CRun kord(const std::string& args, const std::string& env = "")
    {
        int status = kordtest::runCommand("(cd '" + temp.path() + "' && " + env + " '" KORD_BINARY_DIR
                                          "/tools/kord' </dev/null " + args + " >out.txt 2>err.txt)");
        return CRun{status, disktest::fileText(file("out.txt")), disktest::fileText(file("err.txt"))};
    }

    // Status 2 (or `status`) and exactly one line "kord: <message>..." on
    // standard error, with `also` in it.
    void expectFailure(const CRun& run, const std::string& message, int status = 2, const std::string& also = "")
    {
        EXPECT_TRUE(run.status == status && run.err.rfind("kord: " + message, 0) == 0 &&
                    std::count(run.err.begin(), run.err.end(), '\n') == 1 && run.err.find(also) != std::string::npos)
            << run.status << ": " << run.err;
    }

    // Runs each command in turn: nullptr expects success, other text a
    // failure (status 2) starting with it.
    void expectSteps(const std::vector<std::tuple<std::string, std::string, const char*>>& steps)
    {
        for (const auto& [args, env, message] : steps) {
            CRun run = kord(args, env);
            if (message) expectFailure(run, message);
            else EXPECT_EQ(0, run.status) << args << ": " << run.err;
        }
    }

    // Runs each command, expecting success.
    void ok(std::initializer_list<std::string> commands, const std::string& env = "")
    {
        for (const std::string& args : commands) expectSteps({{args, env, nullptr}});
    }

    std::string file(const std::string& name) const { return temp.file(name); }
    void patch(const std::string& name, long long offset, unsigned char value)
    {
        kordtest::patchFile(fs, disktest::fileURI(file(name)), offset, {value});
    }
    void put(const std::string& name, const std::string& data) { disktest::putFile(file(name), data); }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

} // namespace
