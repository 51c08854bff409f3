// pkcs11_proxy.h - a PKCS#11 module in front of the software token's. It counts calls and has faults on
// demand.
#pragma once

#include <atomic>

namespace proxy {

enum class Fault {
    None,
    ShortBlock,      ///< signatures miss their last byte
    WrongBlock,      ///< signatures have one bit changed
    NoRawRsa,        ///< CKM_RSA_X_509 is not offered
    RawRsaListed,    ///< CKM_RSA_X_509 is offered and then refused
    RawRsaDecrypts,  ///< CKM_RSA_X_509 is offered, and not for signing
    RemovedOnce,     ///< the next signature finds the device removed and loses the session
    Removed,         ///< every signature finds the device removed
    FunctionFailed,  ///< every signature fails without a reason
    OneAtATime,      ///< a search gives one object at a time
    MoreThanRoom,    ///< a search tells that it gave more objects than there was room for
    WithoutEnd,      ///< a search gives the same object again and again
    ManySlots,       ///< there are more slots than any memory holds
    OneSlot,         ///< one slot has a token
    SlotAdded,       ///< a slot gets a token between its count and the list, once
    SlotsGrow,       ///< a slot gets a token between each count and its list
    SlotGone,        ///< a slot loses its token between the count and the list
    SlotsBeyond,     ///< the list of slots tells that it is longer than its room
    NoStart,         ///< the module does not start
    CannotLock,      ///< a start that asks for locks is refused
    NulPadded,       ///< the label of a token is padded with NUL
    OtherToken,      ///< every token has another label
    Twins,           ///< every token has the label "twin"
    RoundedLengths,  ///< the asked length of an attribute is more than its value has
    SearchFails,     ///< a search finds the token without memory
    UnnamedAnswer,   ///< every signature fails with an answer of the vendor's own
    PinLocked,       ///< a login finds the PIN locked
    PinLength,       ///< a login finds the PIN too short or too long
    PinFinalTry,     ///< the token says that one more wrong PIN locks it
    ErrorsLeft,      ///< a signature is made, and leaves an error in OpenSSL's queue
};

/// Counters of the module and switches of the test. The object belongs to the module; kControlSymbol is
/// its symbol.
struct Control {
    std::atomic<Fault> fault{Fault::None};
    std::atomic<int> delayMs{0};  ///< least duration of a signature
    std::atomic<int> logins{0};
    std::atomic<int> sessions{0};
    std::atomic<int> openSessions{0};
    std::atomic<int> mostSessions{0};  ///< largest number of open sessions at once
    std::atomic<int> signatures{0};
    std::atomic<unsigned long> sessionFlags{0};  ///< of the last session that was opened
    std::atomic<unsigned long> startFlags{
        0};                          ///< of the last start of the module; 0 without arguments
    std::atomic<int> inside{0};      ///< threads in C_Sign
    std::atomic<int> mostInside{0};  ///< largest number of threads at once
};

constexpr const char* kControlSymbol = "test_pkcs11_proxy_control";
/// Variable with the path of the module behind the proxy. The daemon does not clear it, nor the next one.
constexpr const char* kRealVariable = "PKCS11_PROXY_REAL";
/// Variable with a folder, for a test in another process. Its file "fault", if any, has the name of a
/// fault and a delay in milliseconds. Each call appends a line to its file "calls".
constexpr const char* kFolderVariable = "PKCS11_PROXY_FOLDER";

}  // namespace proxy
