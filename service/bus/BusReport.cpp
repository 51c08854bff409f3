// BusReport.cpp - the log's lines about callers that are held back or refused.
#include "BusReport.h"

#include "BillingLog.h"
#include "BusLedger.h"
#include "BusLimits.h"
#include "OnBehalf.h"

using namespace BusLimits;

namespace {

std::string Who(const std::string& strName, const std::string& strUser)
{
    return strName + " (user " + strUser + ")";
}

}  // namespace

bool CBusReport::MayBegin(gint64 iNow)
{
    if (m_iPeriod == 0 || iNow - m_iPeriod >= REPORT_PERIOD_MS) {
        if (m_uLeftOut > 0) {
            BILLING_WARN("%u more callers were held back or refused", m_uLeftOut);
        }
        m_iPeriod = iNow;
        m_uBegun = 0;
        m_uLeftOut = 0;
    }
    if (m_uBegun >= REPORTS) {
        ++m_uLeftOut;
        return false;
    }
    ++m_uBegun;
    return true;
}

void CBusReport::HeldBack(const BusCaller& tCaller) const
{
    const COnBehalf oOnBehalf(tCaller.strName.c_str());
    BILLING_WARN("caller %s is held back: it has not read %zu bytes, %zu answers wait for it",
                 Who(tCaller.strName, tCaller.strUser).c_str(), tCaller.uUnread,
                 tCaller.held.size());
}

void CBusReport::GoesOn(const BusCaller& tCaller) const
{
    const COnBehalf oOnBehalf(tCaller.strName.c_str());
    BILLING_WARN("caller %s goes on: %u answers had to wait, %u of them were refused",
                 Who(tCaller.strName, tCaller.strUser).c_str(), tCaller.uHeldReplies,
                 tCaller.uRefusedReplies);
}

void CBusReport::HasLeft(const BusCaller& tCaller) const
{
    const COnBehalf oOnBehalf(tCaller.strName.c_str());
    BILLING_WARN("caller %s has left: %zu answers that waited for it are dropped",
                 Who(tCaller.strName, tCaller.strUser).c_str(), tCaller.held.size());
}

void CBusReport::AsksCallers(const char* szError) const
{
    BILLING_ERROR(
        "the bus does not tell what its clients have not read (%s), the callers are asked: "
        "its policy should allow this user GetConnectionStats",
        szError);
}

void CBusReport::AsksNobody(const char* szError) const
{
    BILLING_ERROR(
        "neither the bus nor its clients tell what is not read (%s), a caller that reads nothing "
        "can stop the service: the bus policy should allow this user GetConnectionStats and Ping",
        szError);
}

void CBusReport::BusIsSilent() const
{
    BILLING_ERROR("the bus has not answered for %d ms, the service ends",
                  static_cast<int>(BUS_SILENT_MS));
}

bool CBusReport::RefusedCall(const std::string& strName, std::size_t uBytes, gint64 iNow)
{
    const auto it = m_refused.find(strName);
    if (it != m_refused.end()) {
        ++it->second.uCalls;
        it->second.iLast = iNow;
        return false;
    }
    if (m_refused.size() >= REFUSED_CALLERS || !MayBegin(iNow)) {
        return false;
    }
    m_refused[strName] = {"", uBytes, 1, iNow, false};
    return true;
}

void CBusReport::IsOf(const std::string& strName, const std::string& strUser)
{
    const auto it = m_refused.find(strName);
    if (it == m_refused.end() || it->second.bTold) {
        return;
    }
    it->second.strUser = strUser;
    it->second.bTold = true;
    const COnBehalf oOnBehalf(strName.c_str());
    if (it->second.uBytes == 0) {
        BILLING_WARN("caller %s is refused: %zu of its calls that want no answer wait",
                     Who(strName, strUser).c_str(), UNANSWERED_CALLS);
        return;
    }
    BILLING_WARN("caller %s is refused: a call has %zu bytes of arguments, %zu are taken",
                 Who(strName, strUser).c_str(), it->second.uBytes, ARGUMENT_BYTES);
}

gint64 CBusReport::TellOver(gint64 iNow)
{
    gint64 iNext = 0;
    for (auto it = m_refused.begin(); it != m_refused.end();) {
        const gint64 iOver = it->second.iLast + REFUSALS_OVER_MS;
        if (iNow < iOver) {
            iNext = iNext == 0 || iOver < iNext ? iOver : iNext;
            ++it;
            continue;
        }
        if (it->second.bTold) {
            const COnBehalf oOnBehalf(it->first.c_str());
            BILLING_WARN("caller %s is no longer refused: %u calls were",
                         Who(it->first, it->second.strUser).c_str(), it->second.uCalls);
        }
        it = m_refused.erase(it);
    }
    return iNext;
}
