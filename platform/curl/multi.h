// multi.h - the implementation of the multi handle: the state of each transfer and its transitions.
//
//   add --> pending --> (waiting at the gate) --> (in a lane) --> active --> ready <--> given --> removed
//               later <-------------- begun again <-------------------'
//           postponed <---------'
//
// Other threads touch only `pending`; the rest belongs to the worker. A finished transfer is `ready`; when it was handed out
// it is `given`, and `ready` again in the next round, in case its owner could not take it out yet.
#pragma once

#include "curl/connection/connections.h"
#include "curl/connection/share.h"
#include "curl/queue/admission.h"
#include "curl/queue/gate.h"
#include "curl/queue/tickets.h"
#include "curl/transfer/repeat.h"
#include "curl/transfer/rules.h"
#include "curl/transfer/transfer.h"

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace MZCurl {

struct MZCurlMulti::Impl final : private Performer {
    Impl() = default;
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool initialize();
    bool isInitialized();
    void start();
    void stop();
    bool add(MZCurlEasy& easy, Transfer& transfer, const std::string& sender);
    bool remove(Transfer& transfer);

    /// Takes over the transfers that other threads have added.
    void adopt();
    /// Waits, performs, and collects the transfers that have ended.
    /// @return false when libcurl failed
    bool select();
    /// @return the next finished transfer; null when there is none
    Transfer* next();
    /// @return number of transfers that are not taken out; 0 when stopped
    int running();

private:
    struct Cleanup {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };

    using Multi = std::unique_ptr<CURLM, Cleanup>;

    // What libcurl's callbacks ask and tell (events.cpp).
    bool opened(Transfer& transfer, curl_socket_t descriptor) override;
    const char* sending(Transfer& transfer, const Ends& ends) override;
    bool maySendAgain(Transfer& transfer) override;
    void moved() override { m_http2Moved = true; }
    Growth mayGrow(Transfer& transfer, std::size_t bytes) override;

    static Multi newMulti();
    bool stopped();
    /// Waits for something to do.
    /// @param limit milliseconds at most
    /// @return false when libcurl failed
    bool wait(int limit);
    void offerAgain();
    int waitLimit() const;
    void letThrough();
    void giveSlots();
    void giveTickets();
    void goOn(Transfer& transfer);
    void cutOff(Transfer& transfer, const char* reason);
    void attach(Transfer& transfer);
    void failToStart(Transfer& transfer, const char* reason, CURLcode code);
    void detach(Transfer& transfer);
    void release(Transfer& transfer);
    void finish(Transfer& transfer, CURLcode result);
    void beginAgain(Transfer& transfer, Again reason);
    void collect();
    void takeOut(Transfer& transfer);
    bool endBurst();

    SessionShare m_share;
    Connections m_connections;
    Multi m_multi;  // the worker replaces it, with the lock, when no transfer is attached

    Admission m_admission;  // partly guarded by the lock
    std::mutex m_lock;      // guards the next seven
    bool m_started = false;
    bool m_stopped = false;
    std::size_t m_added = 0;
    std::size_t m_most = 0;  // largest m_added since memory was returned
    TransferList m_pending;
    bool m_waits = false;  // the worker waits: an addition has to wake it
    HostKey m_lastKey;

    unsigned int m_transfers = 0;  // number of transfers begun so far
    Gate m_gate;
    Tickets m_tickets;
    TransferList m_later;      // begun again when they are due
    TransferList m_postponed;  // begun again when they have their tickets
    TransferList m_going;      // queued next
    TransferList m_active;
    TransferList m_ready;
    TransferList m_given;
    bool m_begun = false;  // a transfer was attached since libcurl's last round
    bool m_http2Moved = false;
};

}  // namespace MZCurl
