// platform/include/platform/MZCurl.h - HTTP transfers: one easy handle a transfer, one multi handle
// that runs many.
//
// One implementation serves every backend (platform/curl, on libcurl). It carries what makes the
// transfers safe: trust comes from the named CA file alone, nothing in the environment steers a
// transfer, a POST or DELETE has a connection of its own and is never sent twice, a GET that is lost
// with its connection is sent once more, no server can fill the memory, a header can not smuggle in
// another one, and handles may be added from any thread.
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

/// Takes size * nmemb bytes of the body. @return the bytes taken; another number ends the transfer
/// as a failure. What it throws ends the transfer likewise. Thread: the one that performs the
/// transfer.
using WriteCallback = unsigned int (*)(char* ptr, unsigned int size, unsigned int nmemb,
                                       void* userdata);

/// Prepares the TLS context of a new connection, an SSL_CTX: installs the client's certificate and
/// key. Where both are there when it returns, the connection is TLS 1.2 at most and the client signs
/// with PKCS#1 padding: the one form that a key store which pads by itself can give. Where one is
/// missing the connection carries this transfer alone and its session is not kept, so that no later
/// transfer is anonymous because this one was. It reports nothing, and what it throws goes nowhere
/// further. Thread: the one that performs the transfer.
using SslContextCallback = void (*)(void* sslctx, void* aux);

/// One transfer. Thread: one at a time; between addHandle and removeHandle it belongs to the multi
/// handle.
class MZCurlEasy {
public:
    MZCurlEasy();
    ~MZCurlEasy();
    MZCurlEasy(const MZCurlEasy&) = delete;
    MZCurlEasy& operator=(const MZCurlEasy&) = delete;

    /// Makes the handle usable. @return false when there is no memory, or when it was done before.
    bool Initialize();

    /// Sets an option. @return false, with getLastError() saying why, when the handle is not
    /// initialised, the option does not take that type of value, or the value is refused. Texts and
    /// lists are copied, but for MZCURL_OPT_POSTFIELDS.
    bool setOption(MZCURL_OPTION_TYPE eOption, int iValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, long lValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, long long llValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, const std::string& strValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, const std::list<std::string>& lstValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, WriteCallback pfnValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, SslContextCallback pfnValue);
    bool setOption(MZCURL_OPTION_TYPE eOption, void* pValue);

    /// Reads a pointer that belongs to the transfer. @return false, *ppOut untouched, when there is
    /// none to read.
    bool getInfo(MZCURL_INFO_TYPE eInfo, void** ppOut);

    /// Text of the last error of an option or of send(); empty when there was none.
    std::string getLastError() const;

    /// Performs the transfer on the calling thread and waits for its end.
    /// @return true when it completed, with whatever HTTP status
    bool send();

    /// Forgets every option; the handle stays initialised. Not while a multi handle has it.
    void reset();

private:
    friend class MZCurlMulti;
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

/// Runs many transfers on one worker thread.
///
/// Who may call what: addHandle() and Stop() any thread; everything else the worker, once Start()
/// has been called on it. The multi handle never owns an easy handle. An accepted handle is counted
/// as running from addHandle() to removeHandle(), whether it is waiting, transferring or finished:
/// so the loop "while running > 0" ends only when each one has been taken out, whatever the order
/// in which the threads do their part.
class MZCurlMulti {
public:
    /// One finished transfer.
    struct MultiMsg {
        MZCurlEasy* pEasyHandle = nullptr;  ///< null: no message left
        bool bSuccess = false;              ///< the transfer ended with result code 0
        int iResult = 0;                    ///< result code, a CURLcode
        std::string strError;  ///< its text, of this very transfer where libcurl has one
    };

    MZCurlMulti();
    ~MZCurlMulti();
    MZCurlMulti(const MZCurlMulti&) = delete;
    MZCurlMulti& operator=(const MZCurlMulti&) = delete;

    /// Makes the handle usable. First call of the process: on the main thread, before any other
    /// thread uses TLS.
    /// @return false when there is no memory; may be tried again. True, and nothing done, when it
    ///   was done before.
    bool Initialize();

    /// The calling thread is the worker from now on, and handles are accepted. May come before
    /// Initialize(): the handle then works as soon as that has succeeded.
    void Start();

    /// Ends it: a wait under way comes back at once, nothing is handed out any more, the running
    /// count reads 0, and no handle is accepted until the next Start(). Transfers under way are
    /// neither completed nor freed.
    void Stop();

    /// Hands a transfer over. It starts when the worker gets to it; a failure to start is a failed
    /// completion.
    /// @return false when not started, stopped, the handle is null, not initialised or has been
    ///   added before, or when there are too many transfers of its sender or to its path (16,384 of all, 10,922 and 13,107)
    bool addHandle(MZCurlEasy* pEasy);

    /// Names the sender on whose behalf the calling thread adds handles from now on; null: nobody's. No sender, and no path
    /// of a server, takes all of the slots from the others: what is over its share waits for its turn, for 20 s at most,
    /// and ends then as a failure with nothing sent. Thread: any.
    static void SetSender(const char* pszSender);

    /// Takes a handle out, in whatever state it is. @return false when it is null or was not added
    bool removeHandle(MZCurlEasy* pEasy);

    /// Takes over what has been added and counts. No network work is done here.
    /// @param[out] iRunning handles added and not yet removed; 0 once stopped
    bool Perform(int& iRunning);

    /// Waits until there is something to do, and does it. Comes back at once when nothing is
    /// running.
    /// @param[out] iRunning as above
    /// @return false when libcurl refused, iRunning being set all the same
    bool fdSelect(int& iRunning);

    /// Reads the next finished transfer. Each one is handed out once per fdSelect() until it is
    /// removed: a reader that was not ready for it gets it again.
    /// @return false when not initialised; true also when no message is left
    bool InfoRead(MultiMsg& tMsg);

    /// Releases what the TLS library holds for the calling thread: a worker calls it last.
    static void ThreadEnd();

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

/// Counts a body that has left the multi handle and is still in memory. A large answer is received only while few large
/// bodies are counted (quotas.h). Thread: any; a body is to be counted by the worker, before its next fdSelect().
/// @param uBytes its size
/// @return what counts it, until its last copy is gone; null for a body that is not large, and without memory
std::shared_ptr<void> CountBody(std::size_t uBytes) noexcept;

}  // namespace MZCurl
