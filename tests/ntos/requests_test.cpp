// Requests: how buffers travel, how requests end, cancel.
#include "driver.h"

namespace nt_test {

// One system buffer of the larger length, the information's bytes copied back and no more, nothing after an error.
TEST_F(LayerTest, BufferedCopiesBackWhatTheInformationSays)
{
    const struct {
        std::size_t in, out;
        NTSTATUS status;
        ULONG_PTR information;
        std::size_t copied;
    } cases[] = {
        {0, 0, STATUS_SUCCESS, 0, 0},
        {16, 4, STATUS_SUCCESS, 4, 4},
        {4, 16, STATUS_SUCCESS, 3, 3},
        {16, 0, STATUS_SUCCESS, 0, 0},
        {4, 16, STATUS_BUFFER_OVERFLOW, 16, 16}, // a warning still carries data
        {4, 16, STATUS_INVALID_PARAMETER, 16, 0},
    };
    auto file = machine.open(kName);
    ASSERT_TRUE(file);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.in << " in, " << c.out << " out, " << c.status);
        behaviour.upper = [&](PDEVICE_OBJECT, PIRP irp) {
            const auto &control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
            EXPECT_EQ(c.in, control.InputBufferLength);
            EXPECT_EQ(c.out, control.OutputBufferLength);
            EXPECT_EQ(nullptr, irp->MdlAddress);
            auto *buffer = static_cast<UCHAR *>(irp->AssociatedIrp.SystemBuffer);
            EXPECT_EQ(c.in == 0 && c.out == 0, buffer == nullptr);
            for (std::size_t i = 0; i < c.in; i++)
                EXPECT_EQ(i + 1, buffer[i]);
            if (buffer != nullptr)
                memset(buffer, 0xA5, std::max(c.in, c.out));
            return complete(irp, c.status, c.information);
        };
        std::vector<std::uint8_t> in(c.in), out(c.out + 8, 0x11);
        for (std::size_t i = 0; i < c.in; i++)
            in[i] = static_cast<std::uint8_t>(i + 1);
        const auto result = file.deviceControl(code(1, METHOD_BUFFERED), in.data(), in.size(), out.data(), c.out);
        EXPECT_EQ(c.status, result.status);
        EXPECT_EQ(c.information, result.information);
        for (std::size_t i = 0; i < out.size(); i++)
            EXPECT_EQ(i < c.copied ? 0xA5 : 0x11, out[i]) << i;
    }
}

// An error on the spot is told by the returned status alone; a success or a pended end by block and event.
TEST_F(LayerTest, BuiltRequestsTellTheirEndAsThePlatformDoes)
{
    auto file = machine.open(kName);
    for (const NTSTATUS status : {STATUS_SUCCESS, STATUS_UNSUCCESSFUL}) {
        behaviour.lower = [&](PDEVICE_OBJECT, PIRP irp) { return complete(irp, status, 9); };
        behaviour.upper = [&](PDEVICE_OBJECT device, PIRP irp) {
            KEVENT event;
            IO_STATUS_BLOCK block{};
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            PIRP own = IoBuildDeviceIoControlRequest(code(9, METHOD_NEITHER), below(device), nullptr, 0, nullptr, 0,
                                                     FALSE, &event, &block);
            EXPECT_EQ(status, IoCallDriver(below(device), own));
            EXPECT_EQ(status == STATUS_SUCCESS, KeReadStateEvent(&event) != 0);
            EXPECT_EQ(status == STATUS_SUCCESS ? 9u : 0u, block.Information);
            return complete(irp, STATUS_SUCCESS);
        };
        EXPECT_TRUE(file.deviceControl(code(4, METHOD_BUFFERED)).ok());
    }
    EXPECT_EQ(0u, machine.counters().requests);
}

} // namespace nt_test
