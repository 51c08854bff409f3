// BusLedger.h - the account of each caller: bytes that were sent and are not known to be read, and
// replies that are held back.
#pragma once

#include "BusLimits.h"
#include "BusMessage.h"

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <unordered_map>

struct BusCaller;

/// A reply that is held back.
struct BusHeldReply {
    BusMessagePtr pMessage;
    std::size_t uBytes = 0;    ///< of the whole message, as estimated for the bus
    std::uint64_t uOrder = 0;  ///< order of arrival over all callers
    BusCaller* ptCaller = nullptr;
};

/// State of the log's lines about a caller that is held back.
enum class BusStory {
    NONE,
    ASKING,  ///< the bus is being asked for the caller's user
    TOLD,
    MUTED,  ///< the limit of the log (BusLimits::REPORTS) was reached
};

/// One caller. Times are milliseconds of the port's clock; 0 means never, or not planned.
struct BusCaller {
    std::string strName;
    std::size_t uUnread = 0;                        ///< bytes sent and not known to be read
    std::size_t uWindow = BusLimits::WINDOW_BYTES;  ///< unread bytes beyond which replies are held
    std::size_t uHeldBytes = 0;                     ///< memory of its held replies
    std::list<BusHeldReply> held;
    gint64 iLastSeen = 0;  ///< last reply sent to it, or last proof that it exists
    gint64 iProgress = 0;  ///< last proof that it reads; at first its first reply
    gint64 iHeldSince = 0;

    // The next question about the caller.
    bool bAsked = false;  ///< a question about it is open
    gint64 iAskedAt = 0;
    gint64 iAskAt = 0;
    gint64 iPause = 0;
    // Counted since its first held reply, for the log.
    BusStory eStory = BusStory::NONE;
    std::string strUser;
    unsigned uHeldReplies = 0;
    unsigned uRefusedReplies = 0;
};

/// Pure bookkeeping: it has no clock and sends nothing.
/// Thread: one at a time; the user of this class serialises the calls.
class CBusLedger {
public:
    /// @return the caller's account, created when there is none
    BusCaller& Of(const std::string& strName, gint64 iNow);
    /// @return null when there is none
    BusCaller* Find(const std::string& strName);
    /// Removes the caller and drops its held replies.
    /// @return how many replies were dropped
    std::size_t Forget(const std::string& strName);
    /// Removes the caller when it has nothing unread, held or asked.
    void ForgetIfSettled(BusCaller& tCaller);
    /// @return the idle caller that was answered longest ago, when more than BusLimits::KEPT_CALLERS are
    ///   remembered; null otherwise
    BusCaller* Superfluous();

    /// @return whether a reply of this size may be sent. Held replies of the caller go first.
    bool HasRoom(const BusCaller& tCaller, std::size_t uBytes) const;
    /// @return whether the reply would fit if the other callers had read everything. A reply larger than
    ///   the window fits when the caller has nothing unread.
    bool FitsWindow(const BusCaller& tCaller, std::size_t uBytes) const;
    void Sent(BusCaller& tCaller, std::size_t uBytes, gint64 iNow);
    /// Sets the number of unread bytes, as it was found out.
    void SetUnread(BusCaller& tCaller, std::size_t uUnread, gint64 iNow);

    void Hold(BusCaller& tCaller, BusMessagePtr pMessage, std::size_t uBytes, gint64 iNow);
    /// Takes the caller's next held reply and counts it as sent.
    /// @return null when there is none, or no room for it
    BusMessagePtr TakeNext(BusCaller& tCaller, gint64 iNow);
    /// @return whether more bytes are held than BusLimits::HELD_BYTES
    bool HoldsTooMuch() const;
    /// @return the held reply that is to be replaced by an error: the largest one of callers without
    ///   progress, else the largest of all; null when all are too small
    BusHeldReply* ToBeRefused(gint64 iNow) const;
    /// Replaces the message of a held reply.
    void Replace(BusHeldReply& tHeld, BusMessagePtr pMessage, std::size_t uBytes);
    /// Drops the caller's newest held reply.
    void DropLast(BusCaller& tCaller);

    std::size_t Unread() const { return m_uUnread; }
    std::size_t HeldBytes() const { return m_uHeldBytes; }
    std::unordered_map<std::string, BusCaller>& Callers() { return m_callers; }

private:
    struct LargestFirst {
        bool operator()(const BusHeldReply* ptLeft, const BusHeldReply* ptRight) const
        {
            return ptLeft->uBytes != ptRight->uBytes ? ptLeft->uBytes > ptRight->uBytes
                                                     : ptLeft->uOrder < ptRight->uOrder;
        }
    };

    void Weigh(BusHeldReply& tHeld);
    void Unweigh(BusHeldReply& tHeld);

    std::unordered_map<std::string, BusCaller> m_callers;
    std::set<BusHeldReply*, LargestFirst> m_refusable;
    std::size_t m_uUnread = 0;
    std::size_t m_uHeldBytes = 0;
    std::uint64_t m_uOrder = 0;
};
