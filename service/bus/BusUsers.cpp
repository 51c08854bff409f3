// BusUsers.cpp - the log's lines about the users of callers.
#include "BusUsers.h"

#include "BillingLog.h"
#include "BusLimits.h"
#include "OnBehalf.h"

using namespace BusLimits;

void CBusUsers::Asked(const std::string& strName)
{
    m_order.push_back(strName);
    m_told.emplace(strName, false);
    if (m_order.size() > TOLD_CALLERS) {
        m_told.erase(m_order.front());
        m_order.pop_front();
    }
}

void CBusUsers::IsOf(const std::string& strName, guint32 uUser, gint64 iNow)
{
    const auto it = m_told.find(strName);
    if (it == m_told.end() || it->second) {
        return;
    }
    it->second = true;
    if (MayTell(uUser, iNow)) {
        const COnBehalf oOnBehalf(strName.c_str());
        BILLING_INFO_PLAIN("caller %s is of user %u", strName.c_str(), uUser);
    }
}

bool CBusUsers::MayTell(guint32 uUser, gint64 iNow)
{
    Lines& tLines = m_lines[uUser];
    if (tLines.iPeriod == 0 || iNow - tLines.iPeriod >= REPORT_PERIOD_MS) {
        if (tLines.uLeftOut > 0) {
            BILLING_INFO_PLAIN("%u more callers were of user %u", tLines.uLeftOut, uUser);
        }
        tLines = {iNow, 0, 0};
    }
    if (tLines.uTold >= TOLD_LINES) {
        ++tLines.uLeftOut;
        return false;
    }
    ++tLines.uTold;
    return true;
}
