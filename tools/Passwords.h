// Where passwords come from: a file named on the command line, the
// environment (KORD_PASSWORD, and KORD_NEW_PASSWORD for a password change or
// a new disk made from an encrypted one), or a prompt on the terminal that
// does not echo. Never from a command-line
// value, which other users could read from the process list.
#pragma once

#include "base/String.h"

#include <string>

namespace CLI {
class App;
}

namespace kordtool {

class CPasswordSource {
public:
    // Adds --password-file to a subcommand.
    void addOptions(CLI::App* command);
    // Adds --new-password-file too (kord passwd, kord convert).
    void addNewPasswordOption(CLI::App* command);

    // The password of existing disks: --password-file, else KORD_PASSWORD,
    // else asked once on the terminal with `prompt`. The answer is kept for
    // the rest of the run (a chain shares one password).
    zu::String get(const std::string& prompt);
    // The password for a disk being made: as get(), but a terminal prompt
    // asks twice and the answers must match. When the run has taken an
    // existing disk's password already (a conversion of an encrypted
    // disk), the new disk's is asked for separately, as getNew() does:
    // never silently the same.
    zu::String getForNewDisk(const std::string& prompt);
    // The replacement password of kord passwd: --new-password-file, else
    // KORD_NEW_PASSWORD, else asked twice on the terminal.
    zu::String getNew(const std::string& prompt);

private:
    bool tryGetGiven(const std::string& file, const char* variable, zu::String& password) const;

    std::string passwordFile;
    std::string newPasswordFile;
    bool known = false;
    zu::String knownPassword;
};

} // namespace kordtool
