// transfer.h - the data behind one easy handle: libcurl's handle, what its callbacks need, and its place in the multi handle.
#pragma once

#include "handles.h"
#include "headers.h"
#include "in_hand.h"

#include <platform/MZCurl.h>

#include <curl/curl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>

namespace MZCurl {

class Admission;
class Connections;
class Tickets;
struct Connection;
struct Host;
struct Lane;
struct Transfer;

/// Transfers in one state. A transfer's list node moves from list to list, so that only accepting a transfer needs memory.
using TransferList = std::list<Transfer*>;

/// How often a transfer was begun again, by reason (repeat.h).
struct Repeats {
    unsigned int lost = 0;
    unsigned int session = 0;
    unsigned int refused = 0;
    unsigned int postponed = 0;
};

/// What a transfer has and wants of the tickets (tickets.h).
struct TicketHold {
    Ticket has = Ticket::None;
    Ticket wants = Ticket::None;                  // it waits for this one
    std::chrono::steady_clock::time_point since;  // it has what it has
    std::chrono::steady_clock::time_point moved;  // when its body grew last
};

/// Thread: one at a time, as for MZCurlEasy.
struct Transfer {
    Transfer() = default;
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Creates libcurl's handle, or takes one from the pool, and sets the rules that no option can change.
    /// @return false when there is no memory
    bool initialize();

    /// Clears the options and sets the rules again; without memory for the rules the handle is freed.
    void reset();

    /// Clears the state of the previous transfer. Called once, when the transfer is handed over.
    void start();

    /// Prepares an attempt. Called at the beginning of each.
    /// @param fresh true: uses a new connection even if one is kept
    void begin(bool fresh);

    /// @return whether the request may be sent again: a GET, which changes nothing on the server
    bool mayBeSentAgain() const { return !sendsBody && !namesMethod; }

    /// @return text for the result of a transfer; empty for success
    std::string resultText(CURLcode code) const;

    /// Records the reason of a failure.
    /// @return false
    bool fail(const char* reason);

    Headers headers;  // libcurl reads it until the very end
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    EasyHandle curl;
    bool pristine = false;  // nothing was set or sent with the handle since its reset
    bool lonely = false;    // it has made an attempt without a share: sessions may be left in it
    std::string lastError;

    // set by options
    std::string url;
    std::string caFile;
    WriteCallback write = nullptr;
    void* writeData = nullptr;
    SslContextCallback sslContext = nullptr;
    void* sslContextData = nullptr;
    void* userPointer = nullptr;
    std::chrono::milliseconds timeout{0};  // for all attempts together; 0: none
    bool sendsBody = false;
    bool namesMethod = false;

    // of the transfer under way
    std::chrono::steady_clock::time_point started;
    Repeats repeats;

    // of the attempt under way
    std::size_t bodyBytes = 0;
    std::size_t toldBytes = 0;  // length of the body, as far as the server tells it
    std::string
        early;  // beginning of the body, kept while the answer may have to be asked for again
    bool paused = false;     // libcurl reads no more of it
    bool postponed = false;  // it is to begin again when it has its ticket
    std::size_t headerBytes = 0;
    unsigned int sendings = 0;  // of the request, libcurl's own repetitions included
    std::chrono::steady_clock::time_point sent{};  // for the last time
    bool onlyHttp11 = false;
    bool offeredSession = false;  // the handshake began with a TLS session of an earlier one
    bool keptConnection = false;  // another request went over the connection before
    bool crowded = false;         // libcurl chose an HTTP/1.1 connection with a request under way
    Connections* connections = nullptr;      // has its connection; null without a multi handle
    std::shared_ptr<Connection> connection;  // while its request is under way
    const char* refusal = nullptr;           // why one of our callbacks ended it; a literal

    // kept by the multi handle that has it
    std::atomic<const void*> owner{nullptr};
    MZCurlEasy* easy = nullptr;
    TransferList* home = nullptr;
    TransferList::iterator node;
    std::string hostKey;
    Host* host = nullptr;
    Lane* lane = nullptr;
    std::chrono::steady_clock::time_point queued;  // in its lane
    bool hasSlot = false;
    bool countsAtHost = false;       // among the requests under way to its host
    bool resolving = false;          // the name of its server, as far as is known
    Admission* admission = nullptr;  // while it is attached
    Tickets* tickets = nullptr;      // while it is attached
    TicketHold ticket;
    std::shared_ptr<CURLSH> share;  // while it is attached
    bool* http2Moved = nullptr;     // to be set when a piece of an HTTP/2 response comes
    bool attached = false;
    std::chrono::steady_clock::time_point due;  // when it is begun again
    unsigned int number = 0;  // among those that the multi handle has begun; 0 before
    CURLcode result = CURLE_OK;
    const char* startFailure = nullptr;  // why it could not be attached; a literal

private:
    bool applyRules();
    bool applyOwnRules();
};

/// Moves a transfer to the end of another list.
void moveTo(Transfer& transfer, TransferList& list);

}  // namespace MZCurl
