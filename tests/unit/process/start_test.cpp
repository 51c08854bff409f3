// start_test.cpp - what the start makes of the process.
#include "child.h"
#include "doubles.h"
#include "test_certificates.h"

#include <platform/process.h>

#include <fcntl.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <link.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

namespace {

/// Starts the process in a child.
/// @return what is asked afterwards
template <typename Question>
std::string afterStart(const Question& question)
{
    return test::inChild([&] {
        platform_process_start();
        return std::string(question());
    });
}

/// @return the signals that are blocked, their numbers with a blank after each
std::string blocked()
{
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    std::string numbers;
    for (int number = 1; number < SIGRTMIN; number++) {
        if (sigismember(&mask, number) == 1)
            numbers += std::to_string(number) + " ";
    }
    return numbers;
}

std::string pathOf(int fd)
{
    char path[256];
    const ssize_t size =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    const bool both = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR;
    return size < 0 ? "closed"
                    : std::string(path, static_cast<std::size_t>(size)) + (both ? ",rw" : "");
}

TEST(AStart, HoldsSigtermOnly)
{
    EXPECT_EQ(afterStart(blocked), std::to_string(SIGTERM) + " ");
    const std::string kept = test::inChild([] {
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, SIGHUP);
        pthread_sigmask(SIG_SETMASK, &own, nullptr);
        platform_process_start();
        return blocked();
    });
    EXPECT_EQ(kept, std::to_string(SIGHUP) + " " + std::to_string(SIGTERM) + " ");
}

std::ptrdiff_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST(AStart, FillsClosedStandardDescriptorsAndOpensNoOther)
{
    for (int closed = 0; closed < 8; closed++) {
        const std::string now = test::inChild([&] {
            const int zero = open("/dev/zero", O_RDONLY);
            for (int fd = 0; fd <= 2; fd++)
                dup2(zero, fd);
            close(zero);
            const std::ptrdiff_t before = openDescriptors();
            for (int fd = 0; fd <= 2; fd++) {
                if ((closed >> fd & 1) != 0)
                    close(fd);
            }
            platform_process_start();
            return pathOf(0) + " " + pathOf(1) + " " + pathOf(2) + " " +
                   std::to_string(openDescriptors() - before);
        });
        std::string expected;
        for (int fd = 0; fd <= 2; fd++)
            expected += (closed >> fd & 1) != 0 ? "/dev/null,rw " : "/dev/zero ";
        // GLib's default context keeps one, which wakes it up.
        EXPECT_EQ(now, expected + "1");
    }
}

TEST(AStart, RaisesTheLimitOfDescriptors)
{
    const std::string limits = test::inChild([] {
        rlimit limit{64, 512};
        setrlimit(RLIMIT_NOFILE, &limit);
        platform_process_start();
        getrlimit(RLIMIT_NOFILE, &limit);
        return std::to_string(limit.rlim_cur) + " " + std::to_string(limit.rlim_max);
    });
    EXPECT_EQ(limits, "512 512");
}

TEST(AStart, GivesThreadsASmallStack)
{
    std::size_t expected = 256U << 10;
    dl_iterate_phdr(
        [](dl_phdr_info* library, std::size_t, void* sum) {
            std::for_each(library->dlpi_phdr, library->dlpi_phdr + library->dlpi_phnum,
                          [&](const auto& header) {
                              *static_cast<std::size_t*>(sum) +=
                                  header.p_type == PT_TLS ? header.p_memsz : 0;
                          });
            return 0;
        },
        &expected);
    const std::string stack = afterStart([] {
        pthread_attr_t attributes;
        std::size_t size = 0;
        pthread_getattr_default_np(&attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        return std::to_string(size);
    });
    EXPECT_EQ(stack, std::to_string(expected));
}

TEST(AStart, CleansTheEnvironment)
{
    EXPECT_EQ(test::inChild([] {
                  setenv("https_proxy", "http://proxy", 1);
                  platform_process_start();
                  return std::string(getenv("https_proxy") == nullptr ? "gone" : "there");
              }),
              "gone");
}

TEST(AStart, HidesTheMemory)
{
    const std::string dumpable = test::inChild([] {
        prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
        platform_process_start();
        return std::to_string(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0));
    });
    EXPECT_EQ(dumpable, "0");
}

TEST(AStart, LeavesTheMemoryToATracer)
{
    const std::string dumpable = test::inChild([] {
        prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            return std::string();
        platform_process_start();
        return std::to_string(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0));
    });
    if (dumpable.empty())
        GTEST_SKIP() << "tracing is not allowed here";
    EXPECT_EQ(dumpable, "1");
}

TEST(AStart, HidesTheMemoryWhereNoTracerCanBeSeen)
{
    const test::TemporaryFolder empty;
    const std::string dumpable = test::inChild([&] {
        if (!test::enterRoot(empty.path("")))
            return std::string();
        prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
        platform_process_start();
        return std::to_string(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0));
    });
    if (dumpable.empty())
        GTEST_SKIP() << "only root, or a user with a name space, can have another root folder";
    EXPECT_EQ(dumpable, "0");
}

bool anotherThreadRunsTheContext()
{
    bool acquired = false;
    std::thread([&] { acquired = g_main_context_acquire(nullptr) == TRUE; }).join();
    return acquired;
}

TEST(AStart, TakesTheDefaultContextForItsThread)
{
    EXPECT_EQ(test::inChild([] { return std::to_string(anotherThreadRunsTheContext()); }), "1");
    EXPECT_EQ(afterStart([] { return std::to_string(anotherThreadRunsTheContext()); }), "0");
}

TEST(AStart, KeepsLargeBlocksApartAndLooksForTheCertificate)
{
    const std::string told = afterStart([] {
        std::string all;
        for (const std::string& event : test::events())
            all += event + "; ";
        return all;
    });
    EXPECT_THAT(told, testing::StartsWith("mallopt mapping 2097152; mallopt kept 2097152; "
                                          "OpenSSL without an exit handler; "));
}

TEST(TheAllocatorOfSmallRecords, IsMalloc)
{
    EXPECT_EQ(test::slices(), "always malloc: 1");
}

}  // namespace
