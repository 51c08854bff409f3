// test_main.cpp - main, its signal handler and its shutdown, with doubles in place of what it
// calls. The service's main is compiled for this program under the name service_main.
#include "DBusManager.h"
#include "allocation_switch.h"
#include "log_matchers.h"

#include <Ecore.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

int service_main(int count, char** arguments);
void billing_service_quit();
void sig_quit(int iSignal);
extern CDBusManager* g_pDbusMan;

namespace {

struct Process {
    std::vector<std::string> steps;
    int iChdirResult = 0;
    std::function<void()> loop;
};
Process g_process;

int Step(const std::string& strStep, int iResult)
{
    g_process.steps.push_back(strStep);
    return iResult;
}

}  // namespace

CDBusManager::CDBusManager()
{
    Step("construct", 0);
}
CDBusManager::~CDBusManager()
{
    Step("destruct", 0);
}
bool CDBusManager::Initialize()
{
    return Step("Initialize", 0) != 0;
}
bool CDBusManager::InitEcorePipe()
{
    return Step("InitEcorePipe", 0) != 0;
}

extern "C" {
void __wrap_platform_process_start()
{
    Step("platform_process_start", 0);
}
int __wrap_chdir(const char* path)
{
    return Step(std::string("chdir ") + path, g_process.iChdirResult);
}
int __wrap_ecore_init()
{
    return Step("ecore_init", 0);
}
void __wrap_ecore_main_loop_begin()
{
    Step("loop", 0);
    if (g_process.loop) {
        g_process.loop();
    }
}
void __wrap_ecore_main_loop_quit()
{
    Step("ecore_main_loop_quit", 0);
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
const std::string MAIN_FUNCTION = "service_main";  // as this program compiles it

const Line QUIT_BEGIN = MAIN.warning("billing_service_quit", "billing service will be quit");
const Line DELETE_BEGIN = MAIN.warning("billing_service_quit", "start delete g_pDbusMan");
const Line DELETE_END = MAIN.warning("billing_service_quit", " delete g_pDbusMan end");
const Line QUIT_END = MAIN.warning("billing_service_quit", " quit ecore_main_loop end");

class TheProcess : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        g_process = Process();
        m_oldMask = umask(022);
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

    EXPECT_THAT(g_process.steps, ElementsAre("platform_process_start", "chdir /", "construct",
                                             "Initialize", "ecore_init", "InitEcorePipe", "loop",
                                             "destruct", "ecore_main_loop_quit"));
    EXPECT_THAT(LoggedLines(), ElementsAre(QUIT_BEGIN, DELETE_BEGIN, DELETE_END, QUIT_END,
                                           MAIN.info(MAIN_FUNCTION, "--billing service quit!--")));
    EXPECT_EQ(g_pDbusMan, nullptr);
}

TEST_F(TheProcess, TellsItsVersionAndDoesNothingElse)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(RunMain({"billing-service", "--version"}), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "billing-service 1.2.3\n");
    EXPECT_THAT(g_process.steps, IsEmpty());
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
    g_process.iChdirResult = -1;

    EXPECT_EQ(RunMain(), 0);

    EXPECT_EQ(LoggedLines().front(),
              MAIN.error(MAIN_FUNCTION, "Failed to change working directory to root"));
    EXPECT_EQ(g_process.steps.back(), "ecore_main_loop_quit");
}

TEST_F(TheProcess, EndsAtOnceWithoutMemoryForTheFrontEnd)
{
    FailNothrowAllocation(1);

    EXPECT_EQ(RunMain(), 0);

    EXPECT_THAT(LoggedLines(),
                ElementsAre(MAIN.error(MAIN_FUNCTION, " create CDBusManager error!")));
    EXPECT_THAT(g_process.steps, ElementsAre("platform_process_start", "chdir /"));
}

TEST_F(TheProcess, DoesTheWholeTeardownInTheSignalHandler)
{
    g_process.loop = [] { raise(SIGTERM); };

    EXPECT_EQ(RunMain(), 0);

    EXPECT_THAT(LoggedLines(),
                ElementsAre(MAIN.info("sig_quit", "received SIGTERM signal 15"), QUIT_BEGIN,
                            DELETE_BEGIN, DELETE_END, QUIT_END, QUIT_BEGIN, QUIT_END,
                            MAIN.info(MAIN_FUNCTION, "--billing service quit!--")));
}

TEST_F(TheProcess, OnlyLogsAndQuitsAgainOnASecondSigterm)
{
    g_process.loop = [] {
        raise(SIGTERM);
        g_process.steps.clear();
        fake::platform().clearLog();
        raise(SIGTERM);
    };

    EXPECT_EQ(RunMain(), 0);

    EXPECT_THAT(g_process.steps, ElementsAre("ecore_main_loop_quit", "ecore_main_loop_quit"));
    EXPECT_THAT(LoggedLines(), ElementsAre(MAIN.info("sig_quit", "received SIGTERM signal 15"),
                                           QUIT_BEGIN, QUIT_END, QUIT_BEGIN, QUIT_END,
                                           MAIN.info(MAIN_FUNCTION, "--billing service quit!--")));
}

TEST_F(TheProcess, QuitsWithoutAFrontEnd)
{
    billing_service_quit();

    EXPECT_THAT(g_process.steps, ElementsAre("ecore_main_loop_quit"));
    EXPECT_THAT(LoggedLines(), ElementsAre(QUIT_BEGIN, QUIT_END));
}

}  // namespace
