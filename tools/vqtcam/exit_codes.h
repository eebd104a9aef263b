// What the program's exit says; `vqtcam --help` prints the same list.
#pragma once

#include <stdexcept>
#include <string>

enum class Exit : int {
    done = 0,
    requestFailed = 1, // a camera, the driver or the simulated bus refused a request
    usage = 2,         // the command line does not say what to do
    noCamera = 3,      // no camera, or no driver, answers to the name
    file = 4,          // a file cannot be read or written
    timeLimit = 5,     // a snapshot's limit passed
};

constexpr const char *kExitCodes =
    "Exit codes: 0 done, 1 a request was refused, 2 wrong command line, 3 no such camera or no "
    "driver, 4 a file cannot be read or written, 5 a time limit passed.";

// Ends the command with the exit code and one line on stderr.
class Stop : public std::runtime_error {
public:
    Stop(Exit code, const std::string &message) : std::runtime_error(message), code(code) {}
    Exit code;
};
