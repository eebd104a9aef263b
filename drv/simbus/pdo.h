// The camera's physical device object: what Plug and Play and the power manager see of a camera on the bus.
#pragma once

#include "camera.h"

namespace simbus {

struct BUS;

enum class NODE { Bus, Camera, Control };

// Begins every device extension of this driver.
struct NODE_HEADER {
    NODE Kind;
};

struct PDO {
    NODE_HEADER Header;
    CAMERA *Camera;
    BUS *Bus;               // null once the bus has gone; under the bus's list gate
    bool Reported;          // an enumeration has shown it; under the bus's list gate
    bool ReportedMissing;   // one has left it out; as above
};

inline CAMERA *PdoCamera(PDEVICE_OBJECT DeviceObject) { return static_cast<PDO *>(DeviceObject->DeviceExtension)->Camera; }

DRIVER_DISPATCH PdoPnp;
DRIVER_DISPATCH PdoPower;

// Answers a query about the device: identifiers, texts, capabilities. STATUS_NOT_SUPPORTED: not one of those.
_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS PdoQuery(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_STACK_LOCATION Stack);

// Ends everything the camera still has queued, lets go of it and deletes the object. The slot is free afterwards.
_IRQL_requires_max_(PASSIVE_LEVEL)
void PdoDelete(PDEVICE_OBJECT DeviceObject);

}  // namespace simbus
