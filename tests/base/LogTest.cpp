// Log lines reach the host's sink with their level, and the default sink
// comes back.
#include "base/CIOError.h"
#include "base/Log.h"

#include "common/TestUtil.h"

#include <string>
#include <vector>

// Lines carry their level, where they come from and the whole error chain;
// errors ignored in destructors are counted (warnings not), a failing sink
// is swallowed, and the default sink comes back.
TEST(Log, sinkReceivesLinesWithTheirErrorsAndIsRestored)
{
    // Each line prefixed with "W " or "E " for its level.
    std::vector<std::string> lines;
    const zu::LogSink previous = zu::setLogSink([&](zu::LogLevel level, const zu::String& line) {
        lines.push_back((level == zu::LogLevel::warning ? "W " : "E ") + line.toUTF8());
    });
    const long long errorsBefore = zu::getIgnoredDestructorErrorCount();
    zu::logError(std::runtime_error("boom"), "Flush failed.", "CVMDKDisk::close");
    zu::CError cause("Disk full.");
    zu::CIOError error(zu::CIOError::codeWrite, "", zu::CProps().set("uri", "file:///x.vmdk"), &cause);
    zu::logWarning(error, "Retrying.");
    zu::onExceptionInDestructorIgnored("kord::CVMDKGrain", error);
    zu::onExceptionInDestructorIgnored("kord::CVMDKDisk", std::runtime_error("plain"), false);
    zu::setLogSink([](zu::LogLevel, const zu::String&) { throw std::runtime_error("sink broken"); });
    zu::onExceptionInDestructorIgnored("kord::CVMDKDisk", error);
    EXPECT_EQ(errorsBefore + 2, zu::getIgnoredDestructorErrorCount());
    zu::setLogSink(previous);
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  "E Flush failed. (in CVMDKDisk::close) Error: boom",
                  "W Retrying. Error: Error writing data. uri=file:///x.vmdk <- Disk full.",
                  "E Exception ignored in destructor of kord::CVMDKGrain: Error writing data. uri=file:///x.vmdk <- "
                  "Disk full.",
                  "W Exception ignored in destructor of kord::CVMDKDisk: plain"}));
    // The default sink is back: it writes to standard error.
    testing::internal::CaptureStderr();
    zu::logWarning("to stderr");
    zu::logError("also to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kord warning: to stderr\nkord error: also to stderr\n");
}
