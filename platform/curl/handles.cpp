// handles.cpp - the few handles that are kept.
#include "handles.h"

#include <array>
#include <cstddef>
#include <mutex>
#include <utility>

namespace MZCurl {
namespace {

/// Handles that are kept at most. Each takes some 6 KiB. More are wanted only between the calls of a burst.
constexpr std::size_t kMostHandles = 32;

struct Kept {
    std::mutex lock;
    std::array<EasyHandle, kMostHandles> handles;
    std::size_t count = 0;
};

/// Never destroyed: transfers may end while the process does.
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
