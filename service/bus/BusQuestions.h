// BusQuestions.h - the open questions of the flow control.
#pragma once

#include "BusPort.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>

struct BusOpenQuestion {
    BusQuestion eKind;
    std::string strName;      ///< the caller that it is about; empty for a proof
    std::size_t uUnread = 0;  ///< bytes that the caller had not read when the question was sent
    gint64 iSince = 0;
};

/// Thread: one at a time; the user of this class serialises the calls.
class CBusQuestions {
public:
    explicit CBusQuestions(CBusPort& oPort);

    /// @return false when too many questions are open, or when it cannot be sent
    bool Ask(const BusOpenQuestion& tQuestion);
    /// Takes the question that an answer with this serial belongs to. Only the one that was asked may answer.
    /// @return nullopt when there is none
    std::optional<BusOpenQuestion> Take(guint32 uSerial, const std::string& strSender);
    /// @return when the oldest open question to the bus was sent; 0 when none is open
    gint64 OldestToBus() const;
    bool IsFull(BusQuestion eKind) const;

private:
    CBusPort& m_oPort;
    std::map<guint32, BusOpenQuestion> m_open;
};
