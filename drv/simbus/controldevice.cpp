#include "controldevice.h"

namespace simbus {

namespace {

constexpr WCHAR kDeviceName[] = L"" VQT_SIMBUS_NT_NAME;
constexpr WCHAR kLinkName[] = L"" VQT_SIMBUS_LINK_NAME;

struct CONTROL_RULE {
    ULONG Code;
    ULONG InputLength;      // of the record
    bool More;              // items follow it
    ULONG OutputLength;
    CONTROL_ROUTINE *Routine;
};

constexpr CONTROL_RULE kRules[] = {
    {kIoctlPlug, sizeof(PLUG_REQUEST), false, sizeof(SLOT_RECORD), ControlPlug},
    {kIoctlUnplug, sizeof(SLOT_RECORD), false, 0, ControlUnplug},
    {kIoctlList, 0, false, 0, ControlList},
    {kIoctlSetScene, sizeof(SCENE_REQUEST), true, 0, ControlSetScene},
    {kIoctlSetDefects, sizeof(DEFECTS_REQUEST), true, 0, ControlSetDefects},
    {kIoctlSetFlash, sizeof(FLASH_REQUEST), true, 0, ControlSetFlash},
    {kIoctlSetLineFaults, sizeof(LINE_FAULTS_REQUEST), true, 0, ControlSetLineFaults},
    {kIoctlTrigger, sizeof(SLOT_RECORD), false, sizeof(TRIGGER_REPLY), ControlTrigger},
    {kIoctlRender, sizeof(RENDER_REQUEST), false, 0, ControlRender},
    {kIoctlReadState, sizeof(SLOT_RECORD), false, sizeof(CAMERA_STATE), ControlReadState},
    {kIoctlReadLog, sizeof(LOG_REQUEST), false, sizeof(LOG_HEADER), ControlReadLog},
    {kIoctlSetCommandFaults, sizeof(COMMAND_FAULTS_REQUEST), true, 0, ControlSetCommandFaults},
    {kIoctlSetBulkFaults, sizeof(BULK_FAULTS_REQUEST), true, 0, ControlSetBulkFaults},
    {kIoctlReleaseHeld, sizeof(SLOT_RECORD), false, 0, ControlReleaseHeld},
    {kIoctlSetDescriptor, sizeof(DESCRIPTOR_REQUEST), true, 0, ControlSetDescriptor},
    {kIoctlFailRequests, sizeof(FAIL_REQUESTS), false, 0, ControlFailRequests},
    {kIoctlSetPace, sizeof(PACE_REQUEST), false, 0, ControlSetPace},
    {kIoctlSetSilence, sizeof(SILENCE_REQUEST), false, 0, ControlSetSilence},
    {kIoctlSendRequest, sizeof(SEND_REQUEST), false, sizeof(SEND_REPLY), ControlSendRequest},
    {kIoctlWriteRegister, sizeof(REGISTER_REQUEST), false, 0, ControlWriteRegister},
    {kIoctlSetNextFrame, sizeof(NEXT_FRAME_REQUEST), false, 0, ControlSetNextFrame},
    {kIoctlSetLineFlags, sizeof(LINE_FLAGS_REQUEST), false, 0, ControlSetLineFlags},
    {kIoctlSetMode, sizeof(MODE_REQUEST), false, 0, ControlSetMode},
    {kIoctlFreeze, sizeof(FREEZE_REQUEST), false, 0, ControlFreeze},
    {kIoctlServe, sizeof(SLOT_RECORD), false, sizeof(SERVE_REPLY), ControlServe},
};

CONTROL_NODE *NodeOfControl(PDEVICE_OBJECT DeviceObject) { return static_cast<CONTROL_NODE *>(DeviceObject->DeviceExtension); }

// The bus, kept from going until ControlLeave; null when it is going already.
BUS *ControlEnter(CONTROL_NODE *Node)
{
    SPIN_HOLD Hold(&Node->Lock);
    if (Node->Bus != nullptr) ++Node->Users;
    return Node->Bus;
}

void ControlLeave(CONTROL_NODE *Node)
{
    SPIN_HOLD Hold(&Node->Lock);
    if (--Node->Users == 0 && Node->Bus == nullptr) KeSetEvent(&Node->Idle, IO_NO_INCREMENT, FALSE);
}

NTSTATUS Serve(BUS *Bus, PIRP Irp, PIO_STACK_LOCATION Stack, ULONG *Written)
{
    const CONTROL_RULE *Rule = nullptr;
    for (const CONTROL_RULE &Candidate : kRules) {
        if (Candidate.Code == static_cast<ULONG>(Stack->Parameters.DeviceIoControl.IoControlCode)) Rule = &Candidate;
    }
    if (Rule == nullptr) return STATUS_INVALID_DEVICE_REQUEST;
    CONTROL_CALL Call = {Bus, static_cast<UCHAR *>(Irp->AssociatedIrp.SystemBuffer),
                         Stack->Parameters.DeviceIoControl.InputBufferLength,
                         Stack->Parameters.DeviceIoControl.OutputBufferLength, 0};
    if (Call.InputLength < Rule->InputLength || (!Rule->More && Call.InputLength != Rule->InputLength)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Call.OutputLength < Rule->OutputLength) return STATUS_BUFFER_TOO_SMALL;
    const NTSTATUS Status = Rule->Routine(Call);
    *Written = NT_SUCCESS(Status) ? Call.Written : 0;
    return Status;
}

}  // namespace

_Use_decl_annotations_
NTSTATUS ControlCreate(PDRIVER_OBJECT DriverObject, BUS *Bus)
{
    UNICODE_STRING Name, Link;
    RtlInitUnicodeString(&Name, kDeviceName);
    RtlInitUnicodeString(&Link, kLinkName);
    PDEVICE_OBJECT Control = nullptr;
    NTSTATUS Status = IoCreateDevice(DriverObject, sizeof(CONTROL_NODE), &Name, FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN,
                                     FALSE, &Control);
    if (!NT_SUCCESS(Status)) return Status;
    CONTROL_NODE *Node = NodeOfControl(Control);
    RtlZeroMemory(Node, sizeof(*Node));
    Node->Header.Kind = NODE::Control;
    Node->Bus = Bus;
    KeInitializeSpinLock(&Node->Lock);
    KeInitializeEvent(&Node->Idle, NotificationEvent, FALSE);
    Status = IoCreateSymbolicLink(&Link, &Name);
    if (!NT_SUCCESS(Status)) {
        IoDeleteDevice(Control);
        return Status;
    }
    Bus->Control = Control;
    Control->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
void ControlDelete(BUS *Bus)
{
    CONTROL_NODE *Node = NodeOfControl(Bus->Control);
    bool Busy = false;
    {
        SPIN_HOLD Hold(&Node->Lock);
        Node->Bus = nullptr;
        Busy = Node->Users != 0;
    }
    if (Busy) KeWaitForSingleObject(&Node->Idle, Executive, KernelMode, FALSE, nullptr);
    UNICODE_STRING Link;
    RtlInitUnicodeString(&Link, kLinkName);
    IoDeleteSymbolicLink(&Link);
    IoDeleteDevice(Bus->Control);
    Bus->Control = nullptr;
}

_Use_decl_annotations_
NTSTATUS ControlDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    CONTROL_NODE *Node = NodeOfControl(DeviceObject);
    BUS *Bus = ControlEnter(Node);
    if (Bus == nullptr) return CompleteNow(Irp, STATUS_NO_SUCH_DEVICE);
    ULONG Written = 0;
    const NTSTATUS Status = Serve(Bus, Irp, IoGetCurrentIrpStackLocation(Irp), &Written);
    ControlLeave(Node);
    return CompleteNow(Irp, Status, Written);
}

}  // namespace simbus
