// Threads, processes, references, the worker threads, and drivers' own threads.
#include "ntos/kernel.h"

#include <csetjmp>
#include <pthread.h>

#include "ntos/clockwork.h"
#include "ntos/io.h"
#include "ntos/thread.h"

struct ThreadExit {
    jmp_buf buffer;
};

namespace ntos {

namespace {

constinit std::mutex gObjectsLock;
std::unordered_map<void *, ObjectHeader *> &objects()
{
    static auto *map = new std::unordered_map<void *, ObjectHeader *>; // outlives every thread
    return *map;
}

std::atomic<std::uint64_t> gThreadIds{4};

struct Attachment {
    ThreadObject *object = nullptr;
    ~Attachment();
};
thread_local _KTHREAD *tlsThread = nullptr;
thread_local Attachment tlsAttachment;

void adopt(_KTHREAD &thread)
{
    thread.epoch = kernelEpoch();
    thread.irql = PASSIVE_LEVEL;
    thread.criticalRegions = 0;
    thread.drivers.clear();
    thread.locks.clear();
    thread.pendingPrefix.clear();
    thread.process = initialProcess();
}

void dropReference(void *body, ObjectHeader *header)
{
    if (header->references.fetch_sub(1) != 1)
        return;
    forgetObject(body);
    delete header;
}

Attachment::~Attachment()
{
    if (object != nullptr)
        dropReference(&object->thread, object);
    object = nullptr;
    tlsThread = nullptr;
}

} // namespace

void registerObject(void *body, ObjectHeader *header)
{
    std::lock_guard guard(gObjectsLock);
    objects()[body] = header;
}

ObjectHeader *findObject(void *body)
{
    std::lock_guard guard(gObjectsLock);
    auto found = objects().find(body);
    return found == objects().end() ? nullptr : found->second;
}

void forgetObject(void *body)
{
    std::lock_guard guard(gObjectsLock);
    objects().erase(body);
}

std::size_t objectReferencesLeft(ObjectType type)
{
    std::lock_guard guard(gObjectsLock);
    std::size_t left = 0;
    for (auto &[body, header] : objects())
        if (header->type == type && header->references > 1)
            left++;
    return left;
}

ThreadObject *newThread()
{
    auto *object = new ThreadObject;
    _KTHREAD &thread = object->thread;
    initializeObject(thread.header, kThreadObject, 0);
    thread.id = gThreadIds.fetch_add(4);
    registerObject(&thread, object);
    return object;
}

void releaseThread(ThreadObject *thread)
{
    dropReference(&thread->thread, thread);
}

_KTHREAD *switchThread(_KTHREAD *thread)
{
    currentThread();
    return std::exchange(tlsThread, thread);
}

_KTHREAD *currentThread()
{
    _KTHREAD *thread = tlsThread;
    if (thread == nullptr) {
        tlsAttachment.object = newThread();
        thread = tlsThread = &tlsAttachment.object->thread;
    }
    if (thread->epoch != kernelEpoch())
        adopt(*thread);
    return thread;
}

DriverScope::DriverScope(DriverRecord *driver) : thread_(currentThread()), depth_(thread_->drivers.size())
{
    thread_->drivers.push_back(driver);
}

DriverScope::~DriverScope()
{
    thread_->drivers.resize(depth_);
}

DriverRecord *currentDriver()
{
    _KTHREAD *thread = currentThread();
    return thread->drivers.empty() ? nullptr : thread->drivers.back();
}

// ------------------------------------------------------------------------------------------------------------- workers

namespace {

struct Job {
    std::function<void()> run;
    KIRQL irql;
    DriverRecord *driver;
};
struct Workers {
    std::mutex lock;
    std::condition_variable work, quiet;
    std::deque<Job> jobs;
    std::vector<std::thread> threads;
    std::size_t idle = 0, busy = 0;
    bool stopping = false;
};
Workers &workers()
{
    static auto *instance = new Workers;
    return *instance;
}

void workerMain()
{
    Workers &w = workers();
    std::unique_lock guard(w.lock);
    for (;;) {
        w.idle++;
        w.work.wait(guard, [&] { return w.stopping || !w.jobs.empty(); });
        w.idle--;
        if (w.jobs.empty())
            return;
        Job job = std::move(w.jobs.front());
        w.jobs.pop_front();
        w.busy++;
        guard.unlock();
        {
            _KTHREAD *thread = currentThread();
            thread->process = systemProcess();
            thread->irql = job.irql;
            if (job.driver != nullptr) {
                DriverScope scope(job.driver);
                job.run();
            } else {
                job.run();
            }
            thread->irql = PASSIVE_LEVEL;
            job.run = nullptr;
        }
        guard.lock();
        w.busy--;
        if (w.busy == 0 && w.jobs.empty())
            w.quiet.notify_all();
    }
}

} // namespace

void runInWorker(std::function<void()> job, KIRQL irql, DriverRecord *driver)
{
    Workers &w = workers();
    std::lock_guard guard(w.lock);
    w.jobs.push_back({std::move(job), irql, driver});
    if (w.idle < w.jobs.size())
        w.threads.emplace_back(workerMain);
    w.work.notify_one();
}

void drainWorkers()
{
    Workers &w = workers();
    std::unique_lock guard(w.lock);
    w.quiet.wait(guard, [&] { return w.busy == 0 && w.jobs.empty(); });
}

void stopWorkers()
{
    Workers &w = workers();
    std::vector<std::thread> threads;
    {
        std::lock_guard guard(w.lock);
        w.stopping = true;
        w.work.notify_all();
        threads.swap(w.threads);
    }
    for (std::thread &thread : threads)
        thread.join();
    std::lock_guard guard(w.lock);
    w.stopping = false;
}

// ------------------------------------------------------------------------------------------------------ system threads

namespace {

struct SystemThreadStart {
    ThreadObject *object;
    PKSTART_ROUTINE routine;
    PVOID context;
    DriverRecord *driver;
};

constinit std::mutex gHandlesLock;
struct HandleTable {
    std::map<std::uintptr_t, void *> entries; // to referenced objects
    std::uintptr_t next = 0x80000004;
};
HandleTable &handleTable()
{
    static auto *table = new HandleTable;
    return *table;
}

constinit std::mutex gSystemThreadsLock;
std::condition_variable &systemThreadGone()
{
    static auto *cv = new std::condition_variable;
    return *cv;
}
std::size_t gSystemThreads = 0;

void runSystemThread(_KTHREAD &thread, const SystemThreadStart &start)
{
    ThreadExit exit;
    thread.exit = &exit;
    if (_setjmp(exit.buffer) == 0)
        start.routine(start.context);
    thread.exit = nullptr;
}

void *systemThreadMain(void *argument)
{
    SystemThreadStart start = *static_cast<SystemThreadStart *>(argument);
    delete static_cast<SystemThreadStart *>(argument);
    _KTHREAD &thread = start.object->thread;
    tlsThread = &thread;
    tlsAttachment.object = start.object;
    adopt(thread);
    thread.process = systemProcess();
    {
        DriverScope scope(start.driver);
        runSystemThread(thread, start);
    }
    if (thread.irql != PASSIVE_LEVEL)
        violate("thread ended above PASSIVE_LEVEL", "PsTerminateSystemThread", driverName(start.driver), 0xC4, 0x30);
    if (!thread.locks.empty())
        violate("thread ended holding a lock", "PsTerminateSystemThread", driverName(start.driver), 0xC4, 0x1008);
    if (thread.exitStatus == STATUS_PENDING)
        thread.exitStatus = STATUS_SUCCESS;
    signalObject(thread.header, 1);
    std::lock_guard guard(gSystemThreadsLock);
    gSystemThreads--;
    systemThreadGone().notify_all();
    return nullptr;
}

} // namespace

std::size_t systemThreads()
{
    std::lock_guard guard(gSystemThreadsLock);
    return gSystemThreads;
}

bool waitForSystemThreads(std::chrono::milliseconds limit)
{
    std::unique_lock guard(gSystemThreadsLock);
    return systemThreadGone().wait_for(guard, limit, [] { return gSystemThreads == 0; });
}

std::size_t kernelHandlesLeft()
{
    std::lock_guard guard(gHandlesLock);
    return handleTable().entries.size();
}

} // namespace ntos

using namespace ntos;

struct _OBJECT_TYPE {
    ObjectType type;
};
static _OBJECT_TYPE theThreadType{ObjectType::thread};
static POBJECT_TYPE theThreadTypePointer = &theThreadType;

extern "C" {

POBJECT_TYPE *PsThreadType = &theThreadTypePointer;

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, void *, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext)
{
    NTOS_DOOR(PsCreateSystemThread, PASSIVE_LEVEL, true);
    if (enter(kDoor))
        return STATUS_INSUFFICIENT_RESOURCES;
    ThreadObject *object = newThread();
    object->thread.system = true;
    object->references++; // the handle's
    {
        std::lock_guard guard(gHandlesLock);
        HandleTable &table = handleTable();
        table.entries[table.next] = &object->thread;
        *ThreadHandle = reinterpret_cast<HANDLE>(table.next);
        table.next += 4;
    }
    {
        std::lock_guard guard(gSystemThreadsLock);
        gSystemThreads++;
    }
    auto *start = new SystemThreadStart{object, StartRoutine, StartContext, currentDriver()};
    pthread_t native;
    if (pthread_create(&native, nullptr, systemThreadMain, start) != 0) {
        delete start;
        {
            std::lock_guard guard(gSystemThreadsLock);
            gSystemThreads--;
        }
        ZwClose(*ThreadHandle);
        dropReference(&object->thread, object);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pthread_detach(native);
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus)
{
    NTOS_DOOR(PsTerminateSystemThread, PASSIVE_LEVEL, false);
    enter(kDoor);
    _KTHREAD *thread = currentThread();
    if (thread->exit == nullptr)
        return STATUS_INVALID_PARAMETER;
    thread->exitStatus = ExitStatus;
    longjmp(thread->exit->buffer, 1);
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE ObjectType, KPROCESSOR_MODE, PVOID *Object, void *)
{
    NTOS_DOOR(ObReferenceObjectByHandle, PASSIVE_LEVEL, false); // a valid handle always works
    enter(kDoor);
    std::lock_guard guard(gHandlesLock);
    auto found = handleTable().entries.find(reinterpret_cast<std::uintptr_t>(Handle));
    if (found == handleTable().entries.end())
        return STATUS_INVALID_HANDLE;
    ObjectHeader *header = findObject(found->second);
    if (ObjectType != nullptr && header->type != ObjectType->type)
        return STATUS_OBJECT_TYPE_MISMATCH;
    header->references++;
    *Object = found->second;
    return STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE Handle)
{
    NTOS_DOOR(ZwClose, PASSIVE_LEVEL, false);
    enter(kDoor);
    void *body = nullptr;
    {
        std::lock_guard guard(gHandlesLock);
        auto found = handleTable().entries.find(reinterpret_cast<std::uintptr_t>(Handle));
        if (found != handleTable().entries.end()) {
            body = found->second;
            handleTable().entries.erase(found);
        }
    }
    if (body == nullptr) {
        violate("closed an invalid handle", "ZwClose", text("handle %p", Handle), 0x93);
        return STATUS_INVALID_HANDLE;
    }
    dropReference(body, findObject(body));
    return STATUS_SUCCESS;
}

LONG_PTR ObfReferenceObject(PVOID Object)
{
    NTOS_DOOR(ObReferenceObject, DISPATCH_LEVEL, false);
    enter(kDoor);
    ObjectHeader *header = findObject(Object);
    if (header == nullptr) {
        violate("reference to an object that does not exist", "ObReferenceObject", text("object %p", Object), 0x18);
        return 0;
    }
    return header->references.fetch_add(1) + 1;
}

LONG_PTR ObfDereferenceObject(PVOID Object)
{
    NTOS_DOOR(ObDereferenceObject, DISPATCH_LEVEL, false);
    enter(kDoor);
    ObjectHeader *header = findObject(Object);
    if (header == nullptr) {
        violate("reference to an object that does not exist", "ObDereferenceObject", text("object %p", Object), 0x18);
        return 0;
    }
    const long left = header->references.load() - 1;
    if (header->type == ObjectType::device)
        dereferenceDevice(static_cast<PDEVICE_OBJECT>(Object));
    else
        dropReference(Object, header);
    return left;
}

PKTHREAD KeGetCurrentThread(void)
{
    return currentThread();
}

PEPROCESS IoGetCurrentProcess(void)
{
    return currentThread()->process;
}

HANDLE PsGetCurrentProcessId(void)
{
    return reinterpret_cast<HANDLE>(currentThread()->process->id);
}

HANDLE PsGetProcessId(PEPROCESS Process)
{
    return reinterpret_cast<HANDLE>(Process->id);
}

NTSTATUS PsGetProcessExitStatus(PEPROCESS Process)
{
    return Process->exitStatus;
}

LONG KeSetPriorityThread(PKTHREAD, KPRIORITY)
{
    return 8; // the platform's default; threads here all run at the host's priority
}

void KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState)
{
    NTOS_DOOR(KeStackAttachProcess, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (findObject(Process) == nullptr)
        violate("attached to a process that does not exist", "KeStackAttachProcess", text("process %p", static_cast<void *>(Process)), 0x05);
    _KTHREAD *thread = currentThread();
    ApcState->Process = thread->process;
    thread->process = Process;
}

void KeUnstackDetachProcess(PRKAPC_STATE ApcState)
{
    NTOS_DOOR(KeUnstackDetachProcess, DISPATCH_LEVEL, false);
    enter(kDoor);
    currentThread()->process = ApcState->Process;
}

ULONG KeGetCurrentProcessorNumber(void)
{
    return 0;
}

} // extern "C"
