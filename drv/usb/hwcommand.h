// One camera command: code and arguments out, reply in, as two vendor control transfers on the default pipe.
#pragma once

#include "device.h"

constexpr UCHAR HW_COMMAND_VENDOR_REQUEST = 0xB0;
constexpr UCHAR HW_COMMAND_REPLY_OK = 0x90;

// Sends the command. Arguments may be null: the code goes alone. At most 63 argument bytes.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    HwCommand_SendData(PDEVICE_OBJECT DeviceObject, UCHAR Code, const UCHAR *Arguments, ULONG InputCount);

// Fetches and checks the reply. The copy is cut to the capacity; the length stored is that of the whole payload. Output
// and PayloadLength may be null; a failure writes neither.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    HwCommand_RecvData(PDEVICE_OBJECT DeviceObject, PUCHAR Output, ULONG Capacity, PULONG PayloadLength);

// Both halves, with no other transaction of this camera in between.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    HwCommand(PDEVICE_OBJECT DeviceObject, UCHAR Code, const UCHAR *Arguments, ULONG InputCount, PUCHAR Output,
              ULONG Capacity, PULONG PayloadLength);
