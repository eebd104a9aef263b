// Control requests from a caller who means no good.
#include "wire.h"

#include <random>

namespace {

using namespace simbus;
using wire::Bytes;

// A record and the items behind it, as they travel.
template <typename T, typename ITEM = std::uint8_t> Bytes packed(const T &record, const std::vector<ITEM> &items = {})
{
    const auto *first = reinterpret_cast<const std::uint8_t *>(&record);
    const auto *rest = reinterpret_cast<const std::uint8_t *>(items.data());
    Bytes bytes(first, first + sizeof record);
    bytes.insert(bytes.end(), rest, rest + items.size() * sizeof(ITEM));
    return bytes;
}

TEST(Control, ValuesAreChecked)
{
    wire::Rig rig;
    const std::uint32_t slot = rig.plug().slot;
    Bytes rows(1280 * 2);
    const auto refused = [&](std::uint32_t code, const auto &record, const auto &...items) {
        const vqt::IoResult result = rig.bay.port().deviceControl(code, packed(record, items...), rows);
        EXPECT_EQ(result.status, STATUS_INVALID_PARAMETER);
    };
    for (const auto &[number, flags] : {std::pair{0u, 0u}, {4u, 0u}, {1u, 0x40u}}) {
        PLUG_REQUEST bad{};
        bad.Model = number;
        bad.Flags = flags;
        refused(kIoctlPlug, bad);
    }
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
    for (const LINE_FAULT &bad :
         {LINE_FAULT{0, 0, 0, 0}, LINE_FAULT{0, 0, 11, 0}, LINE_FAULT{0, 0, kLineNumber, 0x2000},
          LINE_FAULT{0, 0, kLineGarbage, 65537}, LINE_FAULT{0, 0, kLineSignature, 16}})
        refused(kIoctlSetLineFaults, LINE_FAULTS_REQUEST{slot, 0, 1}, std::vector{bad});
    for (const BULK_FAULT &bad : {BULK_FAULT{kBulkInline, 0, 0, 17}, {kBulkShort, 0, 0, 0}})
        refused(kIoctlSetBulkFaults, BULK_FAULTS_REQUEST{slot, 0, 1}, std::vector{bad});
    for (const COMMAND_FAULT &bad : {COMMAND_FAULT{0x101, kCommandStall, 0, 0, 1}, {0, kCommandLong, 65, 0, 1}})
        refused(kIoctlSetCommandFaults, COMMAND_FAULTS_REQUEST{slot, 0, 1}, std::vector{bad});
    const std::vector<LINE_FAULT> most(kMaxLineFaults, LINE_FAULT{0, 0, kLineLose, 0});
    EXPECT_TRUE(rig.bay.setLineFaults(slot, most));
    EXPECT_EQ(rig.bay.setLineFaults(slot, std::vector{most[0]}, true).status(), STATUS_INVALID_PARAMETER);
    // Output without room, a byte too few or too many, a slot that nobody has, a code that is none.
    const struct {
        std::uint32_t code;
        Bytes in;
        std::size_t room;
        NTSTATUS status;
    } cases[] = {{kIoctlRender, packed(RENDER_REQUEST{slot, 0, 0, 0, 2}), 1280 * 4 - 1, STATUS_BUFFER_TOO_SMALL},
                 {kIoctlReadState, packed(slot), sizeof(simbus::CAMERA_STATE) - 1, STATUS_BUFFER_TOO_SMALL},
                 {kIoctlReadState, Bytes(3), 4096, STATUS_INVALID_PARAMETER},
                 {kIoctlReadState, Bytes(5), 4096, STATUS_INVALID_PARAMETER},
                 {kIoctlReadState, packed(slot + 1), 4096, STATUS_NO_SUCH_DEVICE},
                 {kIoctlReadState, packed(64), 4096, STATUS_NO_SUCH_DEVICE},
                 {kIoctlPlug | 3, packed(slot), 64, STATUS_INVALID_DEVICE_REQUEST},
                 {ControlCode(25), packed(slot), 64, STATUS_INVALID_DEVICE_REQUEST}};
    for (const auto &test : cases) {
        Bytes out(test.room);
        EXPECT_EQ(rig.bay.port().deviceControl(test.code, test.in, out).status, test.status) << test.room;
    }
}

// Requests of every code and length filled with noise, against a camera that streams: what is read beyond a record or
// written beyond the room for the answer, the pool and the sanitizers notice.
TEST(Control, NoiseHarmsNobody)
{
    wire::Rig rig;
    wire::Camera camera = rig.plug({.model = 3, .mono = false});
    camera.select(2);
    camera.run(true);
    std::mt19937 random(20240229);
    const std::uint32_t interesting[] = {0,   1,   2,    3,      7,      0x1B,       0x16,       63,        64,
                                         255, 256, 4095, 0x7FFF, 0x8000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    for (int round = 0; round < 40'000; ++round) {
        const std::uint32_t code = ControlCode(static_cast<std::uint32_t>(random() % 25));
        // Not what would take the camera away or keep the system from removing it at the end.
        if (code == kIoctlPlug || code == kIoctlUnplug || code == kIoctlSendRequest || code == kIoctlFailRequests)
            continue;
        std::vector<std::uint32_t> words(random() % (random() % 4 == 0 ? 40 : 8));
        for (std::uint32_t &word : words)
            word = static_cast<std::uint32_t>(random() % 2 ? interesting[random() % std::size(interesting)] : random());
        if (!words.empty() && random() % 8 != 0)
            words[0] = camera.slot;
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(words.data());
        Bytes in(bytes, bytes + words.size() * 4), out(random() % (random() % 2 ? 65536 : 64));
        if (random() % 4 == 0)
            in.resize(in.size() + random() % 4);
        ASSERT_LE(rig.bay.port().deviceControl(code, in, out).information, out.size());
    }
    // The camera may be left in any state, the bus may not.
    rig.unplug(camera);
    wire::Camera next = rig.plug({.model = 3, .mono = false});
    next.select(2);
    next.run(true);
    EXPECT_EQ(next.readStream(100'000).size(), 100'000u);
}

} // namespace
