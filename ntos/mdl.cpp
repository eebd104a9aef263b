// Memory descriptor lists and mappings into processes.
#include "ntos/memory.h"

#include <sys/mman.h>

#include <algorithm>

#include "ntos/io.h"

namespace ntos {

void changeUserMappings(void *block, int by); // pool.cpp

namespace {

struct MdlRecord {
    DriverRecord *owner;
    std::size_t userMappings = 0;
};
struct Mdls {
    std::mutex lock;
    std::unordered_map<PMDL, MdlRecord> live;
    std::vector<UserMapping> mappings;
    std::deque<std::pair<void *, std::size_t>> retired; // addresses kept invalid for a while after unmapping
};
Mdls &records()
{
    static auto *instance = new Mdls;
    return *instance;
}

bool known(PMDL mdl, const char *routine)
{
    {
        std::lock_guard guard(records().lock);
        if (records().live.contains(mdl))
            return true;
    }
    violate("MDL does not exist or was freed", routine, text("mdl %p", static_cast<void *>(mdl)), 0xC4, 0xB8);
    return false;
}

// A second address onto the block's pages. Null when the block has none of its own or the host refuses.
void *mapSecondAddress(const PoolBlock &block, PMDL mdl, UserMapping &mapping)
{
    if (block.descriptor < 0)
        return nullptr;
    const std::size_t offset = static_cast<std::size_t>(static_cast<std::uint8_t *>(mdl->StartVa) -
                                                        static_cast<std::uint8_t *>(block.address));
    const std::size_t length = ROUND_TO_PAGES(mdl->ByteOffset + static_cast<std::size_t>(mdl->ByteCount));
    void *base = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, block.descriptor, static_cast<off_t>(offset));
    if (base == MAP_FAILED)
        return nullptr;
    mapping.base = base;
    mapping.mappedLength = length;
    mapping.address = static_cast<std::uint8_t *>(base) + mdl->ByteOffset;
    mapping.length = mdl->ByteCount;
    mapping.block = block.address;
    return mapping.address;
}

void retire(const UserMapping &mapping)
{
    // The address stays reserved and unreadable for a while, so that whoever still uses it is found out.
    mmap(mapping.base, mapping.mappedLength, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    Mdls &r = records();
    r.retired.emplace_back(mapping.base, mapping.mappedLength);
    if (r.retired.size() > 256) {
        munmap(r.retired.front().first, r.retired.front().second);
        r.retired.pop_front();
    }
}

} // namespace

PMDL newMdl(void *address, std::size_t length, DriverRecord *owner)
{
    auto *mdl = new MDL{};
    mdl->Size = sizeof(MDL);
    mdl->StartVa = PAGE_ALIGN(address);
    mdl->ByteOffset = BYTE_OFFSET(address);
    mdl->ByteCount = static_cast<ULONG>(length);
    std::lock_guard guard(records().lock);
    records().live[mdl] = {owner};
    return mdl;
}

void freeMdl(PMDL mdl, const char *routine)
{
    if (!known(mdl, routine))
        return;
    std::size_t mapped;
    {
        std::lock_guard guard(records().lock);
        mapped = records().live[mdl].userMappings;
        records().live.erase(mdl);
    }
    if (mapped != 0)
        violate("MDL freed while mapped", routine, text("mdl %p", static_cast<void *>(mdl)), 0xC4, 0x85);
    if (mdl->MdlFlags & MDL_PAGES_LOCKED)
        violate("MDL freed with its pages locked", routine, text("mdl %p", static_cast<void *>(mdl)), 0xC4, 0x76);
    delete mdl;
}

std::size_t mdlsOf(const DriverRecord *owner)
{
    std::lock_guard guard(records().lock);
    return static_cast<std::size_t>(std::count_if(records().live.begin(), records().live.end(),
                                                  [&](auto &entry) { return entry.second.owner == owner; }));
}

std::size_t mdls()
{
    std::lock_guard guard(records().lock);
    return records().live.size();
}

void forgetMdls()
{
    std::lock_guard guard(records().lock);
    for (auto &[mdl, record] : records().live)
        delete mdl;
    records().live.clear();
}

std::size_t userMappings(const _KPROCESS *process)
{
    std::lock_guard guard(records().lock);
    return static_cast<std::size_t>(std::count_if(records().mappings.begin(), records().mappings.end(), [&](auto &mapping) {
        return process == nullptr || mapping.process == process;
    }));
}

std::size_t userMappingsOf(const DriverRecord *owner)
{
    std::lock_guard guard(records().lock);
    return static_cast<std::size_t>(std::count_if(records().mappings.begin(), records().mappings.end(),
                                                  [&](auto &mapping) { return mapping.owner == owner; }));
}

bool userMapped(const _KPROCESS *process, const void *address, std::size_t length)
{
    auto *begin = static_cast<const std::uint8_t *>(address);
    std::lock_guard guard(records().lock);
    return std::any_of(records().mappings.begin(), records().mappings.end(), [&](const UserMapping &mapping) {
        auto *first = static_cast<const std::uint8_t *>(mapping.address);
        return (process == nullptr || mapping.process == process) && begin >= first && length <= mapping.length &&
               begin + length <= first + mapping.length;
    });
}

void forgetUserMappings()
{
    std::lock_guard guard(records().lock);
    for (const UserMapping &mapping : records().mappings)
        munmap(mapping.base, mapping.mappedLength);
    records().mappings.clear();
    for (auto &[base, length] : records().retired)
        munmap(base, length);
    records().retired.clear();
}

} // namespace ntos

using namespace ntos;

extern "C" {

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN, PIRP Irp)
{
    NTOS_DOOR(IoAllocateMdl, DISPATCH_LEVEL, true);
    if (enter(kDoor))
        return nullptr;
    PMDL mdl = newMdl(VirtualAddress, Length, currentDriver());
    if (Irp != nullptr) {
        if (!SecondaryBuffer) {
            Irp->MdlAddress = mdl;
        } else {
            PMDL last = Irp->MdlAddress;
            while (last->Next != nullptr)
                last = last->Next;
            last->Next = mdl;
        }
    }
    return mdl;
}

void IoFreeMdl(PMDL Mdl)
{
    NTOS_DOOR(IoFreeMdl, DISPATCH_LEVEL, false);
    enter(kDoor);
    freeMdl(Mdl, kDoor.routine);
}

void MmBuildMdlForNonPagedPool(PMDL Mdl)
{
    NTOS_DOOR(MmBuildMdlForNonPagedPool, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(Mdl, kDoor.routine))
        return;
    void *address = MmGetMdlVirtualAddress(Mdl);
    if (!poolBlockAround(address, Mdl->ByteCount))
        violate("MDL describes memory that is not in one pool block", kDoor.routine, text("%p, %u bytes", address, Mdl->ByteCount),
                0xC4, 0xB6);
    Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags | MDL_SOURCE_IS_NONPAGED_POOL);
    Mdl->MappedSystemVa = address;
}

void MmProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE, LOCK_OPERATION)
{
    NTOS_DOOR(MmProbeAndLockPages, DISPATCH_LEVEL, true);
    if (enter(kDoor))
        ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    if (!known(Mdl, kDoor.routine))
        return;
    Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags | MDL_PAGES_LOCKED);
    Mdl->Process = currentThread()->process;
}

void MmUnlockPages(PMDL Mdl)
{
    NTOS_DOOR(MmUnlockPages, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(Mdl, kDoor.routine))
        return;
    if (!(Mdl->MdlFlags & MDL_PAGES_LOCKED))
        violate("pages unlocked that are not locked", kDoor.routine, text("mdl %p", static_cast<void *>(Mdl)), 0xC4, 0x7C);
    Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags & ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA));
}

PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE, PVOID, ULONG, ULONG)
{
    NTOS_DOOR(MmMapLockedPagesSpecifyCache, DISPATCH_LEVEL, true);
    const bool fails = enter(kDoor);
    if (!known(Mdl, kDoor.routine))
        return nullptr;
    if (!(Mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL)))
        violate("mapped an MDL whose pages are not locked", kDoor.routine, text("mdl %p", static_cast<void *>(Mdl)), 0xC4, 0x83);
    if (AccessMode == KernelMode) {
        if (fails)
            return nullptr;
        Mdl->MappedSystemVa = MmGetMdlVirtualAddress(Mdl);
        Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags | MDL_MAPPED_TO_SYSTEM_VA);
        return Mdl->MappedSystemVa;
    }

    _KTHREAD *thread = currentThread();
    if (thread->irql > APC_LEVEL)
        violate("user mapping above APC_LEVEL", kDoor.routine, text("irql %u", thread->irql), 0xC4, 0x83);
    auto block = poolBlockAround(MmGetMdlVirtualAddress(Mdl), Mdl->ByteCount);
    UserMapping mapping{nullptr, 0, nullptr, 0, nullptr, Mdl, thread->process, currentDriver()};
    if (fails || !block || thread->process->exitStatus != STATUS_PENDING || mapSecondAddress(*block, Mdl, mapping) == nullptr)
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    changeUserMappings(mapping.block, 1);
    std::lock_guard guard(records().lock);
    records().mappings.push_back(mapping);
    records().live[Mdl].userMappings++;
    return mapping.address;
}

void MmUnmapLockedPages(PVOID BaseAddress, PMDL Mdl)
{
    NTOS_DOOR(MmUnmapLockedPages, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(Mdl, kDoor.routine))
        return;
    if ((Mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) && Mdl->MappedSystemVa == BaseAddress) {
        Mdl->MdlFlags = static_cast<CSHORT>(Mdl->MdlFlags & ~MDL_MAPPED_TO_SYSTEM_VA);
        return;
    }
    Mdls &r = records();
    std::optional<UserMapping> found;
    {
        std::lock_guard guard(r.lock);
        auto entry = std::find_if(r.mappings.begin(), r.mappings.end(),
                                  [&](const UserMapping &mapping) { return mapping.address == BaseAddress; });
        if (entry != r.mappings.end()) {
            found = *entry;
            r.mappings.erase(entry);
            retire(*found);
            if (auto record = r.live.find(found->mdl); record != r.live.end())
                record->second.userMappings--;
        }
    }
    if (!found) {
        violate("unmapped what is not mapped", kDoor.routine, text("address %p", BaseAddress), 0xC4, 0x84);
        return;
    }
    changeUserMappings(found->block, -1);
    if (found->mdl != Mdl)
        violate("unmapped with another MDL", kDoor.routine, text("mdl %p", static_cast<void *>(Mdl)), 0xC4, 0x84);
    if (found->process != currentThread()->process)
        violate("user mapping undone in another process", kDoor.routine,
                "mapping of " + found->process->name + ", undone in " + currentThread()->process->name, 0xC4, 0x140);
}

} // extern "C"
