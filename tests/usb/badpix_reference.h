// What the repair of bad pixels must do, written to be read: places and neighbours as pairs of coordinates, no masks
// shifted around, no tables, nothing of the driver's code.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>
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

struct Step {
    int x, y;
};

// Around a pixel, row by row; bit number = place in this list.
constexpr Step kAround[8] = {{-1, -1}, {0, -1}, {1, -1}, {-1, 0}, {1, 0}, {-1, 1}, {0, 1}, {1, 1}};

enum class Kind { mono, diagonal, cross };

inline Kind kindOf(const Defect &defect)
{
    return (defect.type & 0x80) == 0 ? Kind::mono : (defect.type & 0x04) != 0 ? Kind::diagonal : Kind::cross;
}
inline bool onDiagonal(Step step)
{
    return step.x != 0 && step.y != 0;
}

// The driver counts in 32 bits that wrap.
inline std::int32_t wrap(std::int64_t value)
{
    return static_cast<std::int32_t>(static_cast<std::uint64_t>(value) & 0xFFFFFFFF);
}

// ------------------------------------------------------------------------------------------------ where a defect is

// A coordinate along one axis of the image. None: this axis says that the defect is not in the image ("ignore"), or
// that nothing is repaired at all.
struct Axis {
    std::int32_t start;
    int size;
    bool mirrored;
};

inline std::optional<std::int32_t> placeOn(const Axis &axis, int sensor, std::int32_t decimation, unsigned model)
{
    std::int32_t offset = wrap(static_cast<std::int64_t>(sensor) - axis.start);
    if (decimation == 1)
        return axis.mirrored ? wrap(static_cast<std::int64_t>(axis.size) - 1 - offset) : offset;
    if (axis.mirrored && model == 3)
        offset = wrap(static_cast<std::int64_t>(decimation) * axis.size - 1 - offset);
    if (offset < 0) // in front of the image, on whichever side that is after mirroring
        return axis.mirrored && model != 3 ? axis.size : -1;
    // Of every run of 2d columns the first two are in the image.
    const std::int32_t run = offset / (2 * decimation), inRun = offset % (2 * decimation);
    if (inRun > 1)
        return std::nullopt;
    const std::int32_t place = wrap(2 * static_cast<std::int64_t>(run) + inRun);
    return axis.mirrored && model != 3 ? wrap(static_cast<std::int64_t>(axis.size) - 1 - place) : place;
}

// ------------------------------------------------------------------------------------------------------ lines

// Repairs pixel (x, y) from the pixels at distance d on both sides along (dx, dy), or from the one that exists.
inline void repairOnLine(Image &image, int x, int y, Step step, int d, int onesidedThreshold)
{
    const int size = step.x != 0 ? image.width : image.height;
    const int place = step.x != 0 ? x : y;
    const bool before = place - d >= 0, after = place + d < size;
    if (!before && !after)
        return;
    int value;
    int threshold = 2;
    if (before && after) {
        value = (image.at(x - step.x * d, y - step.y * d) + image.at(x + step.x * d, y + step.y * d)) / 2;
    } else {
        const int sign = after ? 1 : -1;
        value = image.at(x + sign * step.x * d, y + sign * step.y * d);
        threshold = onesidedThreshold;
    }
    if (std::abs(value - image.at(x, y)) > threshold)
        image.at(x, y) = value;
}

inline void repairLine(Image &image, const Defect &defect, int px, int py)
{
    const int distance = kindOf(defect) == Kind::mono ? 1 : 2;
    if (defect.y == 0) {
        if (px >= 0 && px < image.width)
            for (int y = 0; y < image.height; ++y)
                repairOnLine(image, px, y, {1, 0}, distance, 2);
    } else if (defect.x == 0) {
        if (py >= 0 && py < image.height)
            for (int x = 0; x < image.width; ++x)
                repairOnLine(image, x, py, {0, 1}, distance, 1);
    }
}

// ---------------------------------------------------------------------------------------------------- single pixels

inline void repairPixel(Image &image, const Window &window, const Defect &defect, int px, int py, int bits)
{
    if (!image.has(px, py))
        return;
    int sum = 0, count = 0;
    for (int bit = 0; bit < 8; ++bit) {
        Step step = kAround[bit];
        // The list's neighbours are the sensor's: in the image they are where the mirrors put them.
        if (window.decimation == 1) {
            if ((defect.neighbours >> bit & 1) == 0)
                continue;
            step = {window.flipX ? -step.x : step.x, window.flipY ? -step.y : step.y};
        }
        const bool far = kindOf(defect) == Kind::cross;
        if (far ? onDiagonal(step) : (defect.type & 0x04) != 0 && !onDiagonal(step))
            continue;
        const int x = px + step.x * (far ? 2 : 1), y = py + step.y * (far ? 2 : 1);
        if (image.has(x, y)) {
            sum += image.at(x, y);
            ++count;
        }
    }
    if (count == 0)
        return;
    const int mean = (sum + count / 2) / count;
    int &pixel = image.at(px, py);
    const unsigned rule = defect.type & 3;
    if (rule == 0 || std::abs(pixel - mean) > 2 || (rule == 2 && bits == 10 && pixel == 1023))
        pixel = mean;
}

// bits: 8 or 10.
inline void repair(Image &image, const Window &window, const std::vector<Defect> &defects, int bits)
{
    if (window.decimation < 1 || window.decimation > 8)
        return;
    for (const Defect &defect : defects) {
        const auto px = placeOn({window.startX, window.width, window.flipX}, defect.x, window.decimation, window.model);
        const auto py =
            placeOn({window.startY, window.height, window.flipY}, defect.y, window.decimation, window.model);
        if (!px || !py)
            continue;
        if ((defect.type & 3) == 3)
            repairLine(image, defect, *px, *py);
        else
            repairPixel(image, window, defect, *px, *py, bits);
    }
}

// The usable neighbours of each defect, from the whole list.
inline std::vector<unsigned> neighbours(const std::vector<Defect> &defects)
{
    std::vector<unsigned> usable;
    for (const Defect &defect : defects) {
        unsigned bits = 0;
        for (int bit = 0; bit < 8; ++bit) {
            const Kind kind = kindOf(defect);
            if (kind != Kind::mono && onDiagonal(kAround[bit]) != (kind == Kind::diagonal))
                continue;
            const int distance = kind == Kind::cross ? 2 : 1;
            bool bad = false;
            for (const Defect &other : defects)
                bad = bad || (kindOf(other) == kind && other.x == defect.x + kAround[bit].x * distance &&
                              other.y == defect.y + kAround[bit].y * distance);
            if (!bad)
                bits |= 1u << bit;
        }
        usable.push_back(bits);
    }
    return usable;
}

} // namespace reference
