// multi.h - the multi handle's inside: where each transfer stands, and who moves it on.
//
//   add --> pending --> (waiting at the gate) --> (in a lane) --> active --> ready <--> given --> removed
//               later <-------------- begun again <-------------------'
//           postponed <---------'
//
// Only `pending` is touched by other threads; the rest belongs to the worker. A finished transfer
// is ready to be handed out; once handed out it is given, and ready again in the next round: a
// reader that could not take it yet finds it then.
#pragma once

#include "admission.h"
#include "connections.h"
#include "gate.h"
#include "repeat.h"
#include "share.h"
#include "tickets.h"
#include "transfer.h"

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace MZCurl {

struct MZCurlMulti::Impl {
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

    /// Takes over what other threads have added.
    void adopt();
    /// Waits, performs, and collects what has ended. @return false when libcurl refused
    bool select();
    /// The next one to be handed out, null when none is left.
    Transfer* next();
    /// The count that callers see.
    int running();

private:
    struct Cleanup {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };

    using Multi = std::unique_ptr<CURLM, Cleanup>;

    static Multi newMulti();
    bool stopped();
    /// Waits for something to do, so many milliseconds at most. @return false when libcurl refused
    bool wait(int limit);
    void offerAgain();
    int waitLimit() const;
    void letThrough();
    void giveSlots();
    void giveTickets();
    void goOn(Transfer& transfer);
    void cutOff(Transfer& transfer, const char* reason);
    void attach(Transfer& transfer);
    void detach(Transfer& transfer);
    void finish(Transfer& transfer, CURLcode result);
    void beginAgain(Transfer& transfer, Again reason);
    void collect();
    void takeOut(Transfer& transfer);
    bool endBurst();

    SessionShare m_share;
    Connections m_connections;
    Multi m_multi;  // replaced by the worker under the lock, when no transfer is attached

    Admission m_admission;  // in part guarded by the lock
    std::mutex m_lock;      // guards the following seven
    bool m_started = false;
    bool m_stopped = false;
    std::size_t m_added = 0;
    std::size_t m_most = 0;  // of m_added, since memory was given back
    TransferList m_pending;
    bool m_waits = false;  // the worker does: an addition has to wake it
    HostKey m_lastKey;

    unsigned int m_transfers = 0;  // begun so far
    Gate m_gate;
    Tickets m_tickets;
    TransferList m_later;      // to be begun again when they are due
    TransferList m_postponed;  // to be begun again when they have their tickets
    TransferList m_going;      // to be queued next
    TransferList m_active;
    TransferList m_ready;
    TransferList m_given;
    bool m_begun = false;  // a transfer was attached that libcurl has not looked at yet
    bool m_http2Moved = false;
};

}  // namespace MZCurl
