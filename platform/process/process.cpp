// process.cpp - makes the process fit to run. Linked into the executable itself.
#include "environment.h"
#include "expiry.h"
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

/// Opens the standard descriptors that are closed: a socket must not get the number that the log
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

/// Tokens and key parts pass through this memory: no core file, and no look from other processes of
/// the same user. A tracer that started the program keeps its access; it has seen everything
/// anyway, and a debugger could not work without.
void hideMemory()
{
    if (!isTraced())
        prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

/// Transfers and the bus need descriptors, and a soft limit of 1,024 is what old programs with
/// select() want. Ecore, which has it, opens its own at the start.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Bytes of stack for a thread whose maker asks for none: the bus library's, and one for each name
/// that libcurl looks up. They use under 30 KiB; else each would take 8 MiB of addresses. Threads of the
/// service name their own size.
constexpr std::size_t kOthersStack = std::size_t{256} * 1024;

/// Adds what a library keeps for each thread, which lies on the thread's stack.
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
    // A sanitizer's runtime has more of it than that.
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
    process::cleanEnvironment();
    process::ownDefaultContext();
    hideMemory();
    process::warnOfExpiry();
}
