// A camera record with guarded frame buffers, streams made line by line, and the frames that assembly publishes.
#pragma once

#include <ntddk.h>

#include "drv/usb/frame.h"
#include "ntos/machine.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace usbtest {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

// The pixels of a line, without the signature's first byte in them, different for every line and frame.
std::uint8_t pixelByte(unsigned frame, unsigned line, unsigned at);

// Builds the camera's byte stream.
class Stream {
public:
    explicit Stream(unsigned lineBytes) : lineBytes_(lineBytes) {}

    // word: line number in bits 0-12, flags in 13-15.
    Stream &line(unsigned word, unsigned frame = 0);
    Stream &lines(unsigned first, unsigned last, unsigned frame = 0); // both included
    Stream &header(unsigned word);                                    // a header without pixels
    Stream &raw(const Bytes &more);
    Stream &garbage(unsigned count, std::uint8_t value = 0x11);
    Stream &drop(unsigned count); // takes bytes off the end

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
    std::string summary() const;
    // All but the times.
    bool operator==(const Delivered &other) const;
};

class Assembly {
public:
    Assembly(ntos::Machine &machine, unsigned width, unsigned height, unsigned bits, unsigned bufferBytes = 0);
    ~Assembly();
    Assembly(const Assembly &) = delete;

    // One transfer block, with what assembly may use in front of it and nothing behind it. At most 49152 bytes.
    void feed(std::span<const std::uint8_t> data);
    void silence(); // without the trace nothing is collected
    bool guardsIntact() const;

    std::unique_ptr<DEVICE_EXTENSION> ext;
    std::vector<Delivered> delivered;
    Lines errors; // messages with the error prefix, of frame assembly

private:
    static constexpr std::size_t kGuard = 64;
    static constexpr std::uint8_t kGuardByte = 0xE7;

    void heard(const ntos::TraceLine &line);

    ntos::Machine &machine_;
    std::array<Bytes, kFrameBuffers> memory_;
};

// The kernel for one test. A broken rule of it fails the test.
class KernelTest : public ::testing::Test {
protected:
    KernelTest();
    ~KernelTest() override;
    ntos::Machine machine;
};

} // namespace usbtest
