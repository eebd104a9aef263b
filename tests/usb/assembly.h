// A camera record with guarded frame buffers, streams made line by line, and the frames that assembly publishes.
#pragma once

#include <ntddk.h>

#include "drv/usb/frame.h"
#include "ntos/machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace usbtest {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

// The pixels of a line, without the signature's first byte in them, different for every line and frame.
inline std::uint8_t pixelByte(unsigned frame, unsigned line, unsigned at)
{
    return static_cast<std::uint8_t>((frame * 31 + line * 13 + at * 7) & 0x7F);
}

// Builds the camera's byte stream.
class Stream {
public:
    explicit Stream(unsigned lineBytes) : lineBytes_(lineBytes) {}

    // A header without pixels. word: line number in bits 0-12, flags in 13-15.
    Stream &header(unsigned word)
    {
        return raw({0xA5, 0x3C, static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8)});
    }
    Stream &line(unsigned word, unsigned frame = 0)
    {
        header(word);
        for (unsigned at = 0; at < lineBytes_; ++at)
            bytes.push_back(pixelByte(frame, word & 0x1FFF, at));
        return *this;
    }
    Stream &lines(unsigned first, unsigned last, unsigned frame = 0) // both included
    {
        for (unsigned number = first; number <= last; ++number)
            line(number, frame);
        return *this;
    }
    Stream &raw(const Bytes &more)
    {
        bytes.insert(bytes.end(), more.begin(), more.end());
        return *this;
    }
    Stream &garbage(unsigned count, std::uint8_t value = 0x11)
    {
        return raw(Bytes(count, value));
    }
    Stream &drop(unsigned count) // takes bytes off the end
    {
        bytes.resize(bytes.size() - count);
        return *this;
    }

    Bytes bytes;

private:
    unsigned lineBytes_;
};

// A frame as it was when it was published.
struct Delivered {
    FRAME_HEADER header;
    std::uint32_t size = 0; // FrameReadySize
    Bytes image;            // ImageSize bytes, as far as the buffer reaches

    // "#1 size 96 resyncs 0 flags 0"
    std::string summary() const
    {
        return "#" + std::to_string(header.FrameNumber) + " size " + std::to_string(size) + " resyncs " +
               std::to_string(header.Resyncs) + " flags " + std::to_string(header.LineFlags);
    }
    // All but the times.
    bool operator==(const Delivered &other) const
    {
        FRAME_HEADER left = header;
        left.StartTime = other.header.StartTime;
        left.EndTime = other.header.EndTime;
        return std::memcmp(&left, &other.header, offsetof(FRAME_HEADER, Reserved3)) == 0 && size == other.size &&
               image == other.image;
    }
};

class Assembly {
public:
    Assembly(ntos::Machine &machine, unsigned width, unsigned height, unsigned bits, unsigned bufferBytes = 0)
        : machine_(machine)
    {
        ext->Width = width;
        ext->Height = height;
        ext->BitsPerPixel = bits;
        ext->FrameBufSize = bufferBytes != 0 ? bufferBytes : (width + 4) * (height + 4) * 2;
        ext->CameraStatus = CameraStreaming;
        KeInitializeEvent(&ext->FrameReadyEv, NotificationEvent, FALSE);
        for (unsigned index = 0; index < kFrameBuffers; ++index) {
            memory_[index].assign(kFrameHeaderSize + ext->FrameBufSize + kGuard, 0);
            std::fill(memory_[index].end() - kGuard, memory_[index].end(), kGuardByte);
            ext->Frame[index] = memory_[index].data();
        }
        machine_.trace().setListener([this](const ntos::TraceLine &line) { heard(line); });
        ResetFrameAssembly(ext.get());
    }
    ~Assembly()
    {
        silence();
    }
    Assembly(const Assembly &) = delete;

    // One transfer block, with what assembly may use in front of it and nothing behind it. At most 49152 bytes.
    void feed(std::span<const std::uint8_t> data)
    {
        ASSERT_LE(data.size(), kStreamBlockSize);
        // Exactly as large as it must be, so that the address sanitizer sees the first byte too far.
        const auto block = std::make_unique<std::uint8_t[]>(kSavedTailSize + data.size());
        std::copy(data.begin(), data.end(), block.get() + kSavedTailSize);
        ProcessFrameBlock(ext.get(), block.get() + kSavedTailSize, static_cast<ULONG>(data.size()));
    }
    void silence() // without the trace nothing is collected
    {
        machine_.trace().setListener(nullptr);
        machine_.trace().enable(false);
    }
    bool guardsIntact() const
    {
        return std::ranges::all_of(memory_, [](const Bytes &memory) {
            return std::count(memory.end() - kGuard, memory.end(), kGuardByte) == kGuard;
        });
    }

    const std::unique_ptr<DEVICE_EXTENSION> ext = std::make_unique<DEVICE_EXTENSION>();
    std::vector<Delivered> delivered;
    Lines errors; // messages with the error prefix, of frame assembly

private:
    static constexpr std::ptrdiff_t kGuard = 64;
    static constexpr std::uint8_t kGuardByte = 0xE7;

    // A frame is published, and not yet taken away, when its message comes.
    void heard(const ntos::TraceLine &line)
    {
        if (line.module != "drv/usb/frame")
            return;
        if (line.level == ntos::TraceLine::Level::error)
            errors.push_back(line.text);
        if (line.routine != "NextFrameReady")
            return;
        Delivered &frame = delivered.emplace_back();
        std::memcpy(&frame.header, ext->FrameReadyPtr, sizeof frame.header);
        frame.size = ext->FrameReadySize;
        const std::uint8_t *image = ext->FrameReadyPtr + kFrameHeaderSize;
        frame.image.assign(image, image + std::min(frame.header.ImageSize, ext->FrameBufSize));
    }

    ntos::Machine &machine_;
    std::array<Bytes, kFrameBuffers> memory_;
};

// The kernel for one test. A broken rule of it fails the test.
class KernelTest : public ::testing::Test {
protected:
    KernelTest()
    {
        machine.verifier().setHandler([](const ntos::Violation &broken) { ADD_FAILURE() << broken.line(); });
    }
    ~KernelTest() override
    {
        EXPECT_TRUE(machine.shutdown().clean());
    }
    ntos::Machine machine;
};

} // namespace usbtest
