// main_test.cpp - main, its signal handler and its shutdown, with doubles of the functions that they call.
// This program compiles the service's main under the name service_main.
#include "DBusManager.h"
#include "allocation_switch.h"
#include "log_matchers.h"

#include <Ecore.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

int service_main(int count, char** arguments);
void billing_service_quit();
void sig_quit(int iSignal);
extern CDBusManager* g_pDbusMan;

namespace {

struct Process {
    int iChdirResult = 0;
    bool bFrontEndWorks = true;
    std::function<void()> loop;
};
Process g_process;

}  // namespace

CDBusManager::CDBusManager()
{
    Note("construct");
}
CDBusManager::~CDBusManager()
{
    Note(g_pDbusMan == this ? "destruct" : "destruct after the pointer was cleared");
}
bool CDBusManager::Initialize()
{
    Note("Initialize");
    return g_process.bFrontEndWorks;
}
bool CDBusManager::InitEcorePipe()
{
    Note("InitEcorePipe");
    return g_process.bFrontEndWorks;
}

extern "C" {
void __wrap_platform_process_start()
{
    Note("platform_process_start");
}
sighandler_t __real_signal(int number, sighandler_t handler);
sighandler_t __wrap_signal(int number, sighandler_t handler)
{
    Note("signal " + std::to_string(number) + (handler == sig_quit ? " sig_quit" : ""));
    return __real_signal(number, handler);
}
mode_t __real_umask(mode_t mask);
mode_t __wrap_umask(mode_t mask)
{
    Note("umask " + std::to_string(mask));
    return __real_umask(mask);
}
int __wrap_chdir(const char* path)
{
    Note(std::string("chdir ") + path);
    return g_process.iChdirResult;
}
int __wrap_ecore_init()
{
    Note("ecore_init");
    return g_process.bFrontEndWorks ? 1 : 0;
}
void __wrap_ecore_main_loop_begin()
{
    Note("loop");
    if (g_process.loop) {
        g_process.loop();
    }
}
void __wrap_ecore_main_loop_quit()
{
    Note(g_pDbusMan == nullptr ? "ecore_main_loop_quit" : "quit before the front end is gone");
}
}

namespace {

int RunMain(std::vector<std::string> arguments = {"billing-service"})
{
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    return service_main(static_cast<int>(pointers.size()), pointers.data());
}

const LinesOf MAIN{"main.cpp"};
const std::string MAIN_FUNCTION = "service_main";  // name under which this program compiles main

const Steps PREPARED{Did("platform_process_start"), Did("signal 15 sig_quit"), Did("umask 0"),
                     Did("chdir /")};
const Steps STARTED{Did("construct"), Did("Initialize"), Did("ecore_init"), Did("InitEcorePipe"),
                    Did("loop")};
const Line RECEIVED = MAIN.info("sig_quit", "received SIGTERM signal 15");
const Steps TORN_DOWN{MAIN.warning("billing_service_quit", "billing service will be quit"),
                      MAIN.warning("billing_service_quit", "start delete g_pDbusMan"),
                      Did("destruct"),
                      MAIN.warning("billing_service_quit", " delete g_pDbusMan end"),
                      Did("ecore_main_loop_quit"),
                      MAIN.warning("billing_service_quit", " quit ecore_main_loop end")};
const Steps QUIT_AGAIN{MAIN.warning("billing_service_quit", "billing service will be quit"),
                       Did("ecore_main_loop_quit"),
                       MAIN.warning("billing_service_quit", " quit ecore_main_loop end")};
const Steps ENDED{MAIN.info(MAIN_FUNCTION, "--billing service quit!--")};

class TheProcess : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_process = Process();
        m_oldMask = umask(022);
        fake::platform().reset();
    }
    void TearDown() override
    {
        umask(m_oldMask);
        signal(SIGTERM, SIG_DFL);
        delete g_pDbusMan;
        g_pDbusMan = nullptr;
    }
    mode_t m_oldMask = 0;
};

TEST_F(TheProcess, StartsInItsOrderRunsTheLoopAndQuits)
{
    EXPECT_EQ(RunMain(), 0);

    EXPECT_EQ(Timeline(), PREPARED + STARTED + TORN_DOWN + ENDED);
    EXPECT_EQ(g_pDbusMan, nullptr);
}

TEST_F(TheProcess, TellsItsVersionAndDoesNothingElse)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(RunMain({"billing-service", "--version"}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "billing-service 1.2.3\n");
    EXPECT_EQ(Timeline(), Steps{});
}

TEST_F(TheProcess, GoesOnWhateverTheFrontEndAndEcoreAnswer)
{
    g_process.bFrontEndWorks = false;

    EXPECT_EQ(RunMain(), 0);

    EXPECT_EQ(Timeline(), PREPARED + STARTED + TORN_DOWN + ENDED);
}

TEST_F(TheProcess, CreatesFilesWithTheModeItAsksFor)
{
    RunMain();

    EXPECT_EQ(umask(022), 0u);
}

TEST_F(TheProcess, HandlesSigtermAndNoOtherSignal)
{
    signal(SIGINT, SIG_DFL);

    RunMain();

    struct sigaction tAction {};
    sigaction(SIGTERM, nullptr, &tAction);
    EXPECT_EQ(tAction.sa_handler, &sig_quit);
    sigaction(SIGINT, nullptr, &tAction);
    EXPECT_EQ(tAction.sa_handler, SIG_DFL);
}

TEST_F(TheProcess, GoesOnWhenItCannotChangeToTheRoot)
{
    for (const int iResult : {-1, 1}) {
        fake::platform().clearTimeline();
        g_process.iChdirResult = iResult;

        EXPECT_EQ(RunMain(), 0);

        const Steps told{MAIN.error(MAIN_FUNCTION, "Failed to change working directory to root")};
        EXPECT_EQ(Timeline(), PREPARED + told + STARTED + TORN_DOWN + ENDED);
    }
}

TEST_F(TheProcess, EndsAtOnceWithoutMemoryForTheFrontEnd)
{
    FailNothrowAllocation(1);

    EXPECT_EQ(RunMain(), 0);

    EXPECT_EQ(Timeline(),
              PREPARED + Steps{MAIN.error(MAIN_FUNCTION, " create CDBusManager error!")});
}

TEST_F(TheProcess, DoesTheWholeTeardownInTheSignalHandler)
{
    g_process.loop = [] { raise(SIGTERM); };

    EXPECT_EQ(RunMain(), 0);

    EXPECT_EQ(Timeline(), PREPARED + STARTED + Steps{RECEIVED} + TORN_DOWN + QUIT_AGAIN + ENDED);
}

TEST_F(TheProcess, OnlyLogsAndQuitsAgainOnASecondSigterm)
{
    g_process.loop = [] {
        raise(SIGTERM);
        raise(SIGTERM);
    };

    EXPECT_EQ(RunMain(), 0);

    EXPECT_EQ(Timeline(), PREPARED + STARTED + Steps{RECEIVED} + TORN_DOWN + Steps{RECEIVED} +
                              QUIT_AGAIN + QUIT_AGAIN + ENDED);
}

TEST_F(TheProcess, NamesTheSignalThatItGot)
{
    sig_quit(7);

    EXPECT_EQ(Timeline(), Steps{MAIN.info("sig_quit", "received SIGTERM signal 7")} + QUIT_AGAIN);
}

TEST_F(TheProcess, QuitsWithoutAFrontEnd)
{
    billing_service_quit();

    EXPECT_EQ(Timeline(), QUIT_AGAIN);
}

}  // namespace
