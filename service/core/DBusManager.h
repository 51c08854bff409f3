// DBusManager.h - the service on the bus: its name, its object, its methods and their replies.
#pragma once

#include "BillingEngine.h"

#include <gio/gio.h>

/// Calls that were handed to the engine and not answered yet, process-wide. Thread: main.
extern guint32 g_iPendingCallCount;

/// The bus front end; main creates the only one. Thread: main.
class CDBusManager {
public:
    CDBusManager();
    /// Destroys the engine, if there is one. Bus name, object and node data stay until the process ends.
    virtual ~CDBusManager();
    CDBusManager(const CDBusManager&) = delete;
    CDBusManager& operator=(const CDBusManager&) = delete;

    /// Requests the bus name; the object is registered when the bus is connected.
    /// @return false when the interface's XML cannot be used
    bool Initialize();
    /// Creates and starts the engine; its pipe calls m_PipeCallback.
    /// @return false when there is no engine
    bool InitEcorePipe();

    /// @return number of unanswered calls
    static unsigned GetDbusProcessListNum();

    /// Releases name, node data and object, as far as they exist. The shutdown does not call it.
    void m_DestoryDbusConnection();

    static void m_BusAcquired(GDBusConnection* connection, const char* name, void* user_data);
    static void m_NameAcquired(GDBusConnection* connection, const char* name, void* user_data);
    static void m_NameLost(GDBusConnection* connection, const char* name, void* user_data);

    /// Hands a call to the engine. The reply comes later, through the engine's pipe.
    static void m_HandleMethodCall(GDBusConnection* connection, const char* sender,
                                   const char* object_path, const char* interface_name,
                                   const char* method_name, GVariant* parameters,
                                   GDBusMethodInvocation* invocation, void* user_data);
    /// Answers a call.
    /// @param buffer holds one BILLING_RETURN_INFO_T*, which is deleted
    /// @param nbyte ignored
    static void m_PipeCallback(void* data, void* buffer, unsigned int nbyte);

private:
    friend struct DBusManagerProbe;  // access for the tests

    GDBusNodeInfo* m_pBSBusNode;
    GDBusConnection* m_pBLConnection;  // not owned
    GDBusInterfaceVTable m_tInterfaceVTable;
    CBillingEngine* m_poEngine;
    guint32 m_pBSBusRegisterID;
    guint32 m_uBSBusOwnID;
};
