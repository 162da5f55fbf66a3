// kord: reads, writes, makes, converts and checks VMDK virtual disks
// through libkord. Every error ends the program with a line on standard
// error ("kord: <message> <properties>"), a line for each error that caused
// it, and exit status 2 (kord check: 1); so does a failure that the library
// could only report from a destructor.
#include "CatCommand.h"
#include "CheckCommand.h"
#include "CompareCommand.h"
#include "ConvertCommand.h"
#include "CreateCommand.h"
#include "InfoCommand.h"
#include "MapCommand.h"
#include "MountCommand.h"
#include "PasswdCommand.h"
#include "ToolSupport.h"
#include "WriteCommand.h"

#include "base/Log.h"

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv)
{
    kordtool::CToolLog log;
    int exitCode = kordtool::exitSuccess;
    CLI::App app("kord: read, write, make, convert and check VMDK virtual disks", "kord");
    app.require_subcommand(1);
    app.set_version_flag("--version", "kord " KORD_VERSION);
    kordtool::addCreateCommand(app);
    kordtool::addInfoCommand(app);
    kordtool::addConvertCommand(app);
    kordtool::addCatCommand(app);
    kordtool::addWriteCommand(app);
    kordtool::addMapCommand(app);
    kordtool::addCompareCommand(app, exitCode);
    CLI::App* check = kordtool::addCheckCommand(app, exitCode);
    kordtool::addPasswdCommand(app);
    kordtool::addMountCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);
        std::cerr << "kord: " << e.what() << " (kord --help lists the commands)" << std::endl;
        return check->parsed() ? kordtool::exitCheckIncomplete : kordtool::exitFailure;
    } catch (const std::exception& e) {
        kordtool::printError(e);
        return kordtool::exitFailure;
    }
    log.printHeldErrors();
    if (zu::getIgnoredDestructorErrorCount() > 0) return kordtool::exitFailure;
    return exitCode;
}
