// Log lines reach the host's sink, and the default sink comes back.
#include "base/CIOError.h"
#include "base/Log.h"

#include "common/TestUtil.h"

#include <string>
#include <vector>

namespace {

struct Captured {
    zu::LogLevel level;
    std::string line;
};

// Installs a capturing sink for the scope of a test and restores the one before.
class CaptureLog {
public:
    CaptureLog()
    {
        previous = zu::setLogSink([this](zu::LogLevel level, const zu::String& line) {
            lines.push_back({level, line.toUTF8()});
        });
    }
    ~CaptureLog() { zu::setLogSink(previous); }
    std::vector<Captured> lines;

private:
    zu::LogSink previous;
};

} // namespace

TEST(Log, sinkReceivesLinesAndIsRestored)
{
    {
        CaptureLog log;
        zu::logWarning("Odd value tolerated.");
        zu::logError(std::runtime_error("boom"), "Flush failed.", "CVMDKDisk::close");
        zu::CIOError io(zu::CIOError::codeRead, "", zu::CProps().set("uri", "file:///d.vmdk"));
        zu::logWarning(io, "Retrying.");
        ASSERT_EQ(log.lines.size(), 3u);
        EXPECT_EQ(log.lines[0].level, zu::LogLevel::warning);
        EXPECT_EQ(log.lines[0].line, "Odd value tolerated.");
        EXPECT_EQ(log.lines[1].level, zu::LogLevel::error);
        EXPECT_EQ(log.lines[1].line, "Flush failed. (in CVMDKDisk::close) Error: boom");
        EXPECT_EQ(log.lines[2].line, "Retrying. Error: Error reading data. uri=file:///d.vmdk");
        {
            CaptureLog inner;
            zu::logError("nested");
            EXPECT_EQ(inner.lines.size(), 1u);
        }
        zu::logError("back to the outer sink");
        EXPECT_EQ(log.lines.size(), 4u);
    }
    // The default sink is back: it writes to standard error.
    testing::internal::CaptureStderr();
    zu::logWarning("to stderr");
    zu::logError("also to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kord warning: to stderr\nkord error: also to stderr\n");
}

TEST(Log, destructorIgnoredNamesClassAndWholeError)
{
    CaptureLog log;
    zu::CError cause("Disk full.");
    zu::CIOError error(zu::CIOError::codeWrite, "", zu::CProps().set("uri", "file:///x.vmdk"), &cause);
    zu::onExceptionInDestructorIgnored("kord::CVMDKGrain", error);
    zu::onExceptionInDestructorIgnored("kord::CVMDKDisk", std::runtime_error("plain"), false);
    zu::setLogSink([](zu::LogLevel, const zu::String&) { throw std::runtime_error("sink broken"); });
    zu::onExceptionInDestructorIgnored("kord::CVMDKDisk", error); // a failing sink is swallowed
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[0].level, zu::LogLevel::error);
    EXPECT_EQ(log.lines[0].line,
              "Exception ignored in destructor of kord::CVMDKGrain: Error writing data. uri=file:///x.vmdk <- Disk full.");
    EXPECT_EQ(log.lines[1].level, zu::LogLevel::warning);
    EXPECT_EQ(log.lines[1].line, "Exception ignored in destructor of kord::CVMDKDisk: plain");
}
