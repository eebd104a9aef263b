// Plug and Play and power: creation and naming, start and removal, power policy.
#pragma once

#include "device.h"

DRIVER_ADD_DEVICE USBCAM_AddDevice;

// PASSIVE_LEVEL; power requests too, because the device is power-pageable whenever the device below is.
DRIVER_DISPATCH USBCAM_DispatchPnp;
DRIVER_DISPATCH USBCAM_DispatchPower;

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS PnpStartDevice(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(PASSIVE_LEVEL) void AddSlaveDevice(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(PASSIVE_LEVEL) void PnpShutdownDevice(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(PASSIVE_LEVEL) void PnpRemoveDevice(PDEVICE_OBJECT DeviceObject);

// The device request that a system request asked for has finished: the system request goes down.
REQUEST_POWER_COMPLETE PoRequestCompletion;

// A device request to D0 comes back up: the context is restored, at PASSIVE_LEVEL, before it goes on.
IO_COMPLETION_ROUTINE PowerIrp_Complete;

_IRQL_requires_max_(PASSIVE_LEVEL) void SetPower(PDEVICE_OBJECT DeviceObject, bool On);

// Waits until no power request needs the device any more.
_IRQL_requires_max_(PASSIVE_LEVEL) void WaitForPowerRequests(DEVICE_EXTENSION *DevExt);
