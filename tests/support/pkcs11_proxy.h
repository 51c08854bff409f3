// pkcs11_proxy.h - a PKCS#11 module that stands before the software token's, counts what it is asked
// and goes wrong on demand.
#pragma once

#include <atomic>

namespace proxy {

enum class Fault {
    None,
    ShortBlock,      ///< signatures miss their last byte
    WrongBlock,      ///< signatures have one bit changed
    NoRawRsa,        ///< CKM_RSA_X_509 is not offered
    RawRsaListed,    ///< CKM_RSA_X_509 is offered and then refused
    RemovedOnce,     ///< the next signature finds the device removed; the session is gone then
    Removed,         ///< every signature finds the device removed
    FunctionFailed,  ///< every signature fails without a reason
    OneAtATime,      ///< a search gives one object at a time
    MoreThanRoom,    ///< a search tells that it gave more objects than there was room for
    WithoutEnd,      ///< a search gives the same object again and again
    ManySlots,       ///< there are more slots than any memory holds
    PinLocked,       ///< a login finds the PIN locked
    PinLength,       ///< a login finds the PIN too short or too long
    PinFinalTry,     ///< the token says that one more wrong PIN locks it
    ErrorsLeft,      ///< a signature is made, and leaves an error in OpenSSL's queue
};

/// Filled by the module, set by the test. The module's own: found with its symbol kControlSymbol.
struct Control {
    std::atomic<Fault> fault{Fault::None};
    std::atomic<int> delayMs{0};  ///< how long a signature takes at least
    std::atomic<int> logins{0};
    std::atomic<int> sessions{0};
    std::atomic<int> signatures{0};
    std::atomic<int> inside{0};      ///< threads in C_Sign
    std::atomic<int> mostInside{0};  ///< most of them at once
};

constexpr const char* kControlSymbol = "test_pkcs11_proxy_control";
/// Names the module behind it. These variables are among those that the daemon keeps.
constexpr const char* kRealVariable = "PKCS11_PROXY_REAL";
/// Names a folder, for a test that is another process: a file "fault" there, when there is one, holds
/// a fault's name and a delay in milliseconds, and each call appends its line to "calls".
constexpr const char* kFolderVariable = "PKCS11_PROXY_FOLDER";

}  // namespace proxy
