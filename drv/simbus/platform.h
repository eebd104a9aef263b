// The platform as the simulated bus sees it, and the few routines and owners that every one of its modules needs.
#pragma once

#include <ntddk.h>
#include <usb.h>
#include <usbioctl.h>

#include <cstddef>
#include <cstdint>

namespace simbus {

constexpr ULONG kTag = 'SQV4';

template <typename T>
constexpr T Smaller(T A, T B)
{
    return A < B ? A : B;
}

// Owner of one pool block. Released explicitly where the block is handed over.
template <typename T>
class POOL_BLOCK {
public:
    POOL_BLOCK() = default;
    POOL_BLOCK(const POOL_BLOCK &) = delete;
    POOL_BLOCK &operator=(const POOL_BLOCK &) = delete;
    ~POOL_BLOCK() { Free(); }

    bool Allocate(SIZE_T Count)
    {
        Free();
        Data_ = static_cast<T *>(ExAllocatePoolWithTag(NonPagedPool, Count * sizeof(T), kTag));
        return Data_ != nullptr;
    }
    T *Get() const { return Data_; }
    T *Release()
    {
        T *Data = Data_;
        Data_ = nullptr;
        return Data;
    }

private:
    void Free()
    {
        if (Data_ != nullptr) ExFreePoolWithTag(Data_, kTag);
        Data_ = nullptr;
    }
    T *Data_ = nullptr;
};

// A gate lets one thread in at a time, at PASSIVE_LEVEL. It is an auto-reset event because it may be held over calls that
// a fast mutex would not allow.
inline void GateInitialize(PKEVENT Gate) { KeInitializeEvent(Gate, SynchronizationEvent, TRUE); }

_IRQL_requires_max_(PASSIVE_LEVEL)
inline void GateEnter(PKEVENT Gate) { KeWaitForSingleObject(Gate, Executive, KernelMode, FALSE, nullptr); }

_IRQL_requires_max_(PASSIVE_LEVEL)
inline void GateLeave(PKEVENT Gate) { KeSetEvent(Gate, IO_NO_INCREMENT, FALSE); }

class GATE_HOLD {
public:
    explicit GATE_HOLD(PKEVENT Gate) : Gate_(Gate) { GateEnter(Gate_); }
    GATE_HOLD(const GATE_HOLD &) = delete;
    GATE_HOLD &operator=(const GATE_HOLD &) = delete;
    ~GATE_HOLD() { GateLeave(Gate_); }

private:
    PKEVENT Gate_;
};

class SPIN_HOLD {
public:
    explicit SPIN_HOLD(PKSPIN_LOCK Lock) : Lock_(Lock) { KeAcquireSpinLock(Lock_, &Irql_); }
    SPIN_HOLD(const SPIN_HOLD &) = delete;
    SPIN_HOLD &operator=(const SPIN_HOLD &) = delete;
    ~SPIN_HOLD() { KeReleaseSpinLock(Lock_, Irql_); }
    KIRQL Before() const { return Irql_; }   // the level of the caller

private:
    PKSPIN_LOCK Lock_;
    KIRQL Irql_;
};

inline LONG ReadLong(volatile LONG *Value) { return InterlockedCompareExchange(Value, 0, 0); }

inline LONGLONG SystemTime()
{
    LARGE_INTEGER Now;
    KeQuerySystemTime(&Now);
    return Now.QuadPart;
}

// Completes a request that was not marked pending, in its dispatch routine.
inline NTSTATUS CompleteNow(PIRP Irp, NTSTATUS Status, ULONG_PTR Information = 0)
{
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

}  // namespace simbus
