#include "Passwords.h"

#include "ToolSupport.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <termios.h>
#include <unistd.h>

namespace kordtool {

namespace {

// The first line of the file, without its line end.
zu::String readPasswordFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw toolError("Cannot read the password file.", zu::CProps().set("path", zu::String(path)));
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) throw toolError("The password file is empty.", zu::CProps().set("path", zu::String(path)));
    return zu::String(line);
}

void writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

// Restores the terminal's echo however the read ends.
class CEchoOff {
public:
    explicit CEchoOff(int fd) : fd(fd)
    {
        active = ::tcgetattr(fd, &saved) == 0;
        if (!active) return;
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    ~CEchoOff()
    {
        if (active) ::tcsetattr(fd, TCSAFLUSH, &saved);
    }
    CEchoOff(const CEchoOff&) = delete;
    CEchoOff& operator=(const CEchoOff&) = delete;

private:
    int fd;
    termios saved;
    bool active;
};

// Asks on the controlling terminal, so that standard input and output stay
// free for data (kord cat, kord write -).
// `sources`: where else the password could have come from, for the error
// when there is no terminal.
zu::String promptPassword(const std::string& prompt, const char* sources = "--password-file or KORD_PASSWORD")
{
    int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        throw toolError("A password is needed, but there is no terminal to ask for it: use " + std::string(sources) +
                        ".");
    std::string line;
    {
        CEchoOff echoOff(fd);
        writeAll(fd, prompt);
        char c;
        for (;;) {
            ssize_t n = ::read(fd, &c, 1);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0 || c == '\n') break;
            line += c;
        }
        writeAll(fd, "\n");
    }
    ::close(fd);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) throw toolError("No password was given.");
    return zu::String(line);
}

zu::String promptNewPassword(const std::string& prompt, const char* sources = "--password-file or KORD_PASSWORD")
{
    zu::String first = promptPassword(prompt, sources);
    zu::String second = promptPassword("Repeat the password: ");
    if (first != second) throw toolError("The two passwords differ.");
    return first;
}

} // namespace

void CPasswordSource::addOptions(CLI::App* command)
{
    command->add_option("--password-file", passwordFile,
                        "Read the disk's password from the first line of FILE (else KORD_PASSWORD, else a prompt)")
        ->type_name("FILE");
}

void CPasswordSource::addNewPasswordOption(CLI::App* command)
{
    command->add_option("--new-password-file", newPasswordFile,
                        "Read the new password from the first line of FILE (else KORD_NEW_PASSWORD, else a prompt)")
        ->type_name("FILE");
}

bool CPasswordSource::tryGetGiven(const std::string& file, const char* variable, zu::String& password) const
{
    if (!file.empty()) {
        password = readPasswordFile(file);
        return true;
    }
    const char* value = std::getenv(variable);
    if (value && *value) {
        password = zu::String(value);
        return true;
    }
    return false;
}

zu::String CPasswordSource::get(const std::string& prompt)
{
    if (known) return knownPassword;
    if (!tryGetGiven(passwordFile, "KORD_PASSWORD", knownPassword)) knownPassword = promptPassword(prompt);
    known = true;
    return knownPassword;
}

zu::String CPasswordSource::getForNewDisk(const std::string& prompt)
{
    if (known) return getNew(prompt);
    if (!tryGetGiven(passwordFile, "KORD_PASSWORD", knownPassword)) knownPassword = promptNewPassword(prompt);
    known = true;
    return knownPassword;
}

zu::String CPasswordSource::getNew(const std::string& prompt)
{
    zu::String password;
    if (!tryGetGiven(newPasswordFile, "KORD_NEW_PASSWORD", password))
        password = promptNewPassword(prompt, "--new-password-file or KORD_NEW_PASSWORD");
    return password;
}

} // namespace kordtool
