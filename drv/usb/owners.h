// Small move-only owners, so that every early return gives back exactly what was taken, and the locks of a camera.
//
// The order in which locks are taken, first to last: Claim (never waited for), BufferLock, then MappingLock or
// HwCommandSemaphore. Nothing waits for a frame or a transfer with MappingLock held: it raises the level to APC, where
// the completion of a synchronous request cannot arrive.
#pragma once

#include <utility>

#include "device.h"

// Zeroes memory in a way that works on every kind of element the pool holds.
template <typename T> inline void ZeroElements(T *First, SIZE_T Bytes)
{
    RtlZeroMemory(static_cast<void *>(First), Bytes);
}

// A block of non-paged pool with the driver's tag.
template <typename T> class PoolBlock {
public:
    PoolBlock() = default;
    explicit PoolBlock(T *Block) : Block_(Block) {}
    PoolBlock(PoolBlock &&Other) noexcept : Block_(Other.Release()) {}
    PoolBlock &operator=(PoolBlock &&Other) noexcept
    {
        Reset(Other.Release());
        return *this;
    }
    PoolBlock(const PoolBlock &) = delete;
    PoolBlock &operator=(const PoolBlock &) = delete;
    ~PoolBlock()
    {
        Reset();
    }

    // Empty when the pool is exhausted. The memory is not cleared.
    _IRQL_requires_max_(DISPATCH_LEVEL) static PoolBlock Allocate(SIZE_T Bytes)
    {
        return PoolBlock(static_cast<T *>(ExAllocatePoolWithTag(NonPagedPool, Bytes, kPoolTag)));
    }
    _IRQL_requires_max_(DISPATCH_LEVEL) static PoolBlock AllocateZeroed(SIZE_T Bytes)
    {
        PoolBlock Block = Allocate(Bytes);
        if (Block) {
            ZeroElements(Block.Get(), Bytes);
        }
        return Block;
    }

    explicit operator bool() const
    {
        return Block_ != nullptr;
    }
    T *Get() const
    {
        return Block_;
    }
    T *operator->() const
    {
        return Block_;
    }
    T &operator[](SIZE_T Index) const
    {
        return Block_[Index];
    }
    T *Release()
    {
        return std::exchange(Block_, nullptr);
    }
    void Reset(T *Block = nullptr)
    {
        T *Old = std::exchange(Block_, Block);
        if (Old != nullptr) {
            ExFreePoolWithTag(Old, kPoolTag);
        }
    }

private:
    T *Block_ = nullptr;
};

// An IRP of IoAllocateIrp that is not on its way: release it into its record directly before IoCallDriver.
class OwnedIrp {
public:
    OwnedIrp() = default;
    explicit OwnedIrp(PIRP Irp) : Irp_(Irp) {}
    OwnedIrp(OwnedIrp &&Other) noexcept : Irp_(Other.Release()) {}
    OwnedIrp &operator=(OwnedIrp &&Other) noexcept
    {
        Reset(Other.Release());
        return *this;
    }
    OwnedIrp(const OwnedIrp &) = delete;
    OwnedIrp &operator=(const OwnedIrp &) = delete;
    ~OwnedIrp()
    {
        Reset();
    }

    // One stack location more than the lower device needs: the driver's own.
    _IRQL_requires_max_(DISPATCH_LEVEL) static OwnedIrp Allocate(PDEVICE_OBJECT LowerDeviceObject)
    {
        return OwnedIrp(IoAllocateIrp(static_cast<CCHAR>(LowerDeviceObject->StackSize + 1), FALSE));
    }

    explicit operator bool() const
    {
        return Irp_ != nullptr;
    }
    PIRP Get() const
    {
        return Irp_;
    }
    PIRP Release()
    {
        return std::exchange(Irp_, nullptr);
    }
    void Reset(PIRP Irp = nullptr)
    {
        const PIRP Old = std::exchange(Irp_, Irp);
        if (Old != nullptr) {
            IoFreeIrp(Old);
        }
    }

private:
    PIRP Irp_ = nullptr;
};

// An MDL over non-paged memory, not mapped into user space.
class OwnedMdl {
public:
    OwnedMdl() = default;
    explicit OwnedMdl(PMDL Mdl) : Mdl_(Mdl) {}
    OwnedMdl(OwnedMdl &&Other) noexcept : Mdl_(Other.Release()) {}
    OwnedMdl &operator=(OwnedMdl &&Other) noexcept
    {
        Reset(Other.Release());
        return *this;
    }
    OwnedMdl(const OwnedMdl &) = delete;
    OwnedMdl &operator=(const OwnedMdl &) = delete;
    ~OwnedMdl()
    {
        Reset();
    }

    // Describes Bytes of non-paged memory at Address; empty when there is no memory for it.
    _IRQL_requires_max_(DISPATCH_LEVEL) static OwnedMdl ForNonPaged(PVOID Address, ULONG Bytes)
    {
        OwnedMdl Mdl(IoAllocateMdl(Address, Bytes, FALSE, FALSE, nullptr));
        if (Mdl) {
            MmBuildMdlForNonPagedPool(Mdl.Get());
        }
        return Mdl;
    }

    explicit operator bool() const
    {
        return Mdl_ != nullptr;
    }
    PMDL Get() const
    {
        return Mdl_;
    }
    PMDL Release()
    {
        return std::exchange(Mdl_, nullptr);
    }
    void Reset(PMDL Mdl = nullptr)
    {
        const PMDL Old = std::exchange(Mdl_, Mdl);
        if (Old != nullptr) {
            IoFreeMdl(Old);
        }
    }

private:
    PMDL Mdl_ = nullptr;
};

// BufferLock for as long as the owner lives. Shared: the frame buffers, their sizes and the defect list stay what they
// are. Exclusive: they may be replaced, and the pixels of a frame may be repaired. Not recursive.
enum class BufferAccess : UCHAR { Shared, Exclusive };

class BufferHold {
public:
    _IRQL_requires_max_(PASSIVE_LEVEL) BufferHold(DEVICE_EXTENSION *DevExt, BufferAccess Access) : DevExt_(DevExt)
    {
        // A thread that holds the lock must not be suspended by a normal kernel APC.
        KeEnterCriticalRegion();
        if (Access == BufferAccess::Exclusive) {
            ExAcquireResourceExclusiveLite(&DevExt->BufferLock, TRUE);
        } else {
            ExAcquireResourceSharedLite(&DevExt->BufferLock, TRUE);
        }
    }
    BufferHold(const BufferHold &) = delete;
    BufferHold &operator=(const BufferHold &) = delete;
    ~BufferHold()
    {
        ExReleaseResourceLite(&DevExt_->BufferLock);
        KeLeaveCriticalRegion();
    }

private:
    DEVICE_EXTENSION *DevExt_;
};

// MappingLock for as long as the owner lives; runs at APC level.
class MappingHold {
public:
    _IRQL_requires_max_(APC_LEVEL) explicit MappingHold(DEVICE_EXTENSION *DevExt) : DevExt_(DevExt)
    {
        ExAcquireFastMutex(&DevExt->MappingLock);
    }
    MappingHold(const MappingHold &) = delete;
    MappingHold &operator=(const MappingHold &) = delete;
    ~MappingHold()
    {
        ExReleaseFastMutex(&DevExt_->MappingLock);
    }

private:
    DEVICE_EXTENSION *DevExt_;
};

// A spin lock for as long as the owner lives; runs at DISPATCH level.
class SpinHold {
public:
    _IRQL_requires_max_(DISPATCH_LEVEL) explicit SpinHold(KSPIN_LOCK *Lock) : Lock_(Lock)
    {
        KeAcquireSpinLock(Lock_, &Irql_);
    }
    SpinHold(const SpinHold &) = delete;
    SpinHold &operator=(const SpinHold &) = delete;
    ~SpinHold()
    {
        KeReleaseSpinLock(Lock_, Irql_);
    }

private:
    KSPIN_LOCK *Lock_;
    KIRQL Irql_ = PASSIVE_LEVEL;
};

// The right to move CameraStatus away from 0, to select an interface setting and to replace what a start sets up. Taken
// or refused, never waited for; whoever took it releases it. Held by a stream from its start until it is taken down,
// over a whole capture, and over a device start.
_IRQL_requires_max_(DISPATCH_LEVEL) inline bool ClaimCamera(DEVICE_EXTENSION *DevExt)
{
    return InterlockedCompareExchange(&DevExt->Claim, 1, 0) == 0;
}

_IRQL_requires_max_(DISPATCH_LEVEL) inline void ReleaseCamera(DEVICE_EXTENSION *DevExt)
{
    InterlockedExchange(&DevExt->Claim, 0);
}

// A claim that is given back at the end of the scope.
class CameraClaim {
public:
    explicit CameraClaim(DEVICE_EXTENSION *DevExt) : DevExt_(ClaimCamera(DevExt) ? DevExt : nullptr) {}
    CameraClaim(const CameraClaim &) = delete;
    CameraClaim &operator=(const CameraClaim &) = delete;
    ~CameraClaim()
    {
        if (DevExt_ != nullptr) {
            ReleaseCamera(DevExt_);
        }
    }
    explicit operator bool() const
    {
        return DevExt_ != nullptr;
    }

private:
    DEVICE_EXTENSION *DevExt_;
};
