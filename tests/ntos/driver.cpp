#include "driver.h"

namespace nt_test {

Behaviour behaviour;

namespace {

wchar_t kDevice[] = L"\\Device\\NtTest";
wchar_t kLink[] = L"\\DosDevices\\NtTest";

bool isUpper(PDEVICE_OBJECT device)
{
    return device == behaviour.upperDevice;
}

NTSTATUS NTAPI dispatchPnp(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const UCHAR minor = location->MinorFunction;
    if (isUpper(device)) {
        behaviour.pnpSeen.push_back(minor);
        const NTSTATUS status = behaviour.pnp ? behaviour.pnp(location) : STATUS_SUCCESS;
        if (!NT_SUCCESS(status))
            return complete(irp, status);
    }
    if (minor != IRP_MN_REMOVE_DEVICE)
        return forward(device, irp);
    irp->IoStatus.Status = STATUS_SUCCESS;
    PDEVICE_OBJECT lower = below(device);
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = IoCallDriver(lower, irp);
    if (isUpper(device) && !behaviour.namedLinkLeft) {
        UNICODE_STRING link;
        RtlInitUnicodeString(&link, kLink);
        IoDeleteSymbolicLink(&link);
    }
    IoDetachDevice(lower);
    IoDeleteDevice(device);
    return status;
}

NTSTATUS NTAPI dispatchPower(PDEVICE_OBJECT device, PIRP irp)
{
    PoStartNextPowerIrp(irp);
    if (isUpper(device) && behaviour.power) {
        const NTSTATUS status = behaviour.power(IoGetCurrentIrpStackLocation(irp));
        if (!NT_SUCCESS(status))
            return complete(irp, status);
    }
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(below(device), irp);
}

NTSTATUS NTAPI dispatchControl(PDEVICE_OBJECT device, PIRP irp)
{
    auto &handler = isUpper(device) ? behaviour.upper : behaviour.lower;
    if (handler)
        return handler(device, irp);
    return isUpper(device) ? forward(device, irp) : complete(irp, STATUS_NOT_SUPPORTED);
}

PDEVICE_OBJECT createOne(PDRIVER_OBJECT driver, PDEVICE_OBJECT physical, PUNICODE_STRING name)
{
    PDEVICE_OBJECT device = nullptr;
    IoCreateDevice(driver, sizeof(PDEVICE_OBJECT), name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    *static_cast<PDEVICE_OBJECT *>(device->DeviceExtension) = IoAttachDeviceToDeviceStack(device, physical);
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return device;
}

NTSTATUS NTAPI addDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT physical)
{
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, kDevice);
    RtlInitUnicodeString(&link, kLink);
    behaviour.lowerDevice = createOne(driver, physical, nullptr);
    behaviour.upperDevice = createOne(driver, physical, &name);
    if (behaviour.leakPool)
        ExAllocatePoolWithTag(NonPagedPool, 24, 'kael');
    return IoCreateSymbolicLink(&link, &name);
}

} // namespace

PDEVICE_OBJECT below(PDEVICE_OBJECT device)
{
    return *static_cast<PDEVICE_OBJECT *>(device->DeviceExtension);
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS forward(PDEVICE_OBJECT device, PIRP irp)
{
    IoCopyCurrentIrpStackLocationToNext(irp);
    return IoCallDriver(below(device), irp);
}

extern "C" NTSTATUS NtTestEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLOSE})
        driver->MajorFunction[major] = [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS); };
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = dispatchControl;
    driver->MajorFunction[IRP_MJ_PNP] = dispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = dispatchPower;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = [](PDEVICE_OBJECT device, PIRP irp) { return forward(device, irp); };
    driver->DriverExtension->AddDevice = addDevice;
    driver->DriverUnload = [](PDRIVER_OBJECT) {};
    return STATUS_SUCCESS;
}

std::vector<std::pair<unsigned, unsigned>> LayerTest::violationsOf(const std::function<void()> &run)
{
    machine.verifier().record();
    machine.verifier().clear();
    run();
    std::vector<std::pair<unsigned, unsigned>> found;
    for (const auto &violation : machine.verifier().violations())
        found.emplace_back(violation.code, violation.parameter);
    machine.verifier().setHandler(nullptr);
    machine.verifier().clear();
    return found;
}

} // namespace nt_test
