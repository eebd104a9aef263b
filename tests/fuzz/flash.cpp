// A defect list of any bytes, its masks, and the repair of an image that has no byte to spare on either side.
#include "input.h"

#include "drv/usb/badpix.h"
#include "ntos/machine.h"

#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static ntos::Machine &machine = *new ntos::Machine;
    (void)machine;

    Input input(data, size);
    static DEVICE_EXTENSION &extension = *new DEVICE_EXTENSION{};
    DEVICE_OBJECT device{};
    device.DeviceExtension = &extension;

    FRAME_GEOMETRY geometry{};
    const std::uint8_t flags = input.byte();
    geometry.ModelNo = 1 + flags % 3;
    geometry.BitsPerPixel = flags & 0x04 ? 10 : 8;
    geometry.FlipX = flags & 0x08 ? 1 : 0;
    geometry.FlipY = flags & 0x10 ? 1 : 0;
    geometry.Decimation = static_cast<std::int8_t>(input.byte()) % 10;
    geometry.StartX = static_cast<std::int16_t>(input.word());
    geometry.StartY = static_cast<std::int16_t>(input.word());
    geometry.Width = input.byte() % 70u;
    geometry.Height = input.byte() % 70u;
    extension.IsMono = flags & 0x20 ? 1 : 0;
    extension.MaxWidth = 2048;
    extension.MaxHeight = 1536;
    extension.FrameBufSize = static_cast<ULONG>(ImageSize(geometry.Width, geometry.Height, geometry.BitsPerPixel));

    std::vector<BADPIX_RECORD> records;
    for (std::size_t i = 0; i < 64 && input.left() >= 3; ++i) {
        // Near the window, or anywhere.
        BADPIX_RECORD record{};
        const std::uint8_t type = input.byte();
        const bool anywhere = type & 0x40;
        record.BpX = anywhere ? input.word() : static_cast<USHORT>(geometry.StartX + input.byte());
        record.BpY = anywhere ? input.word() : static_cast<USHORT>(geometry.StartY + input.byte());
        record.BpType = type;
        records.push_back(record);
    }
    extension.BadPix = records.data();
    extension.BadPixNum = static_cast<ULONG>(records.size());
    AnalizeBadPix(&device);
    for (const BADPIX_RECORD &record : records) {
        const UCHAR most = !(record.BpType & kBadPixColour)   ? kMaskAll
                           : record.BpType & kBadPixDiagonal ? kMaskDiagonals
                                                             : kMaskCross;
        require((record.BpPosMask & ~most) == 0, "a mask has neighbours of another colour");
    }
    const std::size_t pixels = std::size_t{geometry.Width} * geometry.Height;
    if (geometry.BitsPerPixel == 8) {
        const auto image = std::make_unique<UCHAR[]>(pixels);
        for (std::size_t i = 0; i < pixels; ++i)
            image[i] = static_cast<UCHAR>(i * 37);
        FixBadPix8(&extension, geometry, image.get());
    } else {
        const auto image = std::make_unique<USHORT[]>(pixels);
        for (std::size_t i = 0; i < pixels; ++i)
            image[i] = static_cast<USHORT>((i * 37) & 0x3FF);
        FixBadPix10(&extension, geometry, image.get());
        for (std::size_t i = 0; i < pixels; ++i)
            require(image[i] <= 0x3FF, "a repaired sample has more than ten bits");
    }
    extension.BadPix = nullptr;
    return 0;
}
