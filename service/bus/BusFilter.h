// BusFilter.h - puts the flow control between the bus library and the service's bus connection.
#pragma once

#include "BusBacklog.h"
#include "BusFlow.h"

#include <gio/gio.h>

#include <memory>
#include <mutex>
#include <random>

/// Sees each incoming and outgoing message of a connection, those of the bus library itself included.
/// Thread: messages pass on the bus library's thread, the timer runs on the main loop.
class CBusFilter : private CBusPort {
public:
    /// Installs a filter for the life of the connection. Precondition: no method call has come in yet.
    static void Install(GDBusConnection* pConnection);

private:
    explicit CBusFilter(GDBusConnection* pConnection);
    ~CBusFilter() override;

    static GDBusMessage* OnMessage(GDBusConnection* pConnection, GDBusMessage* pMessage,
                                   gboolean bIncoming, gpointer pFilter) noexcept;
    static gboolean OnTimer(gpointer pFilter) noexcept;
    static void OnEnd(gpointer pFilter);

    void Incoming(BusMessagePtr& pMessage);
    void Outgoing(BusMessagePtr& pMessage);
    bool IsOneTooMany(GDBusMessage* pCall, const std::string& strSender);
    void Refuse(GDBusMessage* pCall, std::size_t uBytes);

    gint64 Now() const override;
    guint32 Random() override;
    bool Ask(BusQuestion eKind, const std::string& strName, guint32 uSerial) override;
    void Release(GDBusMessage* pMessage) override;
    void WakeAt(gint64 iTime) override;
    void GiveBack() override;
    void EndService() override;
    void StopTimer();

    GDBusConnection* m_pConnection;  // owns this filter
    std::mutex m_oLock;              // guards the flow and the timer
    CBusFlow m_oFlow;
    const std::shared_ptr<CBusBacklog> m_pBacklog = CBusBacklog::Make();
    GSource* m_pTimer = nullptr;
    gint64 m_iTimerAt = 0;
    std::random_device m_oRandom;
};
