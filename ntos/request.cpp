// The I/O manager: handles, requests on behalf of programs and of the system, and how their buffers travel.
#include "ntos/request.h"

#include <algorithm>
#include <cstring>

#include "ntos/clockwork.h"
#include "ntos/memory.h"
#include "ntos/turns.h"

namespace ntos {

namespace {

std::atomic<std::size_t> gHandles{0};

constexpr ULONG kSystemBufferTag = 'suBS';

enum class Travel { buffered, inDirect, outDirect, neither };

Travel travelOf(ULONG code)
{
    switch (METHOD_FROM_CTL_CODE(code)) {
    case METHOD_BUFFERED:
        return Travel::buffered;
    case METHOD_IN_DIRECT:
        return Travel::inDirect;
    case METHOD_OUT_DIRECT:
        return Travel::outDirect;
    default:
        return Travel::neither;
    }
}

PMDL lockedMdl(void *address, std::size_t length)
{
    PMDL mdl = newMdl(address, length, nullptr);
    mdl->MdlFlags = static_cast<CSHORT>(mdl->MdlFlags | MDL_PAGES_LOCKED);
    mdl->Process = currentThread()->process;
    return mdl;
}

std::shared_ptr<detail::PendingIo> newIo(PDEVICE_OBJECT top)
{
    auto io = std::make_shared<detail::PendingIo>();
    io->irp = newIrp(top->StackSize, IrpKind::manager, nullptr);
    if (io->irp == nullptr)
        return nullptr;
    irpRecord(io->irp)->io = io;
    io->irp->Tail.Overlay.Thread = currentThread();
    return io;
}

void abandon(detail::PendingIo &io)
{
    releaseBuffers(io.irp, false);
    unregisterIrp(io.irp);
    irpRecord(io.irp)->io = nullptr; // the cycle; the caller still holds io
}

} // namespace

NTSTATUS prepareBuffers(PIRP irp, ULONG code, const void *in, std::size_t inLength, void *out, std::size_t outLength)
{
    IrpRecord &record = *irpRecord(irp);
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->Parameters.DeviceIoControl.IoControlCode = code;
    location->Parameters.DeviceIoControl.InputBufferLength = static_cast<ULONG>(inLength);
    location->Parameters.DeviceIoControl.OutputBufferLength = static_cast<ULONG>(outLength);
    irp->UserBuffer = out;
    record.outputLength = outLength;
    if (inLength > MAXULONG || outLength > MAXULONG)
        return STATUS_INVALID_PARAMETER;
    const Travel travel = travelOf(code);
    if (travel == Travel::neither) {
        location->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<void *>(in);
        return STATUS_SUCCESS;
    }
    record.checksInformation = true;
    const std::size_t system = travel == Travel::buffered ? std::max(inLength, outLength) : inLength;
    if ((inLength != 0 && in == nullptr) || (outLength != 0 && out == nullptr))
        return STATUS_ACCESS_VIOLATION;
    if (system != 0) {
        record.systemBuffer = poolAllocate(system, kSystemBufferTag, nullptr, false);
        if (record.systemBuffer == nullptr)
            return STATUS_INSUFFICIENT_RESOURCES;
        if (inLength != 0)
            memcpy(record.systemBuffer, in, inLength);
        irp->AssociatedIrp.SystemBuffer = record.systemBuffer;
    }
    if (travel != Travel::buffered && outLength != 0)
        irp->MdlAddress = lockedMdl(out, outLength);
    return STATUS_SUCCESS;
}

void releaseBuffers(PIRP irp, bool copyOut)
{
    IrpRecord &record = *irpRecord(irp);
    std::size_t information = irp->IoStatus.Information;
    if (copyOut && record.checksInformation && !NT_ERROR(irp->IoStatus.Status) && information > record.outputLength) {
        violate("information beyond the output buffer", "IoCompleteRequest",
                irpText(irp) + text(", %zu of %zu bytes", information, record.outputLength), 0xC4, 0x312);
        information = record.outputLength;
    }
    if (record.systemBuffer != nullptr) {
        // Only a buffered request has both a system buffer and the caller's output without an MDL.
        if (copyOut && irp->MdlAddress == nullptr && irp->UserBuffer != nullptr && !NT_ERROR(irp->IoStatus.Status))
            memcpy(irp->UserBuffer, record.systemBuffer, std::min(information, record.outputLength));
        poolFree(record.systemBuffer, "IoCompleteRequest");
        record.systemBuffer = nullptr;
        irp->AssociatedIrp.SystemBuffer = nullptr;
    }
    for (PMDL mdl = irp->MdlAddress; mdl != nullptr;) {
        PMDL next = mdl->Next;
        mdl->MdlFlags = static_cast<CSHORT>(mdl->MdlFlags & ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA));
        freeMdl(mdl, "IoCompleteRequest");
        mdl = next;
    }
    irp->MdlAddress = nullptr;
}

void finishIo(PIRP irp, IrpRecord &record)
{
    // Whoever waits may let go of the request as soon as it is told.
    const std::shared_ptr<detail::PendingIo> io = std::move(record.io);
    releaseBuffers(irp, true);
    unregisterIrp(irp);
    std::lock_guard guard(io->lock);
    io->result = {irp->IoStatus.Status, irp->IoStatus.Information};
    io->done = true;
    io->finished.notify_all();
}

Result waitForIo(detail::PendingIo &io)
{
    if (_KTHREAD *thread = currentThread(); thread->player != nullptr)
        waitForTurn(thread, [&] {
            std::lock_guard look(io.lock);
            return io.done;
        });
    std::unique_lock guard(io.lock);
    while (!io.done) {
        io.finished.wait(guard, [&] { return io.done || io.cancelled; });
        if (!io.done && !io.finished.wait_for(guard, cancelLimit(), [&] { return io.done; })) {
            guard.unlock();
            violate("cancelled request does not complete", "IoCancelIrp", text("irp %p", static_cast<void *>(io.irp)), 0xC4, 0x135);
            guard.lock();
            io.finished.wait(guard, [&] { return io.done; });
        }
    }
    return io.result;
}

bool cancelIo(detail::PendingIo &io)
{
    {
        std::lock_guard guard(io.lock);
        if (io.done)
            return false;
        io.cancelled = true;
        io.finished.notify_all();
    }
    return cancelIrp(io.irp); // its memory lives as long as io
}

std::size_t openHandles()
{
    return gHandles;
}

Result sendToStack(PDEVICE_OBJECT device, UCHAR major, UCHAR minor, NTSTATUS initialStatus,
                   const std::function<void(PIRP, PIO_STACK_LOCATION)> &fill)
{
    PDEVICE_OBJECT top = topOfStack(device);
    DeviceRecord *keep = deviceRecord(top);
    keep->references++; // removal deletes the stack below the request
    const std::shared_ptr<detail::PendingIo> io = newIo(top);
    Result result{STATUS_INSUFFICIENT_RESOURCES, 0};
    if (io != nullptr) {
        io->irp->IoStatus.Status = initialStatus;
        PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(io->irp);
        location->MajorFunction = major;
        location->MinorFunction = minor;
        if (fill)
            fill(io->irp, location);
        callDriver(top, io->irp, "IoCallDriver");
        result = waitForIo(*io);
    }
    dereferenceDevice(top);
    return result;
}

// ------------------------------------------------------------------------------------------------------------- handles

static Result sendOnFile(detail::OpenFile &file, UCHAR major, UCHAR minor)
{
    return sendToStack(file.device, major, minor, STATUS_SUCCESS,
                       [&](PIRP irp, PIO_STACK_LOCATION location) {
                           location->FileObject = &file.object->object;
                           irp->Tail.Overlay.OriginalFileObject = &file.object->object;
                       });
}

void closeFile(detail::OpenFile &file)
{
    std::vector<std::shared_ptr<detail::PendingIo>> left;
    {
        std::lock_guard guard(file.lock);
        if (file.closed)
            return;
        file.closed = true;
        for (auto &request : file.requests)
            if (auto io = request.lock())
                left.push_back(std::move(io));
    }
    _KTHREAD *thread = currentThread();
    _KPROCESS *before = std::exchange(thread->process, file.process);
    const bool hadCleanup = file.device->DriverObject->MajorFunction[IRP_MJ_CLEANUP] != defaultDispatch;
    for (auto &io : left)
        cancelIo(*io);
    if (hadCleanup)
        sendOnFile(file, IRP_MJ_CLEANUP, 0);
    for (auto &io : left)
        waitForIo(*io);
    sendOnFile(file, IRP_MJ_CLOSE, 0);
    thread->process = before;
    gHandles--;
    PDEVICE_OBJECT device = file.device;
    DeviceRecord *keep = deviceRecord(device);
    keep->references++;
    closeDevice(device);
    handleClosed(device);
    dereferenceDevice(device);
    forgetObject(&file.object->object);
    delete std::exchange(file.object, nullptr);
}

namespace detail {

PendingIo::~PendingIo()
{
    if (irp != nullptr)
        destroyIrp(irp);
}

OpenFile::~OpenFile()
{
    if (kernelRunning() && object != nullptr)
        closeFile(*this);
}

ProcessRecord::~ProcessRecord()
{
    if (object == nullptr)
        return;
    if (object->references.fetch_sub(1) == 1) {
        forgetObject(&object->process);
        delete object;
    }
}

} // namespace detail

File Machine::open(std::string_view name)
{
    File file;
    PDEVICE_OBJECT device = nullptr;
    std::string rest;
    file.status_ = openDevice(std::string(name), &device, &rest);
    if (!NT_SUCCESS(file.status_))
        return file;
    auto open = std::make_shared<detail::OpenFile>();
    open->device = device;
    open->process = currentThread()->process;
    open->object = new FileObjectRecord;
    open->object->object.Type = 5;
    open->object->object.DeviceObject = device;
    open->object->name = toWide(rest);
    open->object->object.FileName = {static_cast<USHORT>(open->object->name.size() * 2),
                                     static_cast<USHORT>(open->object->name.size() * 2), open->object->name.data()};
    registerObject(&open->object->object, open->object);
    const Result result = sendOnFile(*open, IRP_MJ_CREATE, 0);
    file.status_ = result.status;
    if (!NT_SUCCESS(result.status)) {
        forgetObject(&open->object->object);
        delete std::exchange(open->object, nullptr);
        PDEVICE_OBJECT opened = open->device;
        deviceRecord(opened)->references++;
        closeDevice(opened);
        handleClosed(opened);
        dereferenceDevice(opened);
        return file;
    }
    gHandles++;
    {
        std::lock_guard guard(open->process->lock);
        auto &handles = open->process->handles;
        std::erase_if(handles, [](auto &handle) { return handle.expired(); });
        handles.push_back(open);
    }
    file.file_ = std::move(open);
    return file;
}

File::File(File &&) noexcept = default;

File &File::operator=(File &&other) noexcept
{
    if (this != &other) {
        close();
        file_ = std::move(other.file_);
        status_ = other.status_;
    }
    return *this;
}

File::~File()
{
    close();
}

File::operator bool() const
{
    if (!file_)
        return false;
    std::lock_guard guard(file_->lock);
    return !file_->closed;
}

void File::close()
{
    if (file_ && kernelRunning())
        closeFile(*file_);
    file_ = nullptr;
}

static std::shared_ptr<detail::PendingIo> begin(const std::shared_ptr<detail::OpenFile> &file, NTSTATUS &status, UCHAR major,
                                                UCHAR minor, const std::function<NTSTATUS(PIRP, PIO_STACK_LOCATION)> &fill)
{
    status = STATUS_INVALID_HANDLE;
    if (file == nullptr)
        return nullptr;
    PDEVICE_OBJECT top = topOfStack(file->device);
    std::shared_ptr<detail::PendingIo> io;
    {
        std::lock_guard guard(file->lock);
        if (file->closed)
            return nullptr;
        io = newIo(top);
        if (io == nullptr) {
            status = STATUS_INSUFFICIENT_RESOURCES;
            return nullptr;
        }
        io->file = file;
        std::erase_if(file->requests, [](auto &request) { return request.expired(); });
        file->requests.push_back(io);
    }
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(io->irp);
    location->MajorFunction = major;
    location->MinorFunction = minor;
    location->FileObject = &file->object->object;
    io->irp->RequestorMode = UserMode;
    io->irp->Tail.Overlay.OriginalFileObject = &file->object->object;
    status = fill(io->irp, location);
    if (NT_SUCCESS(status))
        callDriver(top, io->irp, "NtDeviceIoControlFile");
    else
        abandon(*io);
    return NT_SUCCESS(status) ? io : nullptr;
}

Result File::deviceControl(std::uint32_t code, const void *in, std::size_t inLength, void *out, std::size_t outLength)
{
    NTSTATUS status;
    auto io = begin(file_, status, IRP_MJ_DEVICE_CONTROL, 0,
                    [&](PIRP irp, PIO_STACK_LOCATION) { return prepareBuffers(irp, code, in, inLength, out, outLength); });
    return io == nullptr ? Result{status, 0} : waitForIo(*io);
}

static Result transfer(const std::shared_ptr<detail::OpenFile> &file, UCHAR major, void *buffer, std::size_t length, std::uint64_t offset)
{
    NTSTATUS status;
    auto io = begin(file, status, major, 0, [&](PIRP irp, PIO_STACK_LOCATION location) -> NTSTATUS {
        IrpRecord &record = *irpRecord(irp);
        location->Parameters.Read.Length = static_cast<ULONG>(length);
        location->Parameters.Read.ByteOffset.QuadPart = static_cast<LONGLONG>(offset);
        irp->UserBuffer = major == IRP_MJ_READ ? buffer : nullptr;
        record.outputLength = length;
        record.checksInformation = true;
        const ULONG flags = topOfStack(file->device)->Flags;
        if (length != 0 && buffer == nullptr)
            return STATUS_ACCESS_VIOLATION;
        if ((flags & DO_BUFFERED_IO) && length != 0) {
            record.systemBuffer = poolAllocate(length, kSystemBufferTag, nullptr, false);
            if (record.systemBuffer == nullptr)
                return STATUS_INSUFFICIENT_RESOURCES;
            if (major == IRP_MJ_WRITE)
                memcpy(record.systemBuffer, buffer, length);
            irp->AssociatedIrp.SystemBuffer = record.systemBuffer;
        } else if ((flags & DO_DIRECT_IO) && length != 0) {
            irp->MdlAddress = lockedMdl(buffer, length);
        } else {
            irp->UserBuffer = buffer;
        }
        return STATUS_SUCCESS;
    });
    return io == nullptr ? Result{status, 0} : waitForIo(*io);
}

Result File::read(void *buffer, std::size_t length, std::uint64_t offset)
{
    return transfer(file_, IRP_MJ_READ, buffer, length, offset);
}

Result File::write(const void *buffer, std::size_t length, std::uint64_t offset)
{
    return transfer(file_, IRP_MJ_WRITE, const_cast<void *>(buffer), length, offset);
}

Result File::send(std::uint8_t major, std::uint8_t minor)
{
    NTSTATUS status;
    auto io = begin(file_, status, major, minor, [](PIRP, PIO_STACK_LOCATION) { return STATUS_SUCCESS; });
    return io == nullptr ? Result{status, 0} : waitForIo(*io);
}

} // namespace ntos

using namespace ntos;

extern "C" PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                              ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                              BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    NTOS_DOOR(IoBuildDeviceIoControlRequest, PASSIVE_LEVEL, true);
    if (enter(kDoor))
        return nullptr;
    PIRP irp = newIrp(DeviceObject->StackSize, IrpKind::threaded, currentDriver());
    if (irp == nullptr)
        return nullptr;
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = Event;
    irp->Tail.Overlay.Thread = currentThread();
    if (Event != nullptr)
        resetObject(Event->Header);
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    if (!NT_SUCCESS(prepareBuffers(irp, IoControlCode, InputBuffer, InputBufferLength, OutputBuffer, OutputBufferLength))) {
        releaseBuffers(irp, false);
        unregisterIrp(irp);
        destroyIrp(irp);
        return nullptr;
    }
    return irp;
}
