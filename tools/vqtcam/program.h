// The command line: one file per group of commands, each registers its own.
#pragma once

#include "session.h"

#include <CLI/CLI.hpp>

#include <functional>

struct Program {
    CLI::App app{"Works with VQT-42Rx cameras.", "vqtcam"};
    GlobalOptions global;
    std::function<void(Session &)> run; // of the command that was chosen

    CLI::App *command(const std::string &name, const std::string &text) { return app.add_subcommand(name, text); }
};

void addLookCommands(Program &program); // list, info, state
void addLogCommands(Program &program);  // trace, events
void addGrabCommand(Program &program);
void addSnapshotCommand(Program &program);
void addBadPixelsCommand(Program &program);
void addCameraCommands(Program &program); // command, register, slave
void addPipeCommand(Program &program);

// "12 AB 00"; bytes given as decimal or 0x numbers.
std::string hexBytes(std::span<const std::uint8_t> bytes);
std::vector<std::uint8_t> parseBytes(const std::vector<std::string> &texts); // throws Stop
