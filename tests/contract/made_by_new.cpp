// made_by_new.cpp - operator new for the suite and for the tested library. It records its allocations.
#include "made_by_new.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

using Address = std::uintptr_t;

/// Of two addresses in one place of the table the older one is lost.
std::atomic<Address>& place(Address address)
{
    static std::array<std::atomic<Address>, 16381> places{};
    return places[address / alignof(std::max_align_t) % places.size()];
}

void giveBack(void* memory)
{
    auto expected = reinterpret_cast<Address>(memory);
    place(expected).compare_exchange_strong(expected, 0);
    free(memory);
}

}  // namespace

bool madeByNew(const void* memory)
{
    const auto address = reinterpret_cast<Address>(memory);
    return address != 0 && place(address) == address;
}

void* operator new(std::size_t size)
{
    void* const memory = malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    const auto address = reinterpret_cast<Address>(memory);
    place(address) = address;
    return memory;
}

// AddressSanitizer's own would allocate without this one.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void operator delete(void* memory) noexcept
{
    giveBack(memory);
}

void operator delete[](void* memory) noexcept
{
    giveBack(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    giveBack(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    giveBack(memory);
}
