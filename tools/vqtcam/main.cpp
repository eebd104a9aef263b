// vqtcam: the camera driver from the command line. Results on stdout, progress and errors on stderr.
#include "program.h"

#include <fmt/format.h>
#include <new>

namespace {

void addGlobalOptions(Program &program)
{
    GlobalOptions &global = program.global;
    CLI::App &app = program.app;
    app.require_subcommand(1);
    app.fallthrough(); // global options may follow the command
    app.add_option("-c,--camera", global.camera, "DeviceID of the camera to work on (default: the first one)");
    app.add_option("--sim", global.sims, kSimHelp)->expected(1)->take_all()->group("Simulated cameras");
    app.add_option("--fault", global.faults, kFaultHelp)->expected(1)->take_all()->group("Simulated cameras");
    app.add_option("--scene", global.scene, "Picture that the simulated cameras see instead of the drawn chart")
        ->group("Simulated cameras");
    app.add_flag("-v,--verbose", global.verbose, "Show the driver's trace on stderr while it runs");
    app.footer(
        std::string(
            vqt::Host::inProcess()
                ? "The simulated cameras live in this program; without --sim these are plugged in: model=1,mono and "
                  "model=3,colour.\n"
                : "Without --sim the cameras that are plugged in are used. Simulated ones need the simulated bus's "
                  "driver. For --verbose, trace and events: " +
                      vqt::Host::whereToLook() + ".\n") +
        kExitCodes);
    app.set_version_flag("--version", USBCAM_VERSION);
}

int fail(Exit code, const std::string &message)
{
    fmt::print(stderr, "vqtcam: {}\n", message);
    return static_cast<int>(code);
}

// What a status means for the exit code, wherever it came from.
Exit exitOf(vqt::NtStatus status)
{
    switch (status) {
    case vqt::status::kObjectNameNotFound:
    case vqt::status::kNoSuchDevice:
    case vqt::status::kDeviceRemoved:
    case vqt::status::kDeviceNotConnected:
        return Exit::noCamera;
    case vqt::status::kTimeout:
        return Exit::timeLimit;
    default:
        return Exit::requestFailed;
    }
}

int runProgram(int argc, char **argv)
{
    Program program;
    addGlobalOptions(program);
    addLookCommands(program);
    addLogCommands(program);
    addGrabCommand(program);
    addSnapshotCommand(program);
    addBadPixelsCommand(program);
    addCameraCommands(program);
    addPipeCommand(program);
    try {
        program.app.parse(argc, argv);
    } catch (const CLI::Success &asked) {
        return program.app.exit(asked);
    } catch (const CLI::ParseError &error) {
        return fail(Exit::usage, fmt::format("{}; see vqtcam --help", error.what()));
    }
    Session session(program.global);
    program.run(session);
    return static_cast<int>(Exit::done);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return runProgram(argc, argv);
    } catch (const Stop &stop) {
        return fail(stop.code, stop.what());
    } catch (const vqt::Failure &failure) {
        return fail(exitOf(failure.status()), failure.what());
    } catch (const std::bad_alloc &) {
        return fail(Exit::requestFailed, "out of memory; ask for fewer frames at a time");
    }
}
