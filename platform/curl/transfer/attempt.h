// attempt.h - libcurl's handle while it performs a transfer, and what the callbacks note of it.
#pragma once

#include "connection.h"
#include "handles.h"
#include "options.h"

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace MZCurl {

struct Transfer;

/// What an answer may do.
enum class Growth {
    Wait,     // it has to wait for its turn
    ForNow,   // it may go on, and may have to wait later
    ForGood,  // it may go on to its end
};

/// What libcurl's callbacks ask of, and tell to, the one that performs a transfer. Thread: its own.
class Performer {
public:
    /// A socket was opened for the transfer.
    /// @return false without memory
    virtual bool opened(Transfer& transfer, curl_socket_t descriptor) = 0;

    /// The request is about to be sent over the connection with these ends.
    /// @return null; or the reason, a literal, why it must not be sent
    virtual const char* sending(Transfer& transfer, const Ends& ends) = 0;

    /// libcurl is about to send the request a second time in one attempt, because a kept connection was lost.
    /// @return whether it may
    virtual bool maySendAgain(Transfer& transfer) = 0;

    /// A piece of an answer has come over a connection that other answers share.
    virtual void moved() = 0;

    /// @param bytes length of the body as far as it is known
    virtual Growth mayGrow(Transfer& transfer, std::size_t bytes) = 0;

protected:
    ~Performer() = default;
};

/// Writer of everything without another name: callbacks. Its conditions are set anew for each attempt (rules.h).
struct Attempt {
    Attempt(const Options& options_, Transfer& transfer_, Performer& performer_)
        : options(options_), transfer(transfer_), performer(performer_)
    {
    }
    /// Puts the handle into the pool. Precondition: no multi handle of libcurl has it.
    ~Attempt();
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    const Options& options;
    Transfer& transfer;  // an incomplete type where callbacks run
    Performer& performer;

    EasyHandle curl;
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    bool attached = false;          // libcurl's multi handle has it; writer: the multi handle
    bool unshared = false;          // begun without a share: TLS sessions may be left in the handle
    std::shared_ptr<CURLSH> share;  // writer: SessionShare
    ConnectionUse use;

    std::size_t bodyBytes = 0;
    std::size_t toldBytes = 0;  // length of the body, as far as the server tells it
    std::string
        early;  // beginning of the body, kept while the answer may have to be asked for again
    bool postponed = false;  // it is to begin again when it has its ticket
    std::size_t headerBytes = 0;
    unsigned int sendings = 0;  // of the request, libcurl's own repetitions included
    std::chrono::steady_clock::time_point sent{};  // for the last time
    const char* refusal = nullptr;                 // why a callback ended it; a literal

    bool onlyHttp11 = false;      // writers: rules and the TLS bridge
    bool anonymous = false;       // no client certificate was installed; writer: TLS bridge
    bool offeredSession = false;  // the handshake began with an earlier session; writer: TLS bridge
};

}  // namespace MZCurl
