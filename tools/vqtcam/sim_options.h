// What the command line says about simulated cameras: which to plug in, what they see, what goes wrong.
#pragma once

#include "client/bay.h"

#include <string>
#include <string_view>
#include <vector>

// One --sim: words separated by commas.
struct SimCamera {
    vqt::PlugOptions plug;
    unsigned defects = 0;               // single bad pixels, at places that depend on their number and the sensor alone
    std::vector<std::uint16_t> rows;    // bad rows
    std::vector<std::uint16_t> columns; // bad columns
    std::string scene;                  // picture file; empty: the drawn chart
    std::optional<std::uint32_t> flat;  // every sample
};
SimCamera parseSimCamera(std::string_view text); // throws Stop

// One --fault: "lose:frame=3,line=17".
struct SimFault {
    simbus::LINE_FAULT line{};
    std::optional<unsigned> camera; // place among the --sim options, from 0; none: every simulated camera
};
SimFault parseSimFault(std::string_view text); // throws Stop

extern const char *const kSimHelp;
extern const char *const kFaultHelp;

struct SensorSize {
    std::uint32_t width, height;
};
SensorSize sensorSize(unsigned model);

// Records as the flash holds them, typed as the repair needs them on that sensor.
std::vector<simbus::DEFECT_RECORD> makeDefects(const SimCamera &camera);
