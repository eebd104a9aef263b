// How a camera comes into service: what the driver says to it and to the event log, and what it then knows.
#include "fixture.h"

using namespace rig;

namespace {

using Strings = std::vector<std::string>;
using Severity = ntos::EventLogEntry::Severity;
using ntos::DeviceState;

class Startup : public DriverTest {};

struct Event {
    std::uint32_t id;
    std::vector<std::uint32_t> dump = {};
};

constexpr std::uint32_t kUsb1 = 0x80050002, kNoInfo = 0xC0050001, kNoInfoEx = 0xC0050003, kBadFirmware = 0xC0050004,
                        kBadModel = 0xC0050005, kNoChip = 0xC0050006, kBadChip = 0xC0050007, kNoMemory = 0xC0050008;

// The status is the start's or a failed command's: not every event carries one.
void expectEvents(Rig &rig, const std::vector<Event> &wanted, NtStatus status)
{
    const std::vector<ntos::EventLogEntry> got = rig.machine.eventLog().entries();
    ASSERT_EQ(got.size(), wanted.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].id, wanted[i].id);
        EXPECT_EQ(got[i].severity, wanted[i].id >> 30 == 2 ? Severity::warning : Severity::error);
        EXPECT_EQ(got[i].device, "\\Device\\UsbVQTR42X0");
        EXPECT_EQ(got[i].finalStatus, wanted[i].id == kUsb1 || !wanted[i].dump.empty() ? 0 : status) << wanted[i].id;
        EXPECT_EQ(got[i].dump, wanted[i].dump) << std::hex << wanted[i].id;
        EXPECT_FALSE(got[i].text.empty());
    }
}

TEST_F(Startup, IdentityFollowsTheTables)
{
    const struct {
        std::uint32_t sensor; // of the simulated camera, and of the driver's tables
        std::uint16_t firmware, chip, hardware;
        // what the driver makes of it
        std::uint32_t bits;
        bool mono, changeable;
        std::vector<Event> events = {};
    } rows[] = {
        {1, 39, 0x8431, 28, 8, true, true},
        {1, 33, 0x8411, 27, 8, false, false},
        {1, 34, 0x8421, 27, 10, false, false},
        {2, 39, 0x8511, 29, 8, false, true},
        {2, 39, 0x8511, 30, 8, true, true},
        {3, 39, 0x1611, 31, 8, false, true},
        {3, 39, 0x1621, 32, 8, true, true},
        {1, 39, 0x8431, 28, 8, true, true, {{kUsb1}}},
        {1, 40, 0x8431, 28, 8, true, false, {{kBadFirmware, {40}}}},
        {1, 39, 0x8431, 5, 8, true, true, {{kBadModel, {5}}}},
        {2, 39, 0x8511, 28, 8, false, true, {{kBadModel, {28}}}},
        {3, 39, 0x1611, 5, 8, false, true, {{kBadModel, {5}}}},
        {1, 34, 0x1234, 27, 8, false, false, {{kBadChip, {0x1234}}}}, // an unknown chip has 8 bits
        {1, 0, 0x0A, 0xFFFF, 8, true, false, {{kUsb1}, {kBadFirmware, {0}}, {kBadChip, {0x0A}}, {kBadModel, {0xFFFF}}}},
    };
    constexpr std::int32_t kWidths[] = {1280, 1600, 2048}, kHeights[] = {1024, 1200, 1536};
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const bool fullSpeed = !row.events.empty() && row.events[0].id == kUsb1;
        simbus::PLUG_REQUEST request = model(row.sensor, row.mono);
        request.Flags |= simbus::kPlugFirmwareGiven | simbus::kPlugChipIdGiven | simbus::kPlugHwModelIdGiven |
                         (fullSpeed ? simbus::kPlugFullSpeed : 0);
        request.Firmware = row.firmware;
        request.ChipId = row.chip;
        request.HwModelId = row.hardware;
        rig.machine.eventLog().clear();
        const Camera camera = rig.plug(request);
        EXPECT_EQ(camera.device.startStatus(), st::success);
        expectEvents(rig, row.events, 0);
        // Only a camera that can do both depths is told one.
        const Strings wire = rig.wire(camera);
        EXPECT_EQ(std::count(wire.begin(), wire.end(), "> 2D 00"), row.changeable ? 1 : 0);

        Handle handle = rig.open(camera);
        FRAME_PARAMETERS whole = window(0, 0, kWidths[row.sensor - 1], kHeights[row.sensor - 1]);
        whole.ColorBits = row.mono ? 8 : 24;
        EXPECT_EQ(pack(handle.window()), pack(whole));
        std::uint32_t bits = 0;
        EXPECT_EQ(handle.get(IOCTL_GetBitsPerPixel, bits), st::success);
        EXPECT_EQ(bits, row.bits);
        EXPECT_EQ(handle.set(IOCTL_SetBitsPerPixel, 18 - row.bits), row.changeable ? st::success : st::unsuccessful);
        // Decimation 3 exists on the third family alone.
        EXPECT_EQ(handle.window(window(0, 0, 480, 480, 3)), row.sensor == 3 ? st::success : st::invalidDeviceRequest);
        handle.close();
        rig.unplug(camera);
    }
}

// Every byte of a start, on top of registers whose other bits must survive.
TEST_F(Startup, OnTheWire)
{
    const Camera camera = rig.plug(model(1), [this](std::uint32_t slot) {
        rig.bay.writeRegister(slot, 0x1E, 0x40C3).value();
        rig.bay.writeRegister(slot, 0x20, 0x0C01).value();
    });
    const Strings got = rig.wire(camera, true);
    Strings commands;
    for (std::size_t i = 0; i < got.size(); i += 2) {
        commands.push_back(got[i]);
        ASSERT_EQ(got[i + 1].substr(0, 4), "< 90") << got[i];
        // A write sends back what was read with its own bits changed, whatever the pulse on register 13 left there.
        const bool first = got[i].substr(0, 7) == "> 1F 1E", second = got[i].substr(0, 7) == "> 1F 20";
        if (!first && !second)
            continue;
        unsigned high = 0, low = 0;
        ASSERT_EQ(std::sscanf(got[i - 1].c_str(), "< 90 %x %x", &high, &low), 2);
        const unsigned was = high << 8 | low, value = first ? (was & 0xBFFF) | 0x0100 : (was & 0xFBFF) | 0x0200;
        char text[32];
        std::snprintf(text, sizeof text, "> 1F %s %02X %02X", first ? "1E" : "20", value & 0xFF, value >> 8);
        EXPECT_EQ(got[i], text);
    }
    EXPECT_EQ("", difference(commands, {"> 11", "> 12", "> 1E 00", "> 2D 00", "> 12", "> 1E 0D", "> 1F 0D 01 00",
                                        "> 1F 0D 00 00", "> 1E 1E", "> 1F 1E ~", "> 1E 20", "> 1F 20 ~",
                                        "> 1F 05 23 00", "> 1F 06 19 00", "> 1F 49 00 00", "> 2C 01"}));
}

TEST_F(Startup, AFailureLeavesWhatItShould)
{
    // What the camera has afterwards.
    enum Left { nothing, name, bothNames, oneNameAndRuns, all };
    const char *const pool = "ExAllocatePoolWithTag", *const start = "camera/VQT_StartDevice",
                      *const add = "pnp/USBCAM_AddDevice", *const pnp = "pnp/PnpStartDevice",
                      *const memory = "Out of memory, return %08Xh\n", *const info = "GetInfo() return %08Xh\n",
                      *const infoEx = "GetCameraInfoEx() return %08Xh \n",
                      *const chip = "Read ChipID failed, return %08Xh \n";
    const std::vector<Event> none, noChip = {{kNoChip}, {kBadChip, {0}}}, noMemory = {{kNoMemory}};
    const struct {
        const char *routine;       // of the kernel that fails; none: a command does
        std::uint16_t which, kind; // the n-th call; the command and its fault
        Left left;
        NtStatus status;
        std::vector<Event> events;
        const char *who, *said;
    } rows[] = {
        {nullptr, 0x11, simbus::kCommandStatusByte, name, st::adapterHardwareError, {{kNoInfo}}, start, info},
        {nullptr, 0x11, simbus::kCommandStall, name, kAnyFailure, {{kNoInfo}}, start, info},
        {nullptr, 0x12, simbus::kCommandStatusByte, name, st::adapterHardwareError, {{kNoInfoEx}}, start, infoEx},
        {nullptr, 0x12, simbus::kCommandReplyStall, name, kAnyFailure, {{kNoInfoEx}}, start, infoEx},
        // Goes on with a chip nobody knows.
        {nullptr, 0x1E, simbus::kCommandStatusByte, all, st::adapterHardwareError, noChip, start, chip},
        // The descriptor and the three buffers are all that a start takes from the pool before its defect list.
        {pool, 2, 0, name, st::noMemory, noMemory, start, memory},
        {pool, 3, 0, name, st::noMemory, noMemory, start, memory},
        {pool, 4, 0, name, st::noMemory, noMemory, start, memory},
        {"IoCreateDevice", 1, 0, nothing, kAnyFailure, none, add, "Can not create device object, return %Xh \n"},
        {"IoAttachDeviceToDeviceStack", 1, 0, nothing, st::noSuchDevice, none, add, "Can not attach device! \n"},
        {"IoGetDeviceProperty", 2, 0, all, st::success, none, nullptr, ""},
        {"IoBuildDeviceIoControlRequest", 1, 0, name, st::insufficientResources, none, pnp, "return %Xh\n"},
        {"IoCreateSymbolicLink", 2, 0, oneNameAndRuns, st::success, none, "pnp/AddSlaveDevice", "~ return C~h\n"},
        {"IoRegisterDeviceInterface", 1, 0, bothNames, kAnyFailure, none, pnp, "Unable ~, Status=[%X] \n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        rig.machine.eventLog().clear();
        const std::uint64_t mark = rig.mark();
        unsigned calls = 0;
        if (row.routine) {
            rig.machine.faults().only({"usbcam"});
            rig.machine.faults().onCall([&](const ntos::KernelCall &call) {
                return call.routine == std::string_view(row.routine) && ++calls == row.which;
            });
        }
        const auto failCommand = [&](std::uint32_t slot) { rig.commandFault(slot, row.which, row.kind, 0x91); };
        const Camera camera = row.routine ? rig.plug(model(1)) : rig.plug(model(1), failCommand);
        rig.machine.faults().off();
        ASSERT_TRUE(!row.routine || calls >= row.which) << "the fault met no call";
        const bool added = row.left != nothing, slave = row.left == bothNames || row.left == all,
                   started = row.left >= oneNameAndRuns;
        const NtStatus answer = added ? camera.device.startStatus() : camera.device.addStatus();
        const std::vector<ntos::EventLogEntry> entries = rig.machine.eventLog().entries();
        const NtStatus status = entries.empty() ? answer : entries[0].finalStatus;
        expectStatus(status, row.status);
        EXPECT_EQ(answer, started ? st::success : status);
        expectEvents(rig, row.events, status);
        char text[128];
        std::snprintf(text, sizeof text, row.said, static_cast<unsigned>(status));
        const std::string line =
            row.who ? std::string("E ") + row.who + ": " + text : "  pnp/PnpStartDevice: return 0h\n";
        EXPECT_EQ(rig.times(line, mark), 1u) << line;
        EXPECT_EQ(camera.device.state(), started ? DeviceState::started
                                         : added ? DeviceState::added
                                                 : DeviceState::enumerated);
        EXPECT_EQ(rig.machine.deviceNameExists("\\Device\\UsbVQTR42X0"), added);
        EXPECT_EQ(rig.machine.symbolicLink("UsbVQTR42Xx_0").has_value(), added);
        EXPECT_EQ(rig.machine.symbolicLink("QorinInfer01r00").has_value(), slave);
        EXPECT_EQ(vqt::Camera::listInterfaces().size(), started ? 1u : 0u);
        EXPECT_EQ(rig.machine.pool("42QV").blocks, started || slave ? 3u : 0u);
        rig.unplug(camera);
        EXPECT_TRUE(rig.ids().empty());
        EXPECT_FALSE(rig.machine.symbolicLink("QorinInfer01r00") ||
                     rig.machine.deviceNameExists("\\Device\\UsbVQTR42X0"));
        EXPECT_EQ(rig.machine.pool("42QV").blocks, 0u);
        const Camera next = rig.plug(model(1));
        EXPECT_EQ(next.id, '0');
        EXPECT_EQ(next.device.state(), DeviceState::started);
        rig.unplug(next);
    }
}

TEST_F(Startup, DefectsAreReadFromTheTopOfTheFlash)
{
    const Strings thirteen = {"> 18 BF 7F 1E 00", "> 18 DD 7F 1E 00", "> 18 FB 7F 05 00"};
    const struct {
        std::uint32_t records;
        std::uint32_t count;    // what the camera says
        std::uint16_t failRead; // this flash read is refused, 0: none
        std::uint32_t loaded;
        unsigned complaints;
        Strings reads = {};
    } rows[] = {
        {0, 0, 0, 0, 0},
        {1, 1, 0, 1, 0, {thirteen[2]}},
        {13, 13, 0, 13, 0, thirteen},
        {13, 13, 2, 6, 1, {thirteen[0], thirteen[1]}},
        {0, 6553, 0, 6553, 0}, // more reads than the bus remembers
        {0, 6554, 0, 0, 1},
        {0, 0xFFFFFFFF, 0, 0, 1}, // an erased flash
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        const std::uint64_t mark = rig.mark();
        const Camera camera = rig.plug(model(1), [&](std::uint32_t slot) {
            std::vector<simbus::DEFECT_RECORD> records;
            for (std::uint32_t i = 0; i < row.records; ++i)
                records.push_back({static_cast<std::uint16_t>(10 + 4 * i), static_cast<std::uint16_t>(20 + i), 0});
            if (!records.empty())
                rig.bay.setDefects(slot, records).value();
            rig.bay.setFlash(slot, 0, {}, row.count).value();
            if (row.failRead)
                rig.commandFault(slot, 0x18, simbus::kCommandShort, 8, row.failRead - 1u);
        });
        EXPECT_EQ(camera.device.startStatus(), st::success);
        Strings reads;
        for (const std::string &line : rig.wire(camera))
            if (line.substr(0, 4) == "> 18")
                reads.push_back(line);
        EXPECT_TRUE(reads == row.reads || row.count == 6553);
        EXPECT_TRUE(rig.said("~: Finish, load " + std::to_string(row.loaded) + " BadPixels\n", mark));
        EXPECT_EQ(rig.times("E badpix/~", mark), row.complaints);
        EXPECT_EQ(rig.machine.pool("42QV").blocks, 3u + (row.loaded ? 1u : 0u));
        rig.unplug(camera);
    }
}

} // namespace
