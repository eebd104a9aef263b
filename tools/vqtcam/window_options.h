// The options that several commands share: the window and depth of the pictures, and how they are written.
#pragma once

#include "client/camera.h"
#include "picture_file.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

struct WindowOptions {
    std::optional<std::int32_t> x, y, width, height, decimation;
    bool flipX = false, flipY = false;
    std::optional<std::uint32_t> bits;
    std::optional<std::uint32_t> setting; // alternate setting

    void addTo(CLI::App &command);
    // Sets what was given, leaves the rest as the camera has it; returns the window in force.
    vqt::Geometry apply(vqt::Camera &camera) const;
};

struct PictureOptions {
    std::string out;
    std::string format = "png";
    bool mosaic = false;

    void addTo(CLI::App &command, const std::string &defaultOut, const std::string &outHelp);
    PictureFormat kind() const;
};
