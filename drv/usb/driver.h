// The driver's face towards the operating system: entry, open, close, WMI, and the dispatcher of device control
// requests.
#pragma once

#include "device.h"

extern "C" DRIVER_INITIALIZE DriverEntry;
DRIVER_UNLOAD USBCAM_Unload;

// Always succeed; a close also undoes the frame mapping that was made through the handle.
DRIVER_DISPATCH USBCAM_DispatchCreate;
DRIVER_DISPATCH USBCAM_DispatchClose;

// Completes every request before it returns, in the caller's thread, at PASSIVE_LEVEL.
DRIVER_DISPATCH USBCAM_DispatchDeviceControl;

// Passes WMI requests down.
DRIVER_DISPATCH USBCAM_DispatchSystemControl;
