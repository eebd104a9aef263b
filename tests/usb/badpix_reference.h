// What the repair of bad pixels must do, written to be read: places and neighbours as pairs of coordinates, no masks
// shifted around, no tables, nothing of the driver's code.
#pragma once

#include <cstdint>
#include <vector>

namespace reference {

struct Defect {
    int x, y;            // on the sensor, 0 to 65535
    unsigned type;       // 8 bits
    unsigned neighbours; // 8 bits: the usable ones around it, row by row: upper left 1, above 2, ... lower right 128
};

struct Window {
    std::int32_t startX, startY;
    int width, height; // of the image
    std::int32_t decimation;
    bool flipX, flipY;
    unsigned model;
};

struct Image {
    int width, height;
    std::vector<int> pixels;
    int &at(int x, int y)
    {
        return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
    }
    bool has(int x, int y) const
    {
        return x >= 0 && y >= 0 && x < width && y < height;
    }
};

// bits: 8 or 10.
void repair(Image &image, const Window &window, const std::vector<Defect> &defects, int bits);

// The usable neighbours of each defect, from the whole list.
std::vector<unsigned> neighbours(const std::vector<Defect> &defects);

} // namespace reference
