// Non-paged pool: one heap block each, so that a sanitizer sees every byte; blocks of a page and more are backed by a shared
// memory object between guard pages, so that a user mapping gets an address of its own onto the same memory.
#include "ntos/memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "ntos/clockwork.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NTOS_ASAN 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define NTOS_ASAN 1
#endif
#ifdef NTOS_ASAN
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)0)
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)0)
#endif

namespace ntos {

namespace {

// Without the sanitizer every heap block carries guards of its own.
#ifdef NTOS_ASAN
constexpr std::size_t kGuard = 0;
#else
constexpr std::size_t kGuard = 16;
#endif
constexpr std::uint8_t kGuardByte = 0xE7;

struct TagCount {
    std::uint64_t blocks = 0, bytes = 0, allocations = 0, peak = 0;
};
struct Pool {
    std::mutex lock;
    std::map<std::uintptr_t, PoolBlock> blocks;
    std::map<ULONG, TagCount> tags;
    std::deque<std::pair<std::uintptr_t, ULONG>> freed; // remembers recent ones, to tell a double free from nonsense
    Options options;
};
Pool &pool()
{
    static auto *instance = new Pool;
    return *instance;
}

std::uintptr_t key(const void *address)
{
    return reinterpret_cast<std::uintptr_t>(address);
}

bool allocateShared(PoolBlock &block)
{
    const std::size_t length = ROUND_TO_PAGES(block.size);
    const int descriptor = memfd_create("pool", MFD_CLOEXEC);
    if (descriptor < 0)
        return false;
    void *base = MAP_FAILED;
    if (ftruncate(descriptor, static_cast<off_t>(length)) == 0)
        base = mmap(nullptr, length + 2 * PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) {
        close(descriptor);
        return false;
    }
    auto *data = static_cast<std::uint8_t *>(base) + PAGE_SIZE;
    if (mmap(data, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, descriptor, 0) == MAP_FAILED) {
        munmap(base, length + 2 * PAGE_SIZE);
        close(descriptor);
        return false;
    }
    ASAN_POISON_MEMORY_REGION(data + block.size, length - block.size);
    block.address = data;
    block.base = base;
    block.mappedLength = length;
    block.descriptor = descriptor;
    return true;
}

bool allocateHeap(PoolBlock &block)
{
    // Zero-sized requests still need a block of their own address.
    auto *base = static_cast<std::uint8_t *>(std::malloc(std::max<std::size_t>(block.size, 1) + 2 * kGuard));
    if (base == nullptr)
        return false;
    block.base = base;
    block.address = base + kGuard;
    if constexpr (kGuard != 0) {
        memset(base, kGuardByte, kGuard);
        memset(base + kGuard + block.size, kGuardByte, kGuard);
    }
    return true;
}

bool guardsIntact(const PoolBlock &block)
{
    if (block.descriptor >= 0)
        return true;
    auto *base = static_cast<const std::uint8_t *>(block.base);
    auto intact = [](const std::uint8_t *guard) {
        return std::all_of(guard, guard + kGuard, [](std::uint8_t byte) { return byte == kGuardByte; });
    };
    return intact(base) && intact(base + kGuard + block.size);
}

void release(const PoolBlock &block, bool fill, std::uint8_t freedFill)
{
    if (fill)
        memset(block.address, freedFill, block.size);
    if (block.descriptor >= 0) {
        ASAN_UNPOISON_MEMORY_REGION(block.address, block.mappedLength);
        munmap(block.base, block.mappedLength + 2 * PAGE_SIZE);
        close(block.descriptor);
    } else {
        std::free(block.base);
    }
}

std::string describe(const PoolBlock &block)
{
    return text("block %p of %zu bytes, tag '%s'", block.address, block.size, tagText(block.tag).c_str());
}

} // namespace

std::string tagText(ULONG tag)
{
    // As it is written in the source, '42QV': the first character is the most significant byte.
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8)
        s += static_cast<char>((tag >> shift) & 0xFF);
    return s;
}

void configurePool(const Options &options)
{
    std::lock_guard guard(pool().lock);
    pool().options = options;
}

void *poolAllocate(std::size_t size, ULONG tag, DriverRecord *owner, bool mappable)
{
    Pool &p = pool();
    Options options;
    {
        std::lock_guard guard(p.lock);
        options = p.options;
    }
    PoolBlock block;
    block.size = size;
    block.tag = tag;
    block.owner = owner;
    if (size > std::size_t(1) << 40)
        return nullptr;
    const bool shared = mappable && options.sharedPool && size >= PAGE_SIZE && allocateShared(block);
    if (!shared && !allocateHeap(block))
        return nullptr;
    if (options.fillPool && !(shared && options.zeroSharedPool))
        memset(block.address, options.freshFill, size);
    std::lock_guard guard(p.lock);
    p.blocks[key(block.address)] = block;
    TagCount &count = p.tags[tag];
    count.blocks++;
    count.bytes += size;
    count.allocations++;
    count.peak = std::max(count.peak, count.bytes);
    return block.address;
}

void poolFree(void *address, const char *routine, std::optional<ULONG> tag)
{
    Pool &p = pool();
    PoolBlock block;
    bool found = false, freedBefore = false;
    Options options;
    {
        std::lock_guard guard(p.lock);
        options = p.options;
        auto entry = p.blocks.find(key(address));
        if (entry != p.blocks.end()) {
            found = true;
            block = entry->second;
            if (!tag || *tag == 0 || *tag == block.tag) {
                p.blocks.erase(entry);
                TagCount &count = p.tags[block.tag];
                count.blocks--;
                count.bytes -= block.size;
                p.freed.emplace_back(key(address), block.tag);
                if (p.freed.size() > 1024)
                    p.freed.pop_front();
            }
        } else {
            freedBefore = std::any_of(p.freed.begin(), p.freed.end(), [&](auto &old) { return old.first == key(address); });
        }
    }
    if (!found) {
        violate(freedBefore ? "block freed twice" : "freed what is no block", routine, text("address %p", address), 0xC2,
                freedBefore ? 0x07 : 0x46);
        return;
    }
    if (tag && *tag != 0 && *tag != block.tag) {
        violate("block freed with another tag", routine, describe(block) + ", freed as '" + tagText(*tag) + "'", 0xC2, 0x0A);
        return;
    }
    if (block.userMappings != 0)
        violate("block freed while mapped into a process", routine, describe(block), 0xC4, 0x85);
    if (anyWaiterIn(block.address, block.size))
        violate("block freed while somebody waits on an object in it", routine, describe(block), 0xC4, 0x0A);
    if (!guardsIntact(block))
        violate("bytes beyond a block were written", routine, describe(block), 0xC1);
    forgetLocksIn(block.address, block.size);
    release(block, options.fillPool, options.freedFill);
}

std::optional<PoolBlock> poolBlockAround(const void *address, std::size_t length)
{
    Pool &p = pool();
    std::lock_guard guard(p.lock);
    auto entry = p.blocks.upper_bound(key(address));
    if (entry == p.blocks.begin())
        return {};
    --entry;
    const PoolBlock &block = entry->second;
    const std::size_t offset = key(address) - entry->first;
    if (offset > block.size || length > block.size - offset)
        return {};
    return block;
}

void changeUserMappings(void *block, int by)
{
    Pool &p = pool();
    std::lock_guard guard(p.lock);
    auto entry = p.blocks.find(key(block));
    if (entry != p.blocks.end())
        entry->second.userMappings += static_cast<std::size_t>(by);
}

std::vector<PoolBlock> poolBlocksOf(const DriverRecord *owner)
{
    std::vector<PoolBlock> found;
    std::lock_guard guard(pool().lock);
    for (auto &[address, block] : pool().blocks)
        if (block.owner == owner)
            found.push_back(block);
    return found;
}

std::size_t poolBlocks()
{
    std::lock_guard guard(pool().lock);
    return pool().blocks.size();
}

void forgetPool()
{
    std::lock_guard guard(pool().lock);
    for (auto &[address, block] : pool().blocks)
        release(block, false, 0);
    pool().blocks.clear();
    pool().tags.clear();
    pool().freed.clear();
}

static PoolTagStatistics statistics(ULONG tag, const TagCount &count)
{
    return {tagText(tag), count.blocks, count.bytes, count.allocations, count.peak};
}

PoolTagStatistics poolStatistics(ULONG tag)
{
    std::lock_guard guard(pool().lock);
    auto entry = pool().tags.find(tag);
    return statistics(tag, entry == pool().tags.end() ? TagCount{} : entry->second);
}

std::vector<PoolTagStatistics> poolStatistics()
{
    std::vector<PoolTagStatistics> all;
    std::lock_guard guard(pool().lock);
    for (auto &[tag, count] : pool().tags)
        all.push_back(statistics(tag, count));
    return all;
}

} // namespace ntos

using namespace ntos;

extern "C" {

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    NTOS_DOOR(ExAllocatePoolWithTag, DISPATCH_LEVEL, true);
    if (enter(kDoor))
        return nullptr;
    if (PoolType == PagedPool && currentThread()->irql > APC_LEVEL)
        violate("paged pool above APC_LEVEL", kDoor.routine, driverName(currentDriver()), 0xC4, 0x02);
    if (Tag == 0 || Tag == '    ')
        violate("allocation without a tag", kDoor.routine, driverName(currentDriver()), 0xC4, 0x01);
    if (NumberOfBytes == 0)
        violate("allocation of no bytes", kDoor.routine, driverName(currentDriver()), 0xC4, 0x00);
    return poolAllocate(NumberOfBytes, Tag, currentDriver());
}

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, 'enoN');
}

void ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    NTOS_DOOR(ExFreePoolWithTag, DISPATCH_LEVEL, false);
    enter(kDoor);
    poolFree(P, kDoor.routine, Tag);
}

void ExFreePool(PVOID P)
{
    NTOS_DOOR(ExFreePool, DISPATCH_LEVEL, false);
    enter(kDoor);
    poolFree(P, kDoor.routine);
}

} // extern "C"
