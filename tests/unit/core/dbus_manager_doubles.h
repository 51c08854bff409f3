// dbus_manager_doubles.h - fixture of the CDBusManager tests, with doubles of the engine and of GIO's bus
// calls.
#pragma once

#include "DBusManager.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

struct DBusManagerProbe {
    static GDBusNodeInfo* node(const CDBusManager& o) { return o.m_pBSBusNode; }
    static guint32 ownId(const CDBusManager& o) { return o.m_uBSBusOwnID; }
    static guint32 registerId(const CDBusManager& o) { return o.m_pBSBusRegisterID; }
    static GDBusConnection* connection(const CDBusManager& o) { return o.m_pBLConnection; }
    static CBillingEngine* engine(const CDBusManager& o) { return o.m_poEngine; }
    static const GDBusInterfaceVTable& vtable(const CDBusManager& o)
    {
        return o.m_tInterfaceVTable;
    }
};

/// Answers and arguments of GIO's functions. Each call is a note in the timeline.
struct BusDouble {
    bool bXmlFails = false;
    guint uOwnId = 7;
    guint uRegisterId = 3;
    GBusNameOwnerFlags eFlags = G_BUS_NAME_OWNER_FLAGS_REPLACE;
    gpointer pOwnData = nullptr;
    GDBusConnection* pFiltered = nullptr;
    GDBusConnection* pConnection = nullptr;  ///< of the object
    GDBusInterfaceInfo* ptInterface = nullptr;
    const GDBusInterfaceVTable* ptVTable = nullptr;
    gpointer pRegisterData = nullptr;
    std::string strSender = ":1.5";
    void* pAnswered = nullptr;
};
BusDouble& Bus();

/// Answers and arguments of the engine's functions. Each call is a note in the timeline.
struct EngineDouble {
    bool bResult = true;
    std::function<void()> fails;
    CBillingItem oItem;
    std::string strText;
    void* pUser = nullptr;
    void* pPipeData = nullptr;
};
EngineDouble& Engine();

inline const LinesOf MANAGER{"DBusManager.cpp"};

class ADBusManager : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    GDBusMethodInvocation* invocation()
    {
        return reinterpret_cast<GDBusMethodInvocation*>(&m_invocation);
    }

    /// Delivers a call from the bus.
    /// @param szParameters in the text form of a GVariant
    void call(const char* szMethod, const char* szParameters);

    /// Delivers a result through the pipe.
    /// @param data argument of the pipe's reader
    void deliver(void* data, int iResult, const std::string& strInfo, void* pUser);

    CDBusManager m_oManager;
    CDBusManager* m_pManager = &m_oManager;
    int m_invocation = 0;
};
