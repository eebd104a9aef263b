// Commands and descriptors, byte for byte.
#include "wire.h"

namespace {

using wire::Bytes;
using wire::Half;

TEST(Commands, AnswerAsDocumented)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug({.model = 2,
                                    .mono = false,
                                    .firmware = 39,
                                    .chipId = 0x8511,
                                    .hwModelId = 29,
                                    .identity = vqt::Identity{0xA1B2C3D4, 0x0102, 0x0304}});
    rig.bay.setFlash(camera.slot, 0x7FFB, Bytes{1, 2, 3, 4, 5}, 77).value();
    const struct {
        Bytes command, reply; // status byte first
    } cases[] = {
        {{0x11}, {0x90, 0, 0, 0, 0, 0, 0, 0, 0x80, 2}},
        {{0x2C, 1}, {0x90}},
        {{0x11, 9, 9}, {0x90, 0, 0, 0, 0, 0, 0, 0, 0x80, 10}}, // arguments it does not need
        {{0x2C, 3}, {0x92}},
        {{0x2C}, {0x92}},
        {{0x12}, {0x90, 29, 0, 2, 1, 0xD4, 0xC3, 0xB2, 0xA1, 4, 3, 39, 0, 77, 0, 0, 0}},
        {{0x18, 0xFA, 0x7F, 6, 0}, {0x90, 0xFF, 1, 2, 3, 4, 5}},
        {{0x18, 0xFB, 0x7F, 6, 0}, {0x92}}, // beyond the end
        {{0x18, 0, 0, 64, 0}, {0x92}},      // more than a reply holds
        {{0x18, 0, 0, 0, 0}, {0x90}},
        {{0x18, 0, 0, 1}, {0x92}},
        {{0x1F, 0, 1, 2}, {0x90}},
        {{0x1E, 0}, {0x90, 0x85, 0x11}}, // the chip's identification cannot be written
        {{0x1F, 0x42, 0x34, 0x12}, {0x90}},
        {{0x1E, 0x42}, {0x90, 0x12, 0x34}},
        {{0x1F, 0x42, 0x34}, {0x92}},
        {{0x1F, 0x0D, 1, 0}, {0x90}},
        {{0x1F, 0x0D, 0, 0}, {0x90}},
        {{0x1E, 0x42}, {0x90, 0, 0}}, // reset
        {{0x1E}, {0x92}},
        {{0x28, 0, 0xFF, 0x5A}, {0x90, 0x5A, 0xA5, 0}},
        {{0x28}, {0x92}},
        {{0x2D, 2}, {0x92}},
        {{0x77}, {0x91}},
    };
    const auto fetch = [&] {
        Half in(camera, true);
        in.send();
        in.wait();
        return in.bytes();
    };
    for (const auto &test : cases) {
        Half out(camera, false, test.command);
        out.send();
        ASSERT_EQ(out.wait().status, STATUS_SUCCESS);
        EXPECT_EQ(fetch(), test.reply) << "command " << int(test.command[0]);
        EXPECT_EQ(fetch(), Bytes{}) << "a reply is there once";
    }
    for (const Bytes &bad : {Bytes{}, Bytes(65, 0x11)}) { // no command
        Half out(camera, false, bad);
        out.send();
        EXPECT_EQ(out.wait().usbStatus(), USBD_STATUS_STALL_PID);
    }
    EXPECT_EQ(camera.command({0x11}).size(), 9u); // the pipe is not halted by it
}

TEST(Descriptors, CanBeMadeToLie)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug();
    const Bytes truth = camera.descriptor(2, 1, 4096);
    camera.descriptor(2, 2, 9, USBD_STATUS_STALL_PID);
    EXPECT_EQ(camera.select(3), STATUS_UNSUCCESSFUL);
    // More endpoints promised than described, a part of length 0, a cut part: refused, nothing opened.
    const std::size_t last = truth.size() - 7;
    for (const auto &[at, value] : {std::pair<std::size_t, std::uint8_t>{last - 9 + 4, 2}, {last, 0}, {last, 200}}) {
        Bytes bad = truth;
        bad[at] = value;
        rig.bay.setDescriptor(camera.slot, 2, 1, bad).value();
        EXPECT_EQ(camera.descriptor(2, 1, 4096), bad);
        EXPECT_NE(camera.select(2), STATUS_SUCCESS);
    }
    rig.bay.stallDescriptor(camera.slot, 2, 1).value();
    camera.descriptor(2, 1, 9, USBD_STATUS_STALL_PID);
}

} // namespace
