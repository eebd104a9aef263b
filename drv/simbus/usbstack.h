// The USB stack above the camera: takes URBs in any thread up to DISPATCH_LEVEL, and serves them in the bus's thread.
//
// The streaming pipe carries bytes. A read of it completes when it is full, wherever in a line that is, and what did not fit
// is what the next read begins with (a host controller would call a read that ends within a packet an overrun; here every
// length is served, so that streams can be cut anywhere). The one short packet there is ends a triggered frame: the read
// that takes the frame's last byte completes with it, full or not, and leaves nothing behind for the next.
//
// The camera waits for reads: nothing is lost between them. Selecting a configuration, the sensor's reset, a trigger, a lost
// supply and, for free-running frames, standby forget what has not been read; an abort forgets nothing.
#pragma once

#include "transfer.h"

namespace simbus {

// IRP_MJ_INTERNAL_DEVICE_CONTROL of a camera's device object.
DRIVER_DISPATCH UsbInternalControl;

// Serves what one camera has waiting, if the caller (the bus's thread, or whoever does its work by hand) is the one to.
// True when something was done. *Due is lowered to the system time at which there will be something to do without being
// woken.
_IRQL_requires_max_(PASSIVE_LEVEL)
bool UsbServe(CAMERA *Camera, bool ByHand, LONGLONG *Due);

// Ends everything queued, held reads included.
_IRQL_requires_max_(PASSIVE_LEVEL)
void UsbFlush(CAMERA *Camera);

// Closes the pipes: pending reads end cancelled and the camera stops sending. For a removed or stopped device.
_IRQL_requires_max_(PASSIVE_LEVEL)
void UsbUnconfigure(CAMERA *Camera);

// Carries out everything but reads and writes of pipes. The caller holds the camera's gate.
enum class CONTROL { Done, Stuck, Delayed };
CONTROL UsbControl(CAMERA *Camera, PIRP Irp, USBD_STATUS *Status, LIST_ENTRY *Done, LONGLONG *NotBefore);

// GET_DESCRIPTOR. The bytes' number; 0 and Stalled for one the camera has not.
ULONG DescriptorRead(CAMERA *Camera, UCHAR Type, UCHAR Index, UCHAR *To, ULONG Length, bool *Stalled);

// SELECT_CONFIGURATION with what the host read as the descriptor.
USBD_STATUS ConfigurationSelect(CAMERA *Camera, _URB_SELECT_CONFIGURATION *Request, LIST_ENTRY *Done);

// The pipe that a handle means now; -1: none, or one of an earlier selection. Under Camera->Lock.
LONG PipeOf(const CAMERA *Camera, USBD_PIPE_HANDLE Handle);
USBD_PIPE_HANDLE PipeHandle(const CAMERA *Camera, ULONG Index);

}  // namespace simbus
