// The bus: a root-enumerated device whose children are the plugged cameras, a control device beside it, and two threads.
//
// Locks, in the order they are taken: ListGate (who is on the bus), a camera's Gate, a camera's Lock, the second thread's lock.
#pragma once

#include "camera.h"
#include "pdo.h"

namespace simbus {

// Extension of the functional device object.
struct BUS {
    NODE_HEADER Header;
    PDEVICE_OBJECT Self, Lower, Physical, Control;
    KEVENT ListGate;
    PDEVICE_OBJECT Slots[kMaxSlots];   // physical device objects, under ListGate
    SERVICE Service;
    PVOID Threads[2];                  // referenced thread objects, null while not running
};

// Extension of the control device. It can outlive the bus while a handle is open.
struct CONTROL_NODE {
    NODE_HEADER Header;
    KSPIN_LOCK Lock;
    BUS *Bus;                          // under Lock; null once the bus is going
    LONG Users;                        // requests inside, under Lock
    KEVENT Idle;                       // no request inside and none will come
};

inline NODE NodeOf(PDEVICE_OBJECT DeviceObject) { return static_cast<NODE_HEADER *>(DeviceObject->DeviceExtension)->Kind; }

// The camera in a slot, referenced; null without one.
_IRQL_requires_max_(PASSIVE_LEVEL)
CAMERA *BusReferenceCamera(BUS *Bus, ULONG Slot);

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS BusPlug(BUS *Bus, const PLUG_REQUEST &Request, ULONG *Slot);
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS BusUnplug(BUS *Bus, ULONG Slot);

// The relations as they are now, every object referenced; from here on the ones left out are missing.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS BusRelationsOf(BUS *Bus, PDEVICE_RELATIONS Before, PDEVICE_RELATIONS *Relations);

// A physical device object leaves its slot.
_IRQL_requires_max_(PASSIVE_LEVEL)
void BusForget(PDEVICE_OBJECT Pdo);

// Threads.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS ServiceStart(BUS *Bus);
_IRQL_requires_max_(PASSIVE_LEVEL)
void ServiceStop(BUS *Bus);

// The control device.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS ControlCreate(PDRIVER_OBJECT DriverObject, BUS *Bus);
// Refuses new requests, waits for those inside, takes the names away and deletes the device.
_IRQL_requires_max_(PASSIVE_LEVEL)
void ControlDelete(BUS *Bus);
DRIVER_DISPATCH ControlDispatch;

}  // namespace simbus
