// What an image must look like, worked out from the whole sensor and its registers without any code of the drivers.
#pragma once

#include "client/bay.h"
#include "client/image.h"

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
Reading readingOf(const simbus::CAMERA_STATE &camera);
Reading readingOf(const vqt::Geometry &window, unsigned model, std::uint32_t bits);

// The image, 10-bit samples cut to the depth.
vqt::Image imageOf(const vqt::Samples &sensor, const Reading &reading);

// The first image byte carries two flag bits of the line that ended the frame in its bits 0 and 1 and loses bit 3: what
// it shows of the pixel are the bits of this mask.
constexpr std::uint8_t kFirstByteMask = 0xF4;

// Says where two images differ; empty when they are equal. The first byte is compared through the mask, columns from
// `columns` on are left out.
std::string difference(const vqt::Image &expected, const vqt::Image &delivered, std::uint32_t columns = 0xFFFFFFFF);

} // namespace e2e
