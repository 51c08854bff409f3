// process.cpp - start-up of the process. Linked into the executable itself.
#include "../common/places.h"
#include "environment.h"
#include "expiry.h"
#include "heap.h"
#include "main_loop.h"

#include <platform/process.h>

#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

/// Opens standard descriptors that are closed. Otherwise a socket could get the number that the log
/// writes to.
void fillStandardDescriptors()
{
    for (int fd = 0; fd <= 2; fd++) {
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            open("/dev/null", O_RDWR);
    }
}

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};

bool isTraced()
{
    const std::unique_ptr<FILE, CloseFile> status(fopen("/proc/self/status", "re"));
    char line[256];
    while (status != nullptr && fgets(line, sizeof line, status.get()) != nullptr) {
        int tracer = 0;
        if (sscanf(line, "TracerPid: %d", &tracer) == 1)
            return tracer != 0;
    }
    return false;
}

/// Forbids core files and access by other processes of the same user, since tokens and parts of keys
/// are in this memory. A tracer that has started the program keeps its access: a debugger needs it.
void hideMemory()
{
    if (!isTraced())
        prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

/// Raises the soft limit of descriptors to the hard one. The usual 1,024 protects programs that use
/// select(); Ecore does, and opens its own descriptors at the start, with low numbers.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Bytes of stack for threads that ask for no size: the bus library's, and libcurl's, one for each
/// look-up of a name. They use under 30 KiB; the default would take 8 MiB of addresses each. Threads
/// of the service ask for a size.
constexpr std::size_t kOthersStack = std::size_t{256} * 1024;

/// Adds the thread-local data of libraries, which lie on the thread's stack.
int addThreadStorage(dl_phdr_info* library, std::size_t, void* sum)
{
    for (int i = 0; i < library->dlpi_phnum; i++) {
        if (library->dlpi_phdr[i].p_type == PT_TLS)
            *static_cast<std::size_t*>(sum) += library->dlpi_phdr[i].p_memsz;
    }
    return 0;
}

void smallStacks()
{
    std::size_t stack = kOthersStack;
    // A sanitizer's runtime has more thread-local data than the constant allows for.
    dl_iterate_phdr(addThreadStorage, &stack);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stack);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

}  // namespace

void platform_process_start(void)
{
    process::holdSignals();
    fillStandardDescriptors();
    raiseDescriptorLimit();
    smallStacks();
    process::keepLargeBlocksApart();
    process::cleanEnvironment();
    process::ownDefaultContext();
    hideMemory();
    process::warnOfExpiry(places::kDeviceCertificate);
}
