// The errno that servers of disks answer with for each kind of failure: the
// operating system's own where a cause carries it, else one chosen from the
// error's class and code. (Missing and existing files, a held lock, corrupt
// data, a bad seek and a failed write are checked through the Python
// package's errors.)
#include "common/TestUtil.h"

#include "base/Errno.h"

#include <cerrno>

TEST(ErrnoTest, eachErrorGetsItsErrno)
{
    const zu::CFileSystemError full(zu::CFileSystemError::problemNoSpace, "Cannot write.",
                                    zu::CProps().set("osError", EDQUOT));
    const struct { const char* name; std::function<void()> raise; int expected; } cases[] = {
        {"os error of the cause", [&] { throw zu::CIOError(zu::CIOError::codeWrite, "", zu::CProps(), &full); }, EDQUOT},
        {"os error that is no number",
         [] { throw zu::CFileSystemError(zu::CFileSystemError::problemNoSpace, "x", zu::CProps().set("osError", "many")); },
         ENOSPC},
        {"denied", [] { throw zu::CFileSystemError(zu::CFileSystemError::problemAccessDenied, "x"); }, EACCES},
        {"unsupported", [] { throw zu::CFileSystemError(zu::CFileSystemError::problemNotSupported, "x"); }, EOPNOTSUPP},
        {"closed stream", [] { throw zu::CIOError(zu::CIOError::codeClosed); }, EBADF},
        {"wrong password", [] { throw zu::CError("Specified VMDK encryption password is not correct."); }, EIO},
        {"allocation", [] { throw std::bad_alloc(); }, ENOMEM},
    };
    for (const auto& c : cases) {
        try {
            c.raise();
            ADD_FAILURE() << c.name << ": nothing thrown";
        } catch (const std::exception& error) {
            EXPECT_EQ(c.expected, zu::errnoOf(error)) << c.name;
        }
    }
}
