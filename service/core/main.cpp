// main.cpp - the process: start, run, stop.
#include "BillingLog.h"
#include "DBusManager.h"

#include <platform/process.h>

#include <Ecore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

// billingctl status searches the program's file for this text: it learns the version without running it.
[[gnu::used]] const char VERSION_TEXT[] = "billing-service-version=" BILLING_VERSION;

bool isAskedForVersion(int count, char** arguments)
{
    return count == 2 && std::strcmp(arguments[1], "--version") == 0;
}

}  // namespace

// Null before the front end exists and after billing_service_quit has deleted it.
CDBusManager* g_pDbusMan = nullptr;

void billing_service_quit()
{
    BILLING_WARN("billing service will be quit");
    if (g_pDbusMan != nullptr) {
        BILLING_WARN("start delete g_pDbusMan");
        delete g_pDbusMan;
        g_pDbusMan = nullptr;
        BILLING_WARN(" delete g_pDbusMan end");
    }
    ecore_main_loop_quit();
    BILLING_WARN(" quit ecore_main_loop end");
}

// Runs only while the main thread waits for events: the platform blocks SIGTERM at all other times. So the
// handler may do the whole shutdown, since the thread holds no lock and no object is half changed.
void sig_quit(int iSignal)
{
    BILLING_INFO("received SIGTERM signal %d", iSignal);
    billing_service_quit();
}

int main(int count, char** arguments)
{
    if (isAskedForVersion(count, arguments)) {
        std::printf("billing-service %s\n", std::strchr(VERSION_TEXT, '=') + 1);
        return 0;
    }
    platform_process_start();
    signal(SIGTERM, sig_quit);
    umask(0);
    if (chdir("/") != 0) {
        BILLING_ERROR("Failed to change working directory to root");
    }
    g_pDbusMan = new (std::nothrow) CDBusManager();
    if (g_pDbusMan == nullptr) {
        BILLING_ERROR(" create CDBusManager error!");
        return 0;
    }
    g_pDbusMan->Initialize();
    // The platform's replacement: it calls Ecore's ecore_init and keeps the handler of SIGTERM.
    ecore_init();
    g_pDbusMan->InitEcorePipe();
    ecore_main_loop_begin();
    billing_service_quit();
    BILLING_INFO("--billing service quit!--");
    return 0;
}
