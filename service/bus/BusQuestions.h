// BusQuestions.h - the service's own questions that have no answer yet.
#pragma once

#include "BusPort.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>

struct BusOpenQuestion {
    BusQuestion eKind;
    std::string strName;      ///< the caller that it is about; empty for a proof
    std::size_t uUnread = 0;  ///< what the caller had not read when it was asked
    gint64 iSince = 0;
};

/// Thread: one at a time; the caller sees to it.
class CBusQuestions {
public:
    explicit CBusQuestions(CBusPort& oPort);

    /// @return false when too many are under way, or when it cannot be sent
    bool Ask(const BusOpenQuestion& tQuestion);
    /// Takes the question that this is the answer to. Only who was asked may answer.
    /// @return nullopt when there is none
    std::optional<BusOpenQuestion> Take(guint32 uSerial, const std::string& strSender);
    /// When the oldest question to the bus was asked; 0 when none is under way.
    gint64 OldestToBus() const;
    bool IsFull(BusQuestion eKind) const;

private:
    CBusPort& m_oPort;
    std::map<guint32, BusOpenQuestion> m_open;
};
