// platform/common/secret_bytes.h - bytes that are wiped before their memory is given back.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <new>
#include <vector>

namespace secret {

template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename U>
    explicit WipingAllocator(const WipingAllocator<U>&)
    {
    }

    T* allocate(std::size_t count) { return static_cast<T*>(::operator new(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count)
    {
        OPENSSL_cleanse(memory, count * sizeof(T));
        ::operator delete(memory);
    }
    bool operator==(const WipingAllocator&) const { return true; }
    bool operator!=(const WipingAllocator&) const { return false; }
};

/// Also wiped when it grows or is moved from one size to the next.
using Bytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;

}  // namespace secret
