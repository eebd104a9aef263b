// What the benches stand on: the driver's own routines on a camera record of our own, above a lower device that answers
// every USB request at once and completes reads when the bench says so.
#pragma once

#include "drv/usb/device.h"

#include "ntos/machine.h"

#include <cstdint>
#include <random>
#include <vector>

namespace bench {

struct Geometry {
    ULONG width;
    ULONG height;
    ULONG bits;

    ULONG lineBytes() const
    {
        return bits == 8 ? width : width * 10 / 8;
    }
    std::size_t imageBytes() const
    {
        return std::size_t{width} * height * (bits == 8 ? 1 : 2);
    }
    std::size_t pixels() const
    {
        return std::size_t{width} * height;
    }
};

// The transfer blocks of one frame, each with its reserve in front, seamless when fed again and again.
class BlockStream {
public:
    explicit BlockStream(const Geometry &geometry, std::uint64_t seed = 1);
    // Blocks of the given bytes, no geometry.
    explicit BlockStream(const std::vector<std::uint8_t> &bytes);

    std::size_t count() const
    {
        return sizes_.size();
    }
    UCHAR *data(std::size_t index)
    {
        return storage_.data() + index * kStride + kSavedTailSize;
    }
    ULONG size(std::size_t index) const
    {
        return sizes_[index];
    }
    std::size_t bytes() const
    {
        return bytes_;
    }

private:
    static constexpr std::size_t kStride = kSavedTailSize + kStreamBlockSize;
    void cut(const std::vector<std::uint8_t> &bytes);

    std::vector<UCHAR> storage_;
    std::vector<ULONG> sizes_;
    std::size_t bytes_ = 0;
};

std::vector<std::uint8_t> makeStream(const Geometry &geometry, std::uint64_t seed = 1);

// A camera: a device object with the driver's dispatcher on it, opened as \\.\Bench<number>, with its record set up as
// after a start.
class Camera {
public:
    Camera(unsigned number, const Geometry &geometry);
    ~Camera();
    Camera(const Camera &) = delete;
    Camera &operator=(const Camera &) = delete;

    DEVICE_EXTENSION *ext() const
    {
        return ext_;
    }
    PDEVICE_OBJECT device() const
    {
        return device_;
    }
    std::string name() const;
    void setGeometry(const Geometry &geometry);
    void setDefects(std::vector<BADPIX_RECORD> records);

    // The read that was sent down first, out of the lower device's queue; null when there is none.
    PIRP takeRead();

private:
    PDEVICE_OBJECT device_ = nullptr;
    PDEVICE_OBJECT lower_ = nullptr;
    DEVICE_EXTENSION *ext_ = nullptr;
    std::vector<BADPIX_RECORD> defects_;
    unsigned number_;
};

// Boots the machine and loads the bench's driver once.
ntos::Machine &machine();

} // namespace bench
