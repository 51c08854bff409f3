// failing_memory.cpp - a preloaded library that refuses one allocation of a process; the test chooses it.
//
// $FAILING_MEMORY names a file that is shared with the test: see Page. While `wanted` is not 0, the
// allocations of all threads are counted, and the one with this number fails. The page then names its
// caller: the file of the program or library, and the place in it.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The C library's own functions, which never fail on purpose.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

struct Page {
    std::atomic<std::uint64_t> wanted;
    std::atomic<std::uint64_t> count;
    std::uint64_t place;
    char library[104];
};
static_assert(sizeof(Page) == 128 && std::atomic<std::uint64_t>::is_always_lock_free);

std::atomic<Page*> page;

[[gnu::constructor]] void ShareThePage()
{
    const char* file = std::getenv("FAILING_MEMORY");
    const int descriptor = file == nullptr ? -1 : open(file, O_RDWR | O_CLOEXEC);
    if (descriptor < 0) {
        return;
    }
    void* shared = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    page = shared == MAP_FAILED ? nullptr : static_cast<Page*>(shared);
}

void WriteDown(Page& shared, const void* caller)
{
    Dl_info info{};
    if (dladdr(caller, &info) != 0 && info.dli_fname != nullptr) {
        shared.place = reinterpret_cast<std::uintptr_t>(caller) -
                       reinterpret_cast<std::uintptr_t>(info.dli_fbase);
        std::strncpy(shared.library, info.dli_fname, sizeof(shared.library) - 1);
    }
}

bool IsRefused(const void* caller)
{
    Page* shared = page;
    if (shared == nullptr) {
        return false;
    }
    const std::uint64_t wanted = shared->wanted;
    if (wanted == 0 || shared->count.fetch_add(1) + 1 != wanted) {
        return false;
    }
    WriteDown(*shared, caller);
    errno = ENOMEM;
    return true;
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED void* malloc(size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

EXPORTED void* calloc(size_t count, size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

EXPORTED void* realloc(void* old, size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_realloc(old, size);
}

EXPORTED void* aligned_alloc(size_t alignment, size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_memalign(alignment, size);
}

EXPORTED int posix_memalign(void** result, size_t alignment, size_t size)
{
    void* memory =
        IsRefused(__builtin_return_address(0)) ? nullptr : __libc_memalign(alignment, size);
    if (memory == nullptr) {
        return ENOMEM;
    }
    *result = memory;
    return 0;
}
