#include "eventlog.h"

#include "debug.h"

USBCAM_MODULE("drv/usb/eventlog")

namespace {

// Longwords of a packet, the first dump word included; the packet asked for has room for one more.
constexpr ULONG kPacketWords = sizeof(IO_ERROR_LOG_PACKET) / sizeof(ULONG);
static_assert(kPacketWords == 12);

constexpr ULONG PacketSize(ULONG DumpCount)
{
    return (DumpCount + kPacketWords) * static_cast<ULONG>(sizeof(ULONG));
}
constexpr ULONG kMaxDumpWords = 0xFF / sizeof(ULONG) - kPacketWords;
static_assert(PacketSize(0) == 48 && PacketSize(1) == 52 && PacketSize(kMaxDumpWords) <= 0xFF);
static_assert(offsetof(IO_ERROR_LOG_PACKET, DumpData) + kMaxDumpWords * sizeof(ULONG) <= PacketSize(kMaxDumpWords));

} // namespace

void WriteErrorLogEntry(PDEVICE_OBJECT DeviceObject, ULONG ErrorCode, ULONG FinalStatus, ULONG DumpCount,
                        const ULONG *DumpData)
{
    DebugPrint("EVENT LOG\n");
    if (DumpCount > kMaxDumpWords) {
        return;
    }
    const ULONG Size = PacketSize(DumpCount);
    const auto Packet =
        static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(DeviceObject, static_cast<UCHAR>(Size)));
    if (Packet == nullptr) {
        return;
    }
    RtlZeroMemory(Packet, Size);
    Packet->DumpDataSize = static_cast<USHORT>(DumpCount * sizeof(ULONG));
    Packet->ErrorCode = static_cast<NTSTATUS>(ErrorCode);
    Packet->FinalStatus = static_cast<NTSTATUS>(FinalStatus);
    for (ULONG Index = 0; Index < DumpCount; ++Index) {
        Packet->DumpData[Index] = DumpData[Index];
    }
    IoWriteErrorLogEntry(Packet);
}
