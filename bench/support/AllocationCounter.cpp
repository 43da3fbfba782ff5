#include "AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned long> AllocationCount = 0;

}  // namespace

unsigned long GetAllocationCount()
{
    return AllocationCount.load(std::memory_order_relaxed);
}

// These stand for the library's own in the whole program; its other forms of new end up here.
void* operator new(size_t iSize)
{
    AllocationCount.fetch_add(1, std::memory_order_relaxed);
    void* pMemory = malloc(iSize == 0 ? 1 : iSize);
    if (pMemory == nullptr)
        throw std::bad_alloc();
    return pMemory;
}

void operator delete(void* pMemory) noexcept
{
    free(pMemory);
}

void operator delete(void* pMemory, size_t) noexcept
{
    free(pMemory);
}
