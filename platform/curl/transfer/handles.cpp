// handles.cpp - the pool of kept handles.
#include "handles.h"

#include <array>
#include <cstddef>
#include <mutex>
#include <utility>

namespace MZCurl {
namespace {

/// Size of the pool. Each handle takes some 6 KiB. Only a burst leaves more handles unused, for a moment.
constexpr std::size_t kMostHandles = 32;

struct Kept {
    std::mutex lock;
    std::array<EasyHandle, kMostHandles> handles;
    std::size_t count = 0;
};

/// Never destroyed: transfers may end while the process exits.
Kept& kept()
{
    static Kept* const instance = new Kept;
    return *instance;
}

}  // namespace

EasyHandle takeHandle()
{
    Kept& k = kept();
    const std::lock_guard<std::mutex> guard(k.lock);
    return k.count > 0 ? std::move(k.handles[--k.count]) : nullptr;
}

void keepHandle(EasyHandle handle)
{
    Kept& k = kept();
    const std::lock_guard<std::mutex> guard(k.lock);
    if (k.count < k.handles.size()) {
        k.handles[k.count++] = std::move(handle);
    }
}

void dropHandles()
{
    while (takeHandle() != nullptr) {
    }
}

}  // namespace MZCurl
