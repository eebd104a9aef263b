// Bad pixels: the repair and the masks against the reference.

#include "assembly.h"
#include "badpix_reference.h"

#include "drv/usb/badpix.h"

#include <random>

namespace usbtest {
namespace {

// A camera with a list of defects, as far as repair and analysis look at it.
class BadPixCamera {
public:
    BadPixCamera()
    {
        ext->FrameBufSize = 2052 * 1540 * 2;
        device.DeviceExtension = ext.get();
    }
    void defects(const std::vector<reference::Defect> &defects)
    {
        list.clear();
        for (const reference::Defect &defect : defects)
            list.push_back({static_cast<USHORT>(defect.x), static_cast<USHORT>(defect.y),
                            static_cast<UCHAR>(defect.type), static_cast<UCHAR>(defect.neighbours)});
        list.shrink_to_fit();
        ext->BadPixNum = static_cast<ULONG>(list.size());
        ext->BadPix = list.data();
    }
    void window(const reference::Window &window)
    {
        ext->StartX = window.startX;
        ext->StartY = window.startY;
        ext->Width = static_cast<ULONG>(window.width);
        ext->Height = static_cast<ULONG>(window.height);
        ext->Decimation = window.decimation;
        ext->FlipX = window.flipX;
        ext->FlipY = window.flipY;
        ext->ModelNo = window.model;
    }

    std::unique_ptr<DEVICE_EXTENSION> ext = std::make_unique<DEVICE_EXTENSION>();
    DEVICE_OBJECT device{};
    std::vector<BADPIX_RECORD> list;
};

class BadPixTest : public KernelTest {};

// ---------------------------------------------------------------------------------------------- against the reference

struct RandomCase {
    reference::Window window;
    std::vector<reference::Defect> defects;
    reference::Image image;
    int bits;
};

RandomCase randomCase(std::mt19937 &random)
{
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    const auto side = [&] { return static_cast<int>(below(4) == 0 ? 1 + below(3) : 1 + below(20)); };
    const auto start = [&]() -> std::int32_t {
        switch (below(8)) {
        case 0:
            return static_cast<std::int32_t>(random());
        case 1:
            return below(2) == 0 ? INT32_MIN + static_cast<int>(below(3)) : INT32_MAX - static_cast<int>(below(3));
        case 2:
            return static_cast<std::int32_t>(below(65536));
        default:
            return static_cast<std::int32_t>(below(9)) - 4;
        }
    };
    RandomCase made;
    made.bits = below(2) == 0 ? 8 : 10;
    reference::Window &window = made.window;
    window = {start(), start(), side(), side(), 1, below(2) == 0, below(2) == 0, 1 + below(3)};
    if (below(3) != 0)
        window.decimation = static_cast<int>(below(13)) - 3;
    const auto coordinate = [&](std::int32_t first, int size) {
        const int reach = size * std::max(1, std::abs(window.decimation)) + 6;
        const std::int64_t place = std::int64_t{first} - 3 + static_cast<int>(below(static_cast<unsigned>(reach)));
        return static_cast<int>(below(12) == 0 ? below(65536) : static_cast<unsigned>(place) & 0xFFFF);
    };
    for (unsigned count = 1 + below(12); count != 0; --count) {
        reference::Defect defect{coordinate(window.startX, window.width), coordinate(window.startY, window.height),
                                 below(256), below(3) == 0 ? 0xFF : below(256)};
        if (below(3) == 0) {
            defect.type |= 3;
            (below(2) == 0 ? defect.x : defect.y) = 0;
        }
        made.defects.push_back(defect);
    }
    made.image = {window.width, window.height, {}};
    // Few values, close together, so that every threshold is met from both sides; and saturated ones. Samples above
    // 1023 do not come from a camera, but nothing keeps them from coming.
    const unsigned full = made.bits == 8 ? 255 : below(4) == 0 ? 65535 : 1023;
    const unsigned middle = below(full), spread = 1 + below(8);
    for (int pixel = 0; pixel < window.width * window.height; ++pixel)
        made.image.pixels.push_back(
            static_cast<int>(below(6) == 0 ? full - below(3) : std::min(full, middle + below(spread))));
    return made;
}

// Repairs by the window in force, or by a copy of it.
template <typename Sample>
std::vector<int> repaired(BadPixCamera &camera, const reference::Image &image, const FRAME_GEOMETRY *copy)
{
    // Exactly as large as the image: the address sanitizer sees the first sample outside.
    const auto samples = std::make_unique<Sample[]>(image.pixels.size());
    std::copy(image.pixels.begin(), image.pixels.end(), samples.get());
    if constexpr (sizeof(Sample) == 1)
        copy ? FixBadPix8(camera.ext.get(), *copy, samples.get()) : FixBadPix8(&camera.device, samples.get());
    else
        copy ? FixBadPix10(camera.ext.get(), *copy, samples.get()) : FixBadPix10(&camera.device, samples.get());
    return std::vector<int>(samples.get(), samples.get() + image.pixels.size());
}

TEST_F(BadPixTest, RepairIsTheReferences)
{
    std::mt19937 random(72);
    BadPixCamera camera;
    unsigned changed = 0;
    for (unsigned round = 0; round < 150000; ++round) {
        const RandomCase test = randomCase(random);
        camera.defects(test.defects);
        camera.window(test.window);
        const FRAME_GEOMETRY geometry = CopyGeometry(camera.ext.get()), *copy = round % 2 == 0 ? &geometry : nullptr;
        if (copy != nullptr)
            camera.window({1, 1, 3, 3, 1, true, true, 2}); // whatever is in force by now
        reference::Image expected = test.image;
        reference::repair(expected, test.window, test.defects, test.bits);
        ASSERT_EQ(test.bits == 8 ? repaired<UCHAR>(camera, test.image, copy)
                                 : repaired<USHORT>(camera, test.image, copy),
                  expected.pixels)
            << "round " << round;
        changed += expected.pixels != test.image.pixels;
    }
    EXPECT_GT(changed, 25000u); // the cases are about something
}

TEST_F(BadPixTest, MasksAreTheReferences)
{
    std::mt19937 random(71);
    BadPixCamera camera;
    for (unsigned round = 0; round < 100000; ++round) {
        std::vector<reference::Defect> defects(1 + random() % (round % 32 == 0 ? 60 : 12));
        // Dense enough for neighbours, at the sensor's corner and at the far end of the coordinates.
        const unsigned side = 2 + static_cast<unsigned>(random() % 14), from = random() % 2 == 0 ? 0 : 65536 - side;
        for (reference::Defect &defect : defects)
            defect = {static_cast<int>(from + random() % side), static_cast<int>(from + random() % side),
                      static_cast<unsigned>(random() % 4 == 0 ? random() & 0xFF : random() & 0x84), 0x00};
        camera.defects(defects);
        AnalizeBadPix(&camera.device);
        const std::vector<unsigned> expected = reference::neighbours(defects);
        for (std::size_t index = 0; index < defects.size(); ++index)
            ASSERT_EQ(camera.list[index].BpPosMask, expected[index]) << round << ' ' << index;
    }
}

// A window that no frame buffer holds has no image: nothing is touched, nothing is read.
TEST_F(BadPixTest, AnImpossibleWindow)
{
    BadPixCamera camera;
    camera.defects({{0, 0, 0, 0xFF}, {65535, 65535, 0, 0xFF}, {0, 1, 3, 0}, {1, 0, 3, 0}});
    for (const int side : {0, 0x7FFFFFFF, INT_MIN, -1}) {
        camera.window({0, 0, side, 0x1000, 1, false, false, 1});
        EXPECT_EQ(repaired<UCHAR>(camera, {1, 1, {99}}, nullptr), std::vector<int>{99});
        camera.window({0, 0, 0x1000, side, 1, false, false, 1});
        EXPECT_EQ(repaired<UCHAR>(camera, {1, 1, {99}}, nullptr), std::vector<int>{99});
    }
}

} // namespace
} // namespace usbtest
