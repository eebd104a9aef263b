// Start-up problems in the system event log. The texts are in messages.mc.
#pragma once

#include "device.h"

enum USBCAM_EVENT : ULONG {
    kEventNoCameraInfo = 0xC0050001,
    kEventUsb1Mode = 0x80050002,
    kEventNoCameraInfoEx = 0xC0050003,
    kEventInvalidFirmware = 0xC0050004,
    kEventInvalidModel = 0xC0050005,
    kEventNoChipId = 0xC0050006,
    kEventInvalidChipId = 0xC0050007,
    kEventOutOfMemory = 0xC0050008,
};

// Queues one entry for the device. The I/O manager puts the device's name into the text. DumpData may be null when
// DumpCount is 0. An entry that there is no room for is dropped.
_IRQL_requires_max_(DISPATCH_LEVEL) void WriteErrorLogEntry(PDEVICE_OBJECT DeviceObject, ULONG ErrorCode,
                                                            ULONG FinalStatus, ULONG DumpCount, const ULONG *DumpData);
