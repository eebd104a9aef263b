// The shape of the stream: windows, triggered frames, and what the registers may hold.
#include "wire.h"

namespace {

using wire::Bytes;
using wire::Read;

// Whatever the registers hold, the stream has the shape that the state reports, and the bus survives it.
TEST(Geometry, AnyRegistersGiveAStreamOfTheReportedShape)
{
    wire::Rig rig;
    const std::uint16_t values[] = {0x0000, 0x0001, 0x0013, 0x0500, 0x07FF, 0x0FFF, 0x7FFF, 0xFFFF};
    for (unsigned number = 1; number <= 3; ++number) {
        wire::Camera camera = rig.plug({.model = number, .mono = false});
        camera.select(2);
        unsigned round = 0;
        for (unsigned start : values)
            for (unsigned size : values) {
                ++round;
                const unsigned registers[][2] = {{0x01, start},
                                                 {0x02, start ^ round},
                                                 {0x03, size},
                                                 {0x04, size ^ (round & 3)},
                                                 {0x20, start * 31 + size},
                                                 {0x22, round * 0x1B},
                                                 {0x23, round * 0x2D},
                                                 {0x1E, round * 4 & 0x3C}};
                camera.command({0x2D, static_cast<std::uint8_t>(round % 2)});
                for (const auto &[index, value] : registers)
                    camera.writeRegister(static_cast<std::uint8_t>(index), static_cast<std::uint16_t>(value));
                const Bytes stream = camera.readStream(20'000);
                const simbus::CAMERA_STATE state = rig.bay.state(camera.slot).value();
                camera.run(false);
                ASSERT_TRUE(state.ImageWidth >= 1 && state.ImageWidth <= state.SensorWidth) << state.ImageWidth;
                ASSERT_TRUE(state.ImageHeight >= 1 && state.ImageHeight <= state.SensorHeight) << state.ImageHeight;
                ASSERT_EQ(stream.size(), 20'000u);
                // As far as the bytes go, every line is where it belongs.
                const std::vector<unsigned> words =
                    wire::lineWords(stream, 4 + (round % 2 ? state.ImageWidth * 10 / 8 : state.ImageWidth));
                for (std::size_t line = 0; line < words.size(); ++line)
                    ASSERT_EQ(words[line] & 0x1FFF, line % state.ImageHeight);
            }
        rig.unplug(camera);
    }
}

// A window that is programmed while a frame is under way takes effect with the next one.
TEST(Geometry, ChangesBeginWithAFrame)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug();
    camera.select(2);
    camera.window(64, 16);
    camera.run(true);
    Bytes before = camera.readStream(3 * 68 + 7);
    camera.window(32, 8);
    const Bytes rest = camera.readStream(16 * 68 - before.size()), after = camera.readStream(8 * 36);
    before.insert(before.end(), rest.begin(), rest.end());
    EXPECT_EQ(wire::lineWords(before, 68).back(), 15u);
    EXPECT_EQ(wire::lineWords(after, 36).back() & 0x1FFF, 7u);
    camera.run(false);
}

TEST(Trigger, SendsOneFrameThatEndsItsRead)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug({.model = 2, .mono = false});
    // Frames of 832 bytes (a short last packet) and of 1024 bytes (whole packets only), read with and without room.
    for (const auto &[width, room] : {std::pair<unsigned, std::size_t>{48, 1024}, {48, 832}, {60, 2048}, {60, 1024}}) {
        camera.select(2);
        camera.window(width, 16);
        camera.writeRegister(0x0B, 1);
        EXPECT_EQ(camera.readStream(100).size(), 100u); // the rest of this frame is forgotten by the next
        camera.writeRegister(0x0B, 1);
        Read read(camera, room), next(camera, 512);
        read.send();
        next.send();
        EXPECT_EQ(read.wait().status, STATUS_SUCCESS);
        const std::vector<unsigned> words = wire::lineWords(read.bytes(), 4 + width);
        ASSERT_EQ(words.size(), 16u);
        for (unsigned line = 0; line < 16; ++line)
            EXPECT_EQ(words[line], line); // no flags: a capture takes all sixteen bits for the number
        EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, camera.pipe()), STATUS_SUCCESS);
        EXPECT_EQ(next.wait().status, STATUS_CANCELLED); // nothing was left over for it
        EXPECT_EQ(next.received(), 0u);
    }
    // Model 3 has to be prepared.
    EXPECT_FALSE(rig.bay.trigger(rig.plug({.model = 3}).slot).value());
}

} // namespace
