// Internal requests to a USB device stack.
#pragma once

#include <ntddk.h>

#define USB_SUBMIT_URB 0
#define IOCTL_INTERNAL_USB_SUBMIT_URB CTL_CODE(FILE_DEVICE_USB, USB_SUBMIT_URB, METHOD_NEITHER, FILE_ANY_ACCESS)
