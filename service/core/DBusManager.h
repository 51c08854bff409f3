// DBusManager.h - the service on the bus: its name, its object, its method calls and their replies.
#pragma once

#include "BillingEngine.h"

#include <gio/gio.h>

/// Process-wide count of calls that were handed to the engine and not answered yet. Main thread.
extern guint32 g_iPendingCallCount;

/// The one front end, made by main. Everything runs on the main thread.
class CDBusManager {
public:
    CDBusManager();
    /// Destroys the engine, where there is one. The name, the object and the node data stay until
    /// the process ends.
    virtual ~CDBusManager();
    CDBusManager(const CDBusManager&) = delete;
    CDBusManager& operator=(const CDBusManager&) = delete;

    /// Asks for the bus name; the object appears once the bus is there. @return false when the
    /// interface is not usable
    bool Initialize();
    /// Makes and starts the engine, with m_PipeCallback behind its pipe. @return false when there
    /// is no engine
    bool InitEcorePipe();

    /// Number of unanswered calls.
    static unsigned GetDbusProcessListNum();

    /// Releases name, node data and object, where there are any. Not part of the shutdown.
    void m_DestoryDbusConnection();

    static void m_BusAcquired(GDBusConnection* connection, const char* name, void* user_data);
    static void m_NameAcquired(GDBusConnection* connection, const char* name, void* user_data);
    static void m_NameLost(GDBusConnection* connection, const char* name, void* user_data);

    /// Hands a call to the engine. It answers nothing: the reply comes through the engine's pipe.
    static void m_HandleMethodCall(GDBusConnection* connection, const char* sender,
                                   const char* object_path, const char* interface_name,
                                   const char* method_name, GVariant* parameters,
                                   GDBusMethodInvocation* invocation, void* user_data);
    /// Answers a call. @param buffer holds one BILLING_RETURN_INFO_T*, which is deleted @param
    /// nbyte not looked at
    static void m_PipeCallback(void* data, void* buffer, unsigned int nbyte);

private:
    friend struct DBusManagerProbe;  // the tests' view

    GDBusNodeInfo* m_pBSBusNode;
    GDBusConnection* m_pBLConnection;  // not owned
    GDBusInterfaceVTable m_tInterfaceVTable;
    CBillingEngine* m_poEngine;
    guint32 m_pBSBusRegisterID;
    guint32 m_uBSBusOwnID;
};
