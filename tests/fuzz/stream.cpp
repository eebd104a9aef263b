// The line stream in blocks of any cut, with the geometry changing between them.
#include "input.h"

#include "drv/usb/frame.h"
#include "ntos/machine.h"

#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr ULONG kMaxWidth = 64, kMaxHeight = 24;
constexpr ULONG kBufferSize = (kMaxWidth + 4) * (kMaxHeight + 4) * 2;

// A frame buffer as the driver takes it, its end at the end of a heap block.
struct Buffers {
    std::unique_ptr<UCHAR[]> frame[kFrameBuffers];
    explicit Buffers(DEVICE_EXTENSION &extension)
    {
        for (ULONG i = 0; i < kFrameBuffers; ++i) {
            frame[i] = std::make_unique<UCHAR[]>(kFrameHeaderSize + kBufferSize);
            extension.Frame[i] = frame[i].get();
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static ntos::Machine &machine = *new ntos::Machine;
    (void)machine;

    Input input(data, size);
    static DEVICE_EXTENSION &extension = *new DEVICE_EXTENSION;
    std::memset(static_cast<void *>(&extension), 0, sizeof extension);
    Buffers buffers(extension);
    extension.MaxWidth = kMaxWidth;
    extension.MaxHeight = kMaxHeight;
    extension.FrameBufSize = kBufferSize;
    extension.ModelNo = 1;
    extension.Decimation = 1;
    extension.CameraStatus = CameraStreaming;
    extension.Width = 16;
    extension.Height = 4;
    extension.BitsPerPixel = 8;
    KeInitializeEvent(&extension.FrameReadyEv, NotificationEvent, FALSE);
    ResetFrameAssembly(&extension);

    for (unsigned blocks = 0; blocks < 64 && !input.empty(); ++blocks) {
        const std::uint8_t what = input.byte();
        if (what & 0x80)
            extension.BitsPerPixel = what & 0x40 ? 10 : 8;
        if (what & 0x20)
            extension.Width = 8u * (1 + input.byte() % (kMaxWidth / 8));
        if (what & 0x10)
            extension.Height = 1 + input.byte() % kMaxHeight;
        std::vector<UCHAR> block;
        if (what & 0x08) { // well-formed lines
            const unsigned lines = 1 + input.byte() % 16;
            unsigned number = input.byte() % kMaxHeight;
            const std::size_t length = StreamLineLength(extension.Width, extension.BitsPerPixel);
            for (unsigned i = 0; i < lines; ++i, number = (number + 1) % extension.Height) {
                block.insert(block.end(), {0xA5, 0x3C, static_cast<UCHAR>(number), static_cast<UCHAR>(input.byte() & 0xE0)});
                block.insert(block.end(), length, static_cast<UCHAR>(number));
            }
            if (what & 0x04)
                block.resize(block.size() - input.byte() % block.size());
        } else {
            const auto raw = input.take(1u + input.word() % 6000u);
            block.assign(raw.begin(), raw.end());
        }
        // The tail of the block before goes directly in front; nothing may be touched beyond either end.
        std::vector<UCHAR> area(kSavedTailSize + block.size());
        std::copy(block.begin(), block.end(), area.begin() + kSavedTailSize);
        const ULONG frames = extension.TotalFrames;
        ProcessFrameBlock(&extension, area.data() + kSavedTailSize, static_cast<ULONG>(block.size()));
        require(extension.SavedLen <= kSavedTailSize, "the saved tail outgrows its buffer");
        require(extension.CurFrame < kFrameBuffers, "no such frame buffer");
        require(extension.NextLineNo < kMaxHeight, "no such line");
        if (extension.TotalFrames != frames) {
            FRAME_HEADER header;
            std::memcpy(&header, extension.FrameReadyPtr, sizeof header);
            require(header.ImageSize == header.Pitch * header.Height && header.ImageSize <= kBufferSize,
                    "a frame header does not add up");
            require(header.FrameNumber + 1 == extension.FrameCounter, "frames are not counted");
            require(extension.FrameReadyPtr != extension.Frame[extension.CurFrame], "the published frame is being filled");
        }
        const std::size_t bytes = ImageSize(extension.Width, extension.Height, extension.BitsPerPixel);
        ULONG written = 0;
        if (extension.BitsPerPixel == 8) {
            std::vector<UCHAR> image(bytes);
            checkSignature(&extension, block.data(), static_cast<ULONG>(block.size()), image.data(), &written);
        } else {
            std::vector<USHORT> image(bytes / sizeof(USHORT));
            checkSignature(&extension, block.data(), static_cast<ULONG>(block.size()), image.data(), &written);
        }
        require(written <= bytes, "a capture claims more than the image");
    }
    return 0;
}
