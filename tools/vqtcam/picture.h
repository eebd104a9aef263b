// Pictures for looking at: what becomes of a camera's image before it is written to a file.
#pragma once

#include "client/image.h"

#include <cstdint>
#include <vector>

// Rows from the top; grey (1 channel) or red, green, blue (3).
struct Picture {
    std::uint32_t width = 0, height = 0;
    unsigned channels = 1;
    std::uint16_t maximum = 255; // 255 or 1023
    std::vector<std::uint16_t> samples;

    std::uint16_t at(std::uint32_t x, std::uint32_t y, unsigned channel = 0) const
    {
        return samples.at((std::size_t{y} * width + x) * channels + channel);
    }
};

// Where the colour mosaic starts. Its cell is R G over G B from the sensor's top left corner; decimation keeps the
// cell, a mirrored axis starts with the cell's other half.
struct MosaicPhase {
    unsigned x = 0, y = 0; // 0 or 1
    static MosaicPhase of(const vqt::Geometry &geometry);
};

Picture grey(const vqt::Image &image); // as it is, the mosaic included
Picture demosaic(const vqt::Image &image, MosaicPhase phase);
// |a - b| times gain, cut to the maximum; the two have to be of one size and depth.
Picture difference(const vqt::Image &a, const vqt::Image &b, unsigned gain);

struct DifferenceCount {
    std::uint64_t pixels = 0; // that differ at all
    unsigned largest = 0;
    double mean = 0; // over the pixels that differ
};
DifferenceCount countDifferences(const vqt::Image &a, const vqt::Image &b);
