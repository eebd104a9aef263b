#include "assembly.h"

#include <algorithm>
#include <cstring>

namespace usbtest {

std::uint8_t pixelByte(unsigned frame, unsigned line, unsigned at)
{
    return static_cast<std::uint8_t>((frame * 31 + line * 13 + at * 7) & 0x7F);
}

Stream &Stream::header(unsigned word)
{
    for (const unsigned byte : {0xA5u, 0x3Cu, word & 0xFF, word >> 8})
        bytes.push_back(static_cast<std::uint8_t>(byte));
    return *this;
}

Stream &Stream::line(unsigned word, unsigned frame)
{
    header(word);
    for (unsigned at = 0; at < lineBytes_; ++at)
        bytes.push_back(pixelByte(frame, word & 0x1FFF, at));
    return *this;
}

Stream &Stream::lines(unsigned first, unsigned last, unsigned frame)
{
    for (unsigned number = first; number <= last; ++number)
        line(number, frame);
    return *this;
}

Stream &Stream::raw(const Bytes &more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
}

Stream &Stream::garbage(unsigned count, std::uint8_t value)
{
    bytes.insert(bytes.end(), count, value);
    return *this;
}

Stream &Stream::drop(unsigned count)
{
    bytes.erase(bytes.end() - count, bytes.end());
    return *this;
}

std::string Delivered::summary() const
{
    return "#" + std::to_string(header.FrameNumber) + " size " + std::to_string(size) + " resyncs " +
           std::to_string(header.Resyncs) + " flags " + std::to_string(header.LineFlags);
}

bool Delivered::operator==(const Delivered &other) const
{
    FRAME_HEADER left = header, right = other.header;
    left.StartTime = right.StartTime = 0;
    left.EndTime = right.EndTime = 0;
    return std::memcmp(&left, &right, offsetof(FRAME_HEADER, Reserved3)) == 0 && size == other.size &&
           image == other.image;
}

Assembly::Assembly(ntos::Machine &machine, unsigned width, unsigned height, unsigned bits, unsigned bufferBytes)
    : ext(std::make_unique<DEVICE_EXTENSION>()), machine_(machine)
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

Assembly::~Assembly()
{
    silence();
}

void Assembly::silence()
{
    machine_.trace().setListener(nullptr);
    machine_.trace().enable(false);
}

void Assembly::feed(std::span<const std::uint8_t> data)
{
    ASSERT_LE(data.size(), kStreamBlockSize);
    // Exactly as large as it must be, so that the address sanitizer sees the first byte too far.
    const auto block = std::make_unique<std::uint8_t[]>(kSavedTailSize + data.size());
    std::copy(data.begin(), data.end(), block.get() + kSavedTailSize);
    ProcessFrameBlock(ext.get(), block.get() + kSavedTailSize, static_cast<ULONG>(data.size()));
}

bool Assembly::guardsIntact() const
{
    return std::all_of(memory_.begin(), memory_.end(), [](const Bytes &memory) {
        return std::all_of(memory.end() - kGuard, memory.end(), [](std::uint8_t byte) { return byte == kGuardByte; });
    });
}

// A frame is published, and not yet taken away, when its message comes.
void Assembly::heard(const ntos::TraceLine &line)
{
    if (line.module != "drv/usb/frame")
        return;
    if (line.level == ntos::TraceLine::Level::error)
        errors.push_back(line.text);
    if (line.routine != "NextFrameReady")
        return;
    Delivered frame;
    const std::uint8_t *buffer = ext->FrameReadyPtr;
    std::memcpy(&frame.header, buffer, sizeof frame.header);
    frame.size = ext->FrameReadySize;
    const std::uint8_t *image = buffer + kFrameHeaderSize;
    frame.image.assign(image, image + std::min(frame.header.ImageSize, ext->FrameBufSize));
    delivered.push_back(std::move(frame));
}

KernelTest::KernelTest()
{
    machine.verifier().setHandler([](const ntos::Violation &broken) { ADD_FAILURE() << broken.line(); });
}

KernelTest::~KernelTest()
{
    EXPECT_TRUE(machine.shutdown().clean());
}

} // namespace usbtest
