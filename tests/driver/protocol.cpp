// Camera commands as transactions, and the descriptors of the USB interface underneath them.
#include "fixture.h"

#include <atomic>
#include <thread>

using namespace rig;

namespace {

using Strings = std::vector<std::string>;

class Protocol : public DriverTest {
protected:
    Protocol() : camera(rig.plug(model(1))), handle(rig.open(camera))
    {
        rig.wire(camera);
    }
    void TearDown() override
    {
        // Whatever happened, no transaction may be left half done.
        const std::uint64_t mark = rig.mark();
        handle.close();
        rig.unplug(camera);
        EXPECT_TRUE(
            rig.said("  pnp/PnpShutdownDevice: KeReadStateSemaphore(& (DevExt->HwCommandSemaphore)) = 1 \n", mark));
        DriverTest::TearDown();
    }
    Camera camera;
    Handle handle;
};

TEST_F(Protocol, RepliesAreCheckedAndCut)
{
    const struct {
        const char *name;
        std::uint16_t kind;
        std::uint32_t value;
        std::size_t room; // of the caller
        NtStatus status;
        std::size_t payload;
        const char *said = nullptr;
    } rows[] = {
        {"whole", simbus::kCommandDelay, 1, 64, st::success, 16},
        {"cut to the room", simbus::kCommandDelay, 1, 5, st::success, 5},
        {"no room", simbus::kCommandDelay, 1, 0, st::success, 0},
        {"no byte", simbus::kCommandShort, 0, 64, st::adapterHardwareError, 0, "OutputCount=0\n"},
        {"status byte alone", simbus::kCommandShort, 1, 64, st::success, 0},
        {"one byte", simbus::kCommandShort, 2, 64, st::success, 1},
        {"longest", simbus::kCommandLong, 64, 64, st::success, 63},
        {"longest, cut", simbus::kCommandLong, 64, 17, st::success, 17},
        {"wrong", simbus::kCommandStatusByte, 0x91, 64, st::adapterHardwareError, 0, "OutputCount=17 ReturnCode=91h\n"},
        {"zero", simbus::kCommandStatusByte, 0, 64, st::adapterHardwareError, 0, "OutputCount=17 ReturnCode=00h\n"},
        {"command stalls", simbus::kCommandStall, 0, 64, kAnyFailure, 0},
        {"reply stalls", simbus::kCommandReplyStall, 0, 64, kAnyFailure, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        rig.wire(camera);
        rig.commandFault(camera.slot, 0x12, row.kind, row.value);
        const std::uint64_t mark = rig.mark();
        Bytes out(row.room, 0x77);
        const std::uint8_t code = 0x12;
        const Result result = handle.file().deviceControl(IOCTL_HwCommand, &code, 1, out.data(), out.size());
        expectStatus(result.status, row.status);
        EXPECT_EQ(result.information, row.payload);
        for (std::size_t i = row.payload; i < out.size(); ++i)
            ASSERT_EQ(out[i], 0x77) << "byte " << i << " was not the driver's to write";
        EXPECT_TRUE(row.kind != simbus::kCommandLong || out[row.payload - 1] == 0xEE);
        EXPECT_EQ(rig.times("E hwcommand/~", mark), row.said ? 1u : 0u);
        EXPECT_TRUE(!row.said || rig.said(std::string("E hwcommand/HwCommand_RecvData: ") + row.said, mark));
        const Strings wire = rig.wire(camera, true);
        const bool fetched = std::any_of(wire.begin(), wire.end(), [](const auto &line) { return line[0] == '<'; });
        EXPECT_EQ(fetched, row.kind != simbus::kCommandStall && row.kind != simbus::kCommandReplyStall);
        // The next transaction finds the camera and the semaphore as always.
        Bytes next(64);
        EXPECT_EQ(handle.command({0x1E, 0x00}, next), st::success);
        EXPECT_EQ(next, (Bytes{0x84, 0x31}));
    }
}

// Two threads ask for different things all the time, while the bus completes in other threads: command, reply, command,
// reply, and each gets its own.
TEST_F(Protocol, TransactionsDoNotInterleave)
{
    ntos::SchedulingFaults scheduling;
    scheduling.forcePending = scheduling.completeElsewhere = scheduling.delayAtWaits = true;
    scheduling.percent = 30;
    rig.machine.faults().scheduling(scheduling);
    std::atomic<unsigned> wrong{0};
    const auto ask = [&](const Bytes &command, std::size_t length, std::uint8_t first) {
        Handle own = rig.open(camera);
        for (int i = 0; i < 120; ++i) {
            Bytes reply(64);
            if (own.command(command, reply) != st::success || reply.size() != length || reply[0] != first)
                ++wrong;
        }
    };
    std::thread info([&] { ask({0x12}, 16, 0x1C); });
    std::thread chip([&] { ask({0x1E, 0x00}, 2, 0x84); });
    info.join();
    chip.join();
    rig.machine.faults().off();
    EXPECT_EQ(wrong, 0u);
    const Strings wire = rig.wire(camera, true);
    EXPECT_EQ(wire.size(), 480u);
    for (std::size_t i = 0; i < wire.size(); ++i)
        ASSERT_EQ(wire[i][0], i % 2 ? '<' : '>') << "transfer " << i;
}

// ---------------------------------------------------------------------------------------------------------- interface

struct Endpoint {
    std::uint8_t address, attributes;
    std::uint16_t packet;
};

// Setting 0 without endpoints, and setting 1 with these.
Bytes configuration(const std::vector<Endpoint> &endpoints)
{
    Bytes bytes{9, 2, 0, 0, 1, 1, 0, 0x80, 250, 9, 4, 0, 0, 0, 0xFF, 0, 0, 0, 9, 4, 0, 1, 0, 0xFF, 0, 0, 0};
    bytes[22] = static_cast<std::uint8_t>(endpoints.size());
    for (const Endpoint &e : endpoints)
        for (const int byte : {7, 5, int{e.address}, int{e.attributes}, e.packet & 0xFF, e.packet >> 8, 0})
            bytes.push_back(static_cast<std::uint8_t>(byte));
    bytes[2] = static_cast<std::uint8_t>(bytes.size());
    return bytes;
}
Bytes changed(Bytes bytes, std::size_t at, std::uint8_t value)
{
    bytes[at] = value;
    return bytes;
}
Bytes cut(Bytes bytes, std::size_t length)
{
    bytes.resize(length);
    return bytes;
}

TEST_F(Protocol, DescriptorsAreCheckedBeforeTheyAreBelieved)
{
    const Endpoint stream{0x82, 2, 512}, other{0x81, 2, 512};
    const Bytes good = configuration({stream});
    const struct {
        const char *name;
        Bytes bytes;
        NtStatus status; // of selecting setting 1
        bool streams = false;
        const char *said = "~";
    } rows[] = {
        {"one pipe", good, st::success, true, "Pipe #0 : MaximumPacketSize=512 MaximumTransferSize=50176\n"},
        {"three pipes", configuration({stream, other, {0x03, 2, 512}}), st::success, true,
         "Pipe #2 : MaximumPacketSize=512 MaximumTransferSize=50176\n"},
        {"isochronous last", configuration({stream, {0x81, 1, 1023}}), st::success, true, "Hmm, ISO mode ???\n"},
        {"no pipe", configuration({}), st::success},
        {"another endpoint", configuration({other}), st::success},
        {"setting missing", changed(cut(good, 18), 2, 18), st::insufficientResources, false, "Pid==NULL\n"},
        {"total 8", changed(good, 2, 8), st::adapterHardwareError},
        {"total 65535", changed(changed(good, 2, 255), 3, 255), st::adapterHardwareError},
        {"delivered 4", cut(good, 4), st::adapterHardwareError},
        {"delivered nothing", Bytes{9}, st::adapterHardwareError},
        {"length 0 endpoint", changed(good, good.size() - 7, 0), st::adapterHardwareError},
        {"endpoints 200", changed(good, 22, 200), st::adapterHardwareError},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        rig.configuration(camera.slot, row.bytes);
        const std::uint64_t mark = rig.mark();
        const std::uint64_t blocks = rig.machine.pool("42QV").blocks;
        const std::uint32_t selections = rig.sensor(camera).PipesOpened;
        const NtStatus status = handle.set(IOCTL_SetInterfaceType, std::uint16_t{0x0100});
        expectStatus(status, row.status);
        EXPECT_TRUE(rig.said(std::string("  usb/UsbSetInterface: ") + row.said, mark));
        EXPECT_EQ(handle.state().AltSetting, ntos::succeeded(status) ? 1 : 0);
        EXPECT_EQ(rig.sensor(camera).PipesOpened - selections, ntos::succeeded(status) ? 1u : 0u);
        EXPECT_EQ(rig.machine.pool("42QV").blocks, blocks);
        if (ntos::succeeded(status)) {
            EXPECT_EQ(handle.set(IOCTL_SetDefAlt, std::uint8_t{1}), st::success);
            EXPECT_EQ(handle.status(1), row.streams ? st::success : st::invalidDeviceRequest);
            EXPECT_EQ(handle.status(0), row.streams ? st::success : st::invalidDeviceRequest);
        }
        // The truth works again.
        rig.configuration(camera.slot, {});
        EXPECT_EQ(handle.set(IOCTL_SetInterfaceType, std::uint16_t{0x0000}), st::success);
        EXPECT_EQ(handle.status(1), st::success);
        EXPECT_EQ(handle.status(0), st::success);
    }
}

} // namespace
