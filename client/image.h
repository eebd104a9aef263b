// Pictures as the driver delivers them, and the window they show.
#pragma once

#include "drv/usb/ioctl.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <vector>

namespace vqt {

// The window in sensor pixels, before decimation.
struct Geometry {
    std::int32_t startX = 0, startY = 0;
    std::int32_t width = 0, height = 0;
    std::int32_t decimation = 1; // 1, 2, 4, 8 (models 1 and 2); 1 to 8 or -2, -3, -4 (model 3: negative ones bin)
    bool flipY = false, flipX = false;
    std::uint32_t colorBits = 0; // reported by the driver: 8 mono, 24 colour; ignored when set

    bool mono() const { return colorBits == 8; }
    std::uint32_t divisor() const
    {
        const std::int64_t d = decimation;
        return static_cast<std::uint32_t>(d < 0 ? -d : d == 0 ? 1 : d);
    }
    std::uint32_t imageWidth() const { return static_cast<std::uint32_t>(width < 0 ? 0 : width) / divisor(); }
    std::uint32_t imageHeight() const { return static_cast<std::uint32_t>(height < 0 ? 0 : height) / divisor(); }

    FRAME_PARAMETERS record() const { return {startX, startY, width, height, decimation, colorBits, flipY, flipX}; }
    static Geometry of(const FRAME_PARAMETERS &record)
    {
        return {record.StartX,     record.StartY,     record.Width,      record.Height,
                record.Decimation, record.FlipY != 0, record.FlipX != 0, record.ColorBits};
    }
};

// Rows from the top without padding: one byte a pixel at 8 bits, two (little-endian, 0 to 1023) at 10.
struct Image {
    std::uint32_t width = 0, height = 0;
    std::uint32_t bits = 8;
    bool mono = true;
    std::vector<std::uint8_t> data;

    std::size_t bytesPerPixel() const { return bits == 8 ? 1 : 2; }
    std::size_t size() const { return std::size_t{width} * height * bytesPerPixel(); }
    std::uint16_t maximum() const { return bits == 8 ? 255 : 1023; }
    std::uint16_t at(std::uint32_t x, std::uint32_t y) const
    {
        const std::size_t i = (std::size_t{y} * width + x) * bytesPerPixel();
        return bits == 8 ? data.at(i) : static_cast<std::uint16_t>(data.at(i) | data.at(i + 1) << 8);
    }
};

// Lines of a frame that never came, told by the header's line states alone. A line that came leaves a tag, or the mark
// that the next one follows it, or the mark in front of it; one that has none of the three was lost.
unsigned lostLines(const FRAME_HEADER &header);

// A frame with its header, copied.
struct Frame {
    FRAME_HEADER header{};
    Image image;
};

// A frame buffer of the driver, mapped into this process. It stays readable until the next getFramePtr on the same
// device, by whomever, or the device's end; its content stays intact until two more frames have completed.
struct FrameView {
    const FRAME_HEADER *header = nullptr;
    std::span<const std::uint8_t> pixels; // as long as the header said when the view was made

    // The frame, or nothing when the driver took the buffer for another one before the copy was whole: a new frame's
    // header is cleared before its first pixel comes, and a complete one has a number of its own.
    std::optional<Frame> copy(bool mono) const;
};

} // namespace vqt
