// BusLedger.h - what the service has sent to each caller that is not known to be read, and what waits
// for each of them.
#pragma once

#include "BusLimits.h"
#include "BusMessage.h"

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <unordered_map>

struct BusCaller;

/// A reply that waits.
struct BusHeldReply {
    BusMessagePtr pMessage;
    std::size_t uBytes = 0;    ///< on the bus
    std::uint64_t uOrder = 0;  ///< counts up over all callers
    BusCaller* ptCaller = nullptr;
};

/// What the log has been told of a caller that is held back.
enum class BusStory {
    NONE,
    ASKING,  ///< whose it is, is being asked
    TOLD,
    MUTED,  ///< there are too many stories
};

/// One caller. Times are milliseconds of the port's clock; 0 is "never" and "not planned".
struct BusCaller {
    std::string strName;
    std::size_t uUnread = 0;                        ///< bytes sent and not known to be read
    std::size_t uWindow = BusLimits::WINDOW_BYTES;  ///< bytes that may be unread before one waits
    std::size_t uHeldBytes = 0;  ///< what its waiting replies take in the service
    std::list<BusHeldReply> held;
    gint64 iLastSeen = 0;  ///< when it was last sent something, or found to be there
    gint64 iProgress = 0;  ///< when it was last seen to read, or appeared
    gint64 iHeldSince = 0;

    // What the flow control plans for it.
    bool bAsked = false;  ///< a question about it is under way
    gint64 iAskedAt = 0;
    gint64 iAskAt = 0;
    gint64 iPause = 0;
    // What has become of its replies since the first of them had to wait, and what the log knows.
    BusStory eStory = BusStory::NONE;
    std::string strUser;
    unsigned uHeldReplies = 0;
    unsigned uRefusedReplies = 0;
};

/// Holds no clock and sends nothing: every operation says what is to be done.
/// Thread: one at a time; the caller sees to it.
class CBusLedger {
public:
    /// The caller's account, made at need.
    BusCaller& Of(const std::string& strName, gint64 iNow);
    /// @return null when there is none
    BusCaller* Find(const std::string& strName);
    /// Forgets the caller and drops what waits for it. @return how many replies that were
    std::size_t Forget(const std::string& strName);
    /// Forgets it if there is nothing to remember.
    void ForgetIfSettled(BusCaller& tCaller);
    /// The caller that was answered longest ago and may be forgotten, if more are remembered than
    /// BusLimits::KEPT_CALLERS. Null otherwise.
    BusCaller* Superfluous();

    /// May a reply of that size go out? Those that wait go first.
    bool HasRoom(const BusCaller& tCaller, std::size_t uBytes) const;
    /// Would it fit if the other callers had read everything? A reply larger than the window goes out
    /// when nothing else is unread.
    bool FitsWindow(const BusCaller& tCaller, std::size_t uBytes) const;
    void Sent(BusCaller& tCaller, std::size_t uBytes, gint64 iNow);
    /// So many bytes are not read, as is known now.
    void SetUnread(BusCaller& tCaller, std::size_t uUnread, gint64 iNow);

    void Hold(BusCaller& tCaller, BusMessagePtr pMessage, std::size_t uBytes, gint64 iNow);
    /// Takes the next waiting reply, counted as sent, when there is room for it. Null otherwise.
    BusMessagePtr TakeNext(BusCaller& tCaller, gint64 iNow);
    /// More waits than the service keeps.
    bool HoldsTooMuch() const;
    /// The waiting reply that is to become an error: the largest of those whose callers have made no
    /// progress, or the largest of all. Null when none is worth it.
    BusHeldReply* ToBeRefused(gint64 iNow) const;
    /// Puts another message in the place of a waiting one.
    void Replace(BusHeldReply& tHeld, BusMessagePtr pMessage, std::size_t uBytes);
    /// Drops the reply that was held last.
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
