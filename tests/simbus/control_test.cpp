// Control requests from a caller who means no good.
#include "wire.h"

#include <random>

namespace {

using namespace simbus;
using wire::Bytes;

struct Shape {
    std::uint32_t code;
    std::size_t in, out;
};

const Shape kShapes[] = {
    {kIoctlPlug, sizeof(PLUG_REQUEST), sizeof(SLOT_RECORD)},
    {kIoctlUnplug, sizeof(SLOT_RECORD), 0},
    {kIoctlSetScene, sizeof(SCENE_REQUEST), 0},
    {kIoctlSetDefects, sizeof(DEFECTS_REQUEST), 0},
    {kIoctlSetFlash, sizeof(FLASH_REQUEST), 0},
    {kIoctlSetLineFaults, sizeof(LINE_FAULTS_REQUEST), 0},
    {kIoctlTrigger, sizeof(SLOT_RECORD), sizeof(TRIGGER_REPLY)},
    {kIoctlRender, sizeof(RENDER_REQUEST), 0},
    {kIoctlReadState, sizeof(SLOT_RECORD), sizeof(CAMERA_STATE)},
    {kIoctlReadLog, sizeof(LOG_REQUEST), sizeof(LOG_HEADER)},
    {kIoctlSetCommandFaults, sizeof(COMMAND_FAULTS_REQUEST), 0},
    {kIoctlSetBulkFaults, sizeof(BULK_FAULTS_REQUEST), 0},
    {kIoctlReleaseHeld, sizeof(SLOT_RECORD), 0},
    {kIoctlSetDescriptor, sizeof(DESCRIPTOR_REQUEST), 0},
    {kIoctlFailRequests, sizeof(FAIL_REQUESTS), 0},
    {kIoctlSetPace, sizeof(PACE_REQUEST), 0},
    {kIoctlSetSilence, sizeof(SILENCE_REQUEST), 0},
    {kIoctlSendRequest, sizeof(SEND_REQUEST), sizeof(SEND_REPLY)},
    {kIoctlWriteRegister, sizeof(REGISTER_REQUEST), 0},
    {kIoctlSetNextFrame, sizeof(NEXT_FRAME_REQUEST), 0},
    {kIoctlSetLineFlags, sizeof(LINE_FLAGS_REQUEST), 0},
    {kIoctlSetMode, sizeof(MODE_REQUEST), 0},
    {kIoctlFreeze, sizeof(FREEZE_REQUEST), 0},
    {kIoctlServe, sizeof(SLOT_RECORD), sizeof(SERVE_REPLY)},
};

TEST(Control, LengthsAreExact)
{
    wire::Rig rig;
    rig.plug(1);
    Bytes out(8192);
    for (const Shape &shape : kShapes) {
        SCOPED_TRACE(testing::Message() << std::hex << shape.code);
        const auto status = [&](std::size_t length, std::size_t outLength) {
            return rig.control(shape.code, Bytes(length), out.data(), outLength).status;
        };
        for (std::size_t length = 0; length < shape.in; ++length)
            ASSERT_EQ(status(length, out.size()), STATUS_INVALID_PARAMETER) << length;
        if (shape.out != 0) {
            EXPECT_EQ(status(shape.in, shape.out - 1), STATUS_BUFFER_TOO_SMALL);
        }
        if (shape.code == kIoctlPlug)
            continue;
        // One byte more belongs to no item of any request.
        EXPECT_EQ(status(shape.in + 1, out.size()), STATUS_INVALID_PARAMETER);
        // A slot that nobody has.
        Bytes request(shape.in);
        for (const std::uint32_t slot : {1u, 63u, 64u, 0xFFFFFFFFu}) {
            std::memcpy(request.data(), &slot, sizeof(slot));
            const ntos::NtStatus refusal = rig.control(shape.code, request, out.data(), out.size()).status;
            EXPECT_TRUE(refusal == STATUS_NO_SUCH_DEVICE || refusal == STATUS_INVALID_PARAMETER) << refusal;
        }
    }
    for (const std::uint32_t code : {ControlCode(25), kIoctlPlug | 3})
        EXPECT_EQ(rig.control(code, Bytes(32), out.data(), 64).status, STATUS_INVALID_DEVICE_REQUEST);
}

TEST(Control, ValuesAreChecked)
{
    wire::Rig rig;
    const wire::Camera camera = rig.plug(1);
    const std::uint32_t slot = camera.slot;
    Bytes rows(1280 * 2);
    const auto refused = [&](std::uint32_t code, const auto &record, const Bytes &items = {}) {
        const ntos::Result result = rig.control(code, wire::packed(record, items), rows.data(), rows.size());
        EXPECT_EQ(result.status, STATUS_INVALID_PARAMETER);
    };
    for (const PLUG_REQUEST &bad : {wire::model(0, false), wire::model(4, false), wire::model(1, false, 0x40)})
        refused(kIoctlPlug, bad);
    refused(kIoctlSetScene, SCENE_REQUEST{slot, 4, 0, 0, 0, 0});
    refused(kIoctlSetScene, SCENE_REQUEST{slot, kSceneFlat, 0, 0, 0, 1024});
    refused(kIoctlSetScene, SCENE_REQUEST{slot, kSceneRgb, 0, 0x10000, 0x10000, 0}); // wraps in 32 bits
    refused(kIoctlSetScene, SCENE_REQUEST{slot, kSceneGrey, 0, 2, 2, 0}, Bytes(3));
    refused(kIoctlSetDefects, DEFECTS_REQUEST{slot, 0, 0});
    refused(kIoctlSetDefects, DEFECTS_REQUEST{slot, 1, 0xCCCCCCCD}, Bytes(1)); // 5 * that is 1 in 32 bits
    refused(kIoctlSetFlash, FLASH_REQUEST{slot, 0x8000, 1, 0, 0}, Bytes(1));
    refused(kIoctlSetFlash, FLASH_REQUEST{slot, 0xFFFFFFFF, 1, 0, 0}, Bytes(1));
    refused(kIoctlFailRequests, FAIL_REQUESTS{slot, 0x1B, 0x02, 0, 0, 0xC0000001, 1}); // a removal succeeds
    refused(kIoctlFailRequests, FAIL_REQUESTS{slot, 0x1B, 0x01, 0, 0, 0, 1});
    refused(kIoctlSetDescriptor, DESCRIPTOR_REQUEST{slot, 2, 2, 1, 0, 0});
    refused(kIoctlWriteRegister, REGISTER_REQUEST{slot, 256, 0});
    for (const RENDER_REQUEST &bad :
         {RENDER_REQUEST{slot, 0, 0, 1024, 0}, {slot, 0, 0, 1, 0xFFFFFFFF}, {slot, 0, 2, 0, 1}})
        refused(kIoctlRender, bad);
    for (const SEND_REQUEST &bad : {SEND_REQUEST{slot, IRP_MJ_POWER, IRP_MN_SET_POWER, 1, 5},
                                    {slot, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE, 0, 0},
                                    {slot, IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL, 0, 0},
                                    {slot, IRP_MJ_CREATE, 0, 0, 0}})
        refused(kIoctlSendRequest, bad);
    EXPECT_EQ(rig.get(kIoctlRender, RENDER_REQUEST{slot, 0, 0, 0, 2}, rows[0]).status, STATUS_BUFFER_TOO_SMALL);

    for (const LINE_FAULT &bad :
         {LINE_FAULT{0, 0, 0, 0}, LINE_FAULT{0, 0, 11, 0}, LINE_FAULT{0, 0, kLineNumber, 0x2000},
          LINE_FAULT{0, 0, kLineGarbage, 65537}, LINE_FAULT{0, 0, kLineSignature, 16}})
        EXPECT_EQ(rig.script<LINE_FAULT>(camera, {bad}), STATUS_INVALID_PARAMETER);
    for (const BULK_FAULT &bad : {BULK_FAULT{kBulkInline, 0, 0, 17}, {kBulkShort, 0, 0, 0}})
        EXPECT_EQ(rig.script<BULK_FAULT>(camera, {bad}), STATUS_INVALID_PARAMETER);
    for (const COMMAND_FAULT &bad : {COMMAND_FAULT{0x101, kCommandStall, 0, 0, 1}, {0, kCommandLong, 65, 0, 1}})
        EXPECT_EQ(rig.script<COMMAND_FAULT>(camera, {bad}), STATUS_INVALID_PARAMETER);
    const LINE_FAULT lose{0, 0, kLineLose, 0};
    EXPECT_EQ(rig.script<LINE_FAULT>(camera, std::vector(kMaxLineFaults + 1, lose)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rig.script<LINE_FAULT>(camera, std::vector(kMaxLineFaults, lose)), STATUS_SUCCESS);
}

// Requests of every code filled with noise, against a camera that streams.
TEST(Control, NoiseHarmsNobody)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug(3, false);
    camera.select(2);
    camera.run(true);
    std::mt19937 random(20240229);
    const std::uint32_t interesting[] = {0,   1,    2,      3,      7,          0x1B,       0x16,      255,
                                         256, 4095, 0x7FFF, 0x8000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    Bytes out(65536);
    for (int round = 0; round < 20'000; ++round) {
        const Shape &shape = kShapes[random() % std::size(kShapes)];
        // Not what would take the camera away or keep the system from removing it at the end.
        if (shape.code == kIoctlPlug || shape.code == kIoctlUnplug || shape.code == kIoctlSendRequest ||
            shape.code == kIoctlFailRequests)
            continue;
        std::vector<std::uint32_t> words(shape.in / 4 - 1 + (random() % 3 == 0 ? random() % 32 : 0));
        for (std::uint32_t &word : words)
            word = static_cast<std::uint32_t>(random() % 2 ? interesting[random() % std::size(interesting)] : random());
        Bytes in = wire::packed(camera.slot, words);
        in.resize(std::max(shape.in, in.size() - random() % 4));
        ASSERT_LE(rig.control(shape.code, in, out.data(), random() % out.size()).information, out.size());
    }
    // The camera may be left in any state, the bus may not.
    rig.unplug(camera);
    wire::Camera next = rig.plug(3, false);
    next.select(2);
    next.run(true);
    EXPECT_EQ(next.readStream(100'000).size(), 100'000u);
}

} // namespace
