// platform/include/platform/MZCurl.h - HTTP transfers: one easy handle a transfer, one multi handle
// that runs many.
//
// One implementation serves every backend (platform/curl, on libcurl). It makes transfers safe:
// - trust comes from the named CA file alone; no environment variable has an effect
// - a POST or DELETE has a connection of its own and is never sent twice
// - a GET that is lost with its connection is sent once more
// - the memory for answers has a bound
// - a header that holds a line break is refused
// - handles may be added from any thread
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>

namespace MZCurl {

/// Options of a transfer, by the wrapper's own numbers.
enum MZCURL_OPTION_TYPE {
    MZCURL_OPT_RESERVED_1 = 1,         ///< int; accepted and ignored
    MZCURL_OPT_RESERVED_3 = 3,         ///< int; accepted and ignored
    MZCURL_OPT_POST = 16,              ///< int
    MZCURL_OPT_HTTPGET = 17,           ///< int
    MZCURL_OPT_TIMEOUT = 30,           ///< int, seconds for the whole transfer
    MZCURL_OPT_CONNECTTIMEOUT = 33,    ///< int, seconds for connecting, TLS included
    MZCURL_OPT_RESERVED_34 = 34,       ///< int; accepted and ignored
    MZCURL_OPT_SSL_VERIFYHOST = 38,    ///< int, 2 or 0
    MZCURL_OPT_SSL_VERIFYPEER = 39,    ///< int, 1 or 0; 0 also allows plain http
    MZCURL_OPT_POSTFIELDSIZE = 44,     ///< long long, bytes of the body
    MZCURL_OPT_CUSTOMREQUEST = 48,     ///< text, the method's name
    MZCURL_OPT_URL = 50,               ///< text; refused when it is http and names no host
    MZCURL_OPT_POSTFIELDS = 59,        ///< text, the body. NOT copied: it outlives the transfer
    MZCURL_OPT_CAINFO = 63,            ///< text, path of the CA bundle; the only trust there is
    MZCURL_OPT_SSLCERT = 66,           ///< text; empty means none
    MZCURL_OPT_SSLCERTTYPE = 67,       ///< text; empty means the default
    MZCURL_OPT_SSLKEY = 68,            ///< text; empty means none
    MZCURL_OPT_SSLKEYTYPE = 69,        ///< text; empty means the default
    MZCURL_OPT_HTTPHEADER = 75,        ///< list of texts; refused when one holds CR, LF or NUL
    MZCURL_OPT_WRITEFUNCTION = 78,     ///< WriteCallback
    MZCURL_OPT_SSL_CTX_FUNCTION = 83,  ///< SslContextCallback
    MZCURL_OPT_WRITEDATA = 86,         ///< pointer, last argument of the write callback
    MZCURL_OPT_SSL_CTX_DATA = 90,      ///< pointer, last argument of the TLS context callback
    MZCURL_OPT_PRIVATE = 92,           ///< pointer, read back with MZCURL_INFO_PRIVATE
};

enum MZCURL_INFO_TYPE {
    MZCURL_INFO_PRIVATE = 39,  ///< void*: what MZCURL_OPT_PRIVATE set
};

/// Takes size * nmemb bytes of the body.
/// @return the bytes taken; another number, or an exception, ends the transfer as a failure
/// Thread: the one that performs the transfer.
using WriteCallback = unsigned int (*)(char* ptr, unsigned int size, unsigned int nmemb,
                                       void* userdata);

/// Prepares the TLS context of a new connection, an SSL_CTX: installs the client's certificate and
/// key. With both installed the connection is TLS 1.2 at most and the client signs with PKCS#1
/// padding, the only form that a key store with padding of its own can give. Without one of them the
/// connection serves this transfer only and its session is not kept, so that no later transfer is
/// anonymous. There is no result; an exception is dropped.
/// Thread: the one that performs the transfer.
using SslContextCallback = void (*)(void* sslctx, void* aux);

/// One transfer. Thread: one at a time; between addHandle and removeHandle it belongs to the multi
/// handle.
class MZCurlEasy {
public:
    MZCurlEasy();
    ~MZCurlEasy();
    MZCurlEasy(const MZCurlEasy&) = delete;
    MZCurlEasy& operator=(const MZCurlEasy&) = delete;

    /// Makes the handle usable.
    /// @return false without memory, or when it was done before
    bool Initialize();

    /// Sets an option; libcurl gets it when the transfer begins. Texts and lists are copied, except
    /// MZCURL_OPT_POSTFIELDS.
    /// @return false when the handle is not initialised, the option does not take that type, or the
    ///   value is refused; getLastError() has the reason
    bool setOption(MZCURL_OPTION_TYPE eOption, int iValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, long lValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, long long llValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, const std::string& strValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, const std::list<std::string>& lstValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, WriteCallback pfnValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, SslContextCallback pfnValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, void* pValue);

    /// Reads a pointer that belongs to the transfer.
    /// @return false when there is none; *ppOut is untouched then
    bool getInfo(MZCURL_INFO_TYPE eInfo, void** ppOut);

    /// Text of the last error of an option or of send(); empty when there was none.
    std::string getLastError() const;

    /// Performs the transfer on the calling thread and waits for its end.
    /// @return true when it completed, with whatever HTTP status
    bool send();

    /// Removes all options; the handle stays initialised. Precondition: no multi handle has it.
    void reset();

private:
    friend class MZCurlMulti;
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

/// Runs many transfers on one worker thread.
///
/// Thread: any for addHandle() and Stop(); the worker, which has called Start(), for all others.
/// The multi handle never owns an easy handle. An accepted handle counts as running from addHandle()
/// to removeHandle(), whether it waits, transfers or is finished. The loop "while running > 0"
/// therefore ends only when all handles were removed, in whatever order the threads run.
class MZCurlMulti {
public:
    /// One finished transfer.
    struct MultiMsg {
        MZCurlEasy* pEasyHandle = nullptr;  ///< null: no message left
        bool bSuccess = false;              ///< the transfer ended with result code 0
        int iResult = 0;                    ///< result code, a CURLcode
        std::string strError;  ///< its text; libcurl's text for this transfer where there is one
    };

    MZCurlMulti();
    ~MZCurlMulti();
    MZCurlMulti(const MZCurlMulti&) = delete;
    MZCurlMulti& operator=(const MZCurlMulti&) = delete;

    /// Makes the handle usable. The first call of the process comes on the main thread, before any
    /// other thread uses TLS. A further call does nothing.
    /// @return false without memory; the call may be repeated
    bool Initialize();

    /// Makes the calling thread the worker and accepts handles from now on. It may come before
    /// Initialize(); transfers start after that has succeeded.
    void Start();

    /// Ends the work: a wait under way returns at once, InfoRead() has no messages, the running count
    /// is 0, and no handle is accepted until the next Start(). Transfers under way are neither
    /// completed nor freed.
    void Stop();

    /// Queues a transfer, which the worker starts. A failure to start is a failed completion.
    /// @return false when not started or stopped; when the handle is null, not initialised or already
    ///   added; or when too many transfers wait: 16,384 in all, 10,922 of a sender, 13,107 to a path
    bool addHandle(MZCurlEasy* pEasy);

    /// Names the sender of the handles that the calling thread adds from now on; null for none. Slots
    /// are shared among senders and among paths. A transfer over its share waits for at most 20 s and
    /// then fails with nothing sent.
    /// Thread: any.
    static void SetSender(const char* pszSender);

    /// Removes a handle in any state.
    /// @return false when it is null or was not added
    bool removeHandle(MZCurlEasy* pEasy);

    /// Adopts the added handles and counts. Does no network work.
    /// @param[out] iRunning handles added and not yet removed; 0 once stopped
    bool Perform(int& iRunning);

    /// Waits for work and does it. Returns at once when nothing is running.
    /// @param[out] iRunning as for Perform(), set in any case
    /// @return false when libcurl has failed
    bool fdSelect(int& iRunning);

    /// Reads the next finished transfer. Each one is returned once per fdSelect() until it is removed,
    /// so a reader that does not know it yet gets it again.
    /// @return false when not initialised; true also when no message is left
    bool InfoRead(MultiMsg& tMsg);

    /// Frees the TLS library's data of the calling thread. It is the last call of a worker.
    static void ThreadEnd();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

/// Counts a body that has left the multi handle and is still in memory. Large answers are received only while few large
/// bodies are counted (quotas.h).
/// @param uBytes its size
/// @return a token: the body counts until the last copy is destroyed; null for a small body, or without memory
/// Thread: any. The worker calls it before its next fdSelect().
std::shared_ptr<void> CountBody(std::size_t uBytes) noexcept;

}  // namespace MZCurl
