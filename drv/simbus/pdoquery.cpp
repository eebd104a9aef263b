// What the system asks about a camera: who it is, what it can do, who its relatives are.
#include "pdo.h"

namespace simbus {

namespace {

// USB's bus type, from the platform's wdmguid.h; a definition of its own spares the driver the GUID library.
constexpr GUID kUsbBusType = {0x9d7debbc, 0xc85d, 0x11d1, {0x9e, 0xb4, 0x00, 0x60, 0x08, 0xc3, 0xa1, 0x9a}};

constexpr WCHAR kDeviceId[] = L"" VQT_SIMBUS_CAMERA_HARDWARE_ID;
constexpr WCHAR kHardwareIds[] = L"" VQT_SIMBUS_CAMERA_HARDWARE_ID "&REV_0100\0" VQT_SIMBUS_CAMERA_HARDWARE_ID "\0";
constexpr WCHAR kCompatibleIds[] = L"USB\\Class_FF&SubClass_FF&Prot_FF\0USB\\Class_FF&SubClass_FF\0USB\\Class_FF\0";

// A copy in paged pool for the system, which frees it. Null without memory.
template <typename T>
T *PoolCopy(const T *Source, SIZE_T Bytes)
{
    void *Copy = ExAllocatePoolWithTag(PagedPool, Bytes, kTag);
    if (Copy != nullptr) RtlCopyMemory(Copy, Source, Bytes);
    return static_cast<T *>(Copy);
}

NTSTATUS Answer(PIRP Irp, const void *Source, SIZE_T Bytes)
{
    const UCHAR *Copy = PoolCopy(static_cast<const UCHAR *>(Source), Bytes);
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(Copy);
    return Copy != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

// Text put together of pieces; what does not fit is left out.
class TEXT_LINE {
public:
    TEXT_LINE &Add(const WCHAR *Text)
    {
        for (; *Text != 0; ++Text) Put(*Text);
        return *this;
    }
    TEXT_LINE &AddNumber(ULONG Value, ULONG Digits)
    {
        for (ULONG Unit = Digits; Unit-- > 0;) {
            ULONG Power = 1;
            for (ULONG i = 0; i < Unit; ++i) Power *= 10;
            Put(static_cast<WCHAR>(L'0' + Value / Power % 10));
        }
        return *this;
    }
    const WCHAR *Text() const { return Text_; }
    SIZE_T Bytes() const { return (Length_ + 1) * sizeof(WCHAR); }

private:
    void Put(WCHAR Character)
    {
        if (Length_ + 1 < sizeof(Text_) / sizeof(Text_[0])) Text_[Length_++] = Character;
    }
    WCHAR Text_[64] = {};
    SIZE_T Length_ = 0;
};

NTSTATUS QueryId(const CAMERA *Camera, PIRP Irp, BUS_QUERY_ID_TYPE Type)
{
    switch (Type) {
    case BusQueryDeviceID: return Answer(Irp, kDeviceId, sizeof(kDeviceId));
    case BusQueryHardwareIDs: return Answer(Irp, kHardwareIds, sizeof(kHardwareIds));
    case BusQueryCompatibleIDs: return Answer(Irp, kCompatibleIds, sizeof(kCompatibleIds));
    case BusQueryInstanceID: {
        TEXT_LINE Line;
        Line.AddNumber(Camera->Slot, 4);
        return Answer(Irp, Line.Text(), Line.Bytes());
    }
    default: return STATUS_NOT_SUPPORTED;
    }
}

NTSTATUS QueryText(const CAMERA *Camera, PIRP Irp, DEVICE_TEXT_TYPE Type)
{
    TEXT_LINE Line;
    if (Type == DeviceTextDescription) Line.Add(CameraModelName(Camera->Identity)).Add(L" simulated camera");
    else if (Type == DeviceTextLocationInformation) Line.Add(L"Port_#").AddNumber(Camera->Slot, 4).Add(L".Hub_#0001");
    else return STATUS_NOT_SUPPORTED;
    return Answer(Irp, Line.Text(), Line.Bytes());
}

NTSTATUS QueryCapabilities(const CAMERA *Camera, PDEVICE_CAPABILITIES Capabilities)
{
    if (Capabilities == nullptr || Capabilities->Version != 1 || Capabilities->Size < sizeof(DEVICE_CAPABILITIES)) {
        return STATUS_UNSUCCESSFUL;
    }
    Capabilities->DeviceD1 = Capabilities->DeviceD2 = 1;
    Capabilities->Removable = 1;
    Capabilities->SurpriseRemovalOK = 1;
    Capabilities->EjectSupported = 0;
    Capabilities->UniqueID = 0;
    Capabilities->SilentInstall = 0;
    Capabilities->RawDeviceOK = 0;
    Capabilities->Address = Camera->Slot + 1;
    Capabilities->UINumber = 0xFFFFFFFF;   // none
    for (ULONG State = PowerSystemUnspecified; State < PowerSystemMaximum; ++State) {
        Capabilities->DeviceState[State] = PowerDeviceD3;
    }
    Capabilities->DeviceState[PowerSystemUnspecified] = PowerDeviceUnspecified;
    Capabilities->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    Capabilities->SystemWake = PowerSystemUnspecified;
    Capabilities->DeviceWake = PowerDeviceUnspecified;
    return STATUS_SUCCESS;
}

NTSTATUS QueryBus(PIRP Irp)
{
    PNP_BUS_INFORMATION Information = {};
    Information.BusTypeGuid = kUsbBusType;
    Information.LegacyBusType = PNPBus;
    Information.BusNumber = 0;
    return Answer(Irp, &Information, sizeof(Information));
}

NTSTATUS QueryTarget(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_RELATIONS Relations = {};
    Relations.Count = 1;
    Relations.Objects[0] = DeviceObject;
    const NTSTATUS Status = Answer(Irp, &Relations, sizeof(Relations));
    if (NT_SUCCESS(Status)) ObReferenceObject(DeviceObject);
    return Status;
}

}  // namespace

_Use_decl_annotations_
NTSTATUS PdoQuery(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_STACK_LOCATION Stack)
{
    const CAMERA *Camera = PdoCamera(DeviceObject);
    switch (Stack->MinorFunction) {
    case IRP_MN_QUERY_ID: return QueryId(Camera, Irp, Stack->Parameters.QueryId.IdType);
    case IRP_MN_QUERY_DEVICE_TEXT: return QueryText(Camera, Irp, Stack->Parameters.QueryDeviceText.DeviceTextType);
    case IRP_MN_QUERY_CAPABILITIES:
        return QueryCapabilities(Camera, Stack->Parameters.DeviceCapabilities.Capabilities);
    case IRP_MN_QUERY_BUS_INFORMATION: return QueryBus(Irp);
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        return Stack->Parameters.QueryDeviceRelations.Type == TargetDeviceRelation ? QueryTarget(DeviceObject, Irp)
                                                                                   : STATUS_NOT_SUPPORTED;
    default: return STATUS_NOT_SUPPORTED;   // no resources, among others
    }
}

}  // namespace simbus
