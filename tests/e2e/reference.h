// What an image must look like, worked out from the whole sensor and its registers without any code of the drivers.
#pragma once

#include "client/bay.h"
#include "client/image.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace e2e {

// The sensor's reading, as its registers say.
struct Reading {
    std::uint32_t startX, startY;           // first sensor column and row
    std::uint32_t width, height;            // sensor pixels
    std::uint32_t factorX = 1, factorY = 1; // decimation
    bool binX = false, binY = false;        // averaged instead of skipped
    bool flipX = false, flipY = false;
    bool flipFirst = false; // mirrored before decimation (model 3)
    std::uint32_t bits = 8;
    bool operator==(const Reading &) const = default;
};

// For each image position of one axis the sensor positions whose samples are averaged.
inline std::vector<std::vector<std::uint32_t>> axis(std::uint32_t start, std::uint32_t length, std::uint32_t factor,
                                                    bool bin, bool flip, bool flipFirst)
{
    std::vector<std::uint32_t> sensor(length);
    for (std::uint32_t i = 0; i < length; ++i)
        sensor[i] = start + i;
    if (flip && flipFirst)
        std::ranges::reverse(sensor);

    // Of every run of 2 * factor positions the first two are kept, so that the groups of a colour mosaic stay together.
    std::vector<std::vector<std::uint32_t>> image;
    for (std::uint32_t i = 0; i < length; ++i) {
        if (i % (2 * factor) > 1)
            continue;
        std::vector<std::uint32_t> sources = {sensor[i]};
        for (std::uint32_t k = 1; bin && k < factor; ++k)
            sources.push_back(sensor[i + 2 * k]);
        image.push_back(std::move(sources));
    }
    if (flip && !flipFirst)
        std::ranges::reverse(image);
    return image;
}

inline void put(vqt::Image &image, std::uint32_t x, std::uint32_t y, unsigned sample)
{
    const std::size_t i = (std::size_t{y} * image.width + x) * image.bytesPerPixel();
    image.data[i] = static_cast<std::uint8_t>(sample);
    if (image.bits != 8)
        image.data[i + 1] = static_cast<std::uint8_t>(sample >> 8);
}

inline Reading readingOf(const simbus::CAMERA_STATE &camera)
{
    const auto &reg = camera.Registers;
    const bool third = camera.Model == 3;
    Reading r{reg[0x02] - (third ? 32u : 20u), reg[0x01] - (third ? 20u : 12u), reg[0x04] + 1u, reg[0x03] + 1u};
    if (third) {
        r.factorX = (reg[0x23] & 7u) + 1;
        r.factorY = (reg[0x22] & 7u) + 1;
        r.binX = (reg[0x23] & 0x30) != 0;
        r.binY = (reg[0x22] & 0x30) != 0;
    } else {
        const auto factor = [](unsigned by2, unsigned by4, unsigned by8) {
            return by8 ? 8u : by4 ? 4u : by2 ? 2u : 1u;
        };
        r.factorX = factor(reg[0x20] & 0x08, reg[0x1E] & 0x04, reg[0x1E] & 0x10);
        r.factorY = factor(reg[0x20] & 0x10, reg[0x1E] & 0x08, reg[0x1E] & 0x20);
    }
    r.flipX = (reg[0x20] & 0x4000) != 0;
    r.flipY = (reg[0x20] & 0x8000) != 0;
    r.flipFirst = third;
    r.bits = camera.BitsPerPixel;
    return r;
}

inline Reading readingOf(const vqt::Geometry &window, unsigned model, std::uint32_t bits)
{
    const auto positive = [](std::int32_t value) { return static_cast<std::uint32_t>(value); };
    return {positive(window.startX),
            positive(window.startY),
            positive(window.width),
            positive(window.height),
            window.divisor(),
            window.divisor(),
            window.decimation < 0,
            window.decimation < 0,
            window.flipX,
            window.flipY,
            model == 3,
            bits};
}

// The image, 10-bit samples cut to the depth.
inline vqt::Image imageOf(const vqt::Samples &sensor, const Reading &r)
{
    const auto columns = axis(r.startX, r.width, r.factorX, r.binX, r.flipX, r.flipFirst);
    const auto rows = axis(r.startY, r.height, r.factorY, r.binY, r.flipY, r.flipFirst);
    vqt::Image image{
        static_cast<std::uint32_t>(columns.size()), static_cast<std::uint32_t>(rows.size()), r.bits, true, {}};
    image.data.resize(image.size());
    for (std::uint32_t y = 0; y < image.height; ++y)
        for (std::uint32_t x = 0; x < image.width; ++x) {
            std::uint32_t sum = 0, count = 0;
            for (const std::uint32_t row : rows[y])
                for (const std::uint32_t column : columns[x]) {
                    sum += sensor.values[std::size_t{row} * sensor.width + column];
                    ++count;
                }
            const std::uint32_t sample = (sum + count / 2) / count;
            put(image, x, y, r.bits == 8 ? sample >> 2 : sample);
        }
    return image;
}

// The first image byte carries two flag bits of the line that ended the frame in its bits 0 and 1 and loses bit 3: what
// it shows of the pixel are the bits of this mask.
constexpr std::uint8_t kFirstByteMask = 0xF4;

// Says where two images differ; empty when they are equal. The first byte is compared through the mask, columns from
// `columns` on are left out.
inline std::string difference(const vqt::Image &expected, const vqt::Image &delivered,
                              std::uint32_t columns = 0xFFFFFFFF)
{
    if (expected.width != delivered.width || expected.height != delivered.height || expected.bits != delivered.bits ||
        expected.data.size() != delivered.data.size())
        return "another size: " + std::to_string(delivered.width) + " x " + std::to_string(delivered.height);
    std::size_t count = 0;
    std::string first;
    for (std::uint32_t y = 0; y < expected.height; ++y)
        for (std::uint32_t x = 0; x < std::min(columns, expected.width); ++x) {
            unsigned want = expected.at(x, y), have = delivered.at(x, y);
            if (x == 0 && y == 0) {
                want &= ~0xFFu | kFirstByteMask;
                have &= ~0xFFu | kFirstByteMask;
            }
            if (want == have)
                continue;
            if (count++ == 0)
                first = "(" + std::to_string(x) + ", " + std::to_string(y) + ") is " + std::to_string(have) +
                        " instead of " + std::to_string(want);
        }
    return count == 0 ? "" : std::to_string(count) + " pixels differ, the first at " + first;
}

} // namespace e2e
