// Pool, user mappings and memory descriptor lists, for the managers.
#pragma once

#include "ntos/kernel.h"

namespace ntos {

struct PoolBlock {
    void *address = nullptr;
    std::size_t size = 0;
    ULONG tag = 0;
    DriverRecord *owner = nullptr;   // whose code allocated it; null: the kernel
    void *base = nullptr;            // of the heap block or the mapping
    std::size_t mappedLength = 0;    // whole pages, when backed by a shared memory object
    int descriptor = -1;             // of the shared memory object
    std::size_t userMappings = 0;
};

void configurePool(const Options &options);
// Blocks of a page and more can be mapped into a process, unless nobody is going to.
void *poolAllocate(std::size_t size, ULONG tag, DriverRecord *owner, bool mappable = true);
void poolFree(void *address, const char *routine, std::optional<ULONG> tag = {});
std::optional<PoolBlock> poolBlockAround(const void *address, std::size_t length);
std::vector<PoolBlock> poolBlocksOf(const DriverRecord *owner);
std::size_t poolBlocks();
void forgetPool(); // frees what is left, resets the statistics

PMDL newMdl(void *address, std::size_t length, DriverRecord *owner);
void freeMdl(PMDL mdl, const char *routine);
std::size_t mdlsOf(const DriverRecord *owner);
std::size_t mdls();
void forgetMdls();

struct UserMapping {
    void *address;           // where the data begins
    std::size_t length;
    void *base;              // page
    std::size_t mappedLength;
    void *block;             // pool block's address
    PMDL mdl;
    _KPROCESS *process;
    DriverRecord *owner;
};
std::size_t userMappings(const _KPROCESS *process = nullptr); // null: of all
bool userMapped(const _KPROCESS *process, const void *address, std::size_t length);
std::size_t userMappingsOf(const DriverRecord *owner);
void forgetUserMappings();

std::string tagText(ULONG tag);
PoolTagStatistics poolStatistics(ULONG tag);
std::vector<PoolTagStatistics> poolStatistics();

} // namespace ntos
