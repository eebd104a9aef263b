// The names of a camera: each is a template whose last character becomes the DeviceID.
#pragma once

#include "device.h"

constexpr WCHAR kDeviceIds[] = L"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

constexpr WCHAR kKernelName[] = L"\\Device\\UsbVQTR42Xx";
constexpr WCHAR kDosName[] = L"\\DosDevices\\UsbVQTR42Xx_x";
constexpr WCHAR kSlaveName[] = L"\\DosDevices\\QorinInfer01r0x";

constexpr ULONG DeviceIdNumber(WCHAR DeviceID)
{
    return DeviceID <= L'9' ? static_cast<ULONG>(DeviceID - L'0') : static_cast<ULONG>(DeviceID - L'A') + 10;
}
static_assert(DeviceIdNumber(L'0') == 0 && DeviceIdNumber(L'9') == 9);
static_assert(DeviceIdNumber(L'A') == 10 && DeviceIdNumber(L'Z') == 35);
static_assert(sizeof(kDeviceIds) / sizeof(WCHAR) - 1 == 36 && sizeof(WCHAR) == 2);

template <SIZE_T Size> struct CAMERA_NAME {
    WCHAR Text[Size];
};

template <SIZE_T Size> constexpr CAMERA_NAME<Size> NameOf(const WCHAR (&Template)[Size], WCHAR DeviceID)
{
    CAMERA_NAME<Size> Name = {};
    for (SIZE_T Index = 0; Index < Size; ++Index) {
        Name.Text[Index] = Template[Index];
    }
    Name.Text[Size - 2] = DeviceID;
    return Name;
}
static_assert(NameOf(kKernelName, L'A').Text[18] == L'A' && NameOf(kKernelName, L'A').Text[19] == 0);
static_assert(NameOf(kDosName, L'0').Text[22] == L'x' && NameOf(kDosName, L'0').Text[24] == L'0');
