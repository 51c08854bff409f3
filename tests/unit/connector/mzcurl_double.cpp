// mzcurl_double.cpp - the doubles of MZCurlEasy and MZCurlMulti for the connector's tests.
#include "mzcurl_double.h"

#include "log_matchers.h"

CurlDouble& Curl()
{
    static CurlDouble curl;
    return curl;
}

std::mutex& CurlMutex()
{
    static std::mutex mutex;
    return mutex;
}

namespace {

void Event(const std::string& strEvent)
{
    const std::lock_guard<std::mutex> lock(CurlMutex());
    Note(strEvent + (Curl().locks ? Curl().locks() : ""));
}

bool Option(int iOption, const std::string& strValue)
{
    const std::lock_guard<std::mutex> lock(CurlMutex());
    Curl().options.push_back(std::to_string(iOption) + " " + strValue);
    return iOption != Curl().iRefusedOption;
}

}  // namespace

namespace MZCurl {

struct MZCurlEasy::Impl {
    void* pPrivate = nullptr;
};
struct MZCurlMulti::Impl {};

MZCurlEasy::MZCurlEasy() : m_pImpl(new Impl) {}

MZCurlEasy::~MZCurlEasy()
{
    Event("destruct");
}

bool MZCurlEasy::Initialize()
{
    Event("Initialize");
    return !Curl().bEasyInitializeFails;
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, int iValue)
{
    return Option(eOption, std::to_string(iValue));
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, long lValue)
{
    return Option(eOption, std::to_string(lValue) + "l");
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, long long llValue)
{
    return Option(eOption, std::to_string(llValue) + "ll");
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, const std::string& strValue)
{
    return Option(eOption, "'" + strValue + "'");
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, const std::list<std::string>& lstValue)
{
    std::string strAll;
    for (const std::string& strValue : lstValue) {
        strAll += "'" + strValue + "'";
    }
    return Option(eOption, strAll);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, WriteCallback pfnValue)
{
    Curl().pfnWrite = pfnValue;
    return Option(eOption, "callback");
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, SslContextCallback pfnValue)
{
    Curl().pfnSslContext = pfnValue;
    return Option(eOption, "context callback");
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, void* pValue)
{
    if (eOption == MZCURL_OPT_PRIVATE) {
        m_pImpl->pPrivate = pValue;
        Curl().pPrivate = pValue;
    } else if (eOption == MZCURL_OPT_SSL_CTX_DATA) {
        Curl().pSslContextData = pValue;
    } else {
        Curl().pWriteData = pValue;
    }
    return Option(eOption, "pointer");
}

bool MZCurlEasy::getInfo(MZCURL_INFO_TYPE eInfo, void** ppOut)
{
    Event("getInfo " + std::to_string(eInfo));
    *ppOut = m_pImpl->pPrivate;
    return !Curl().bInfoFails;
}

std::string MZCurlEasy::getLastError() const
{
    return Curl().strLastError;
}

bool MZCurlEasy::send()
{
    Event("send");
    return !Curl().bSendFails;
}

void MZCurlEasy::reset()
{
    Event("reset");
    Curl().strLastError = "forgotten";
}

MZCurlMulti::MZCurlMulti() = default;
MZCurlMulti::~MZCurlMulti() = default;

bool MZCurlMulti::Initialize()
{
    Event("multi Initialize");
    return Curl().iMultiInitializeFailures-- <= 0;
}

void MZCurlMulti::Start()
{
    Event("Start");
}

void MZCurlMulti::Stop()
{
    Event("Stop");
}

bool MZCurlMulti::addHandle(MZCurlEasy*)
{
    Event("add");
    return !Curl().bAddFails;
}

bool MZCurlMulti::removeHandle(MZCurlEasy*)
{
    Event("remove");
    return !Curl().bRemoveFails;
}

bool MZCurlMulti::Perform(int& iRunning)
{
    iRunning = 3;
    Event("Perform");
    return !Curl().bPerformFails;
}

bool MZCurlMulti::fdSelect(int& iRunning)
{
    Event("fdSelect");
    const std::lock_guard<std::mutex> lock(CurlMutex());
    iRunning = Curl().iRunning > 0 ? Curl().iRunning-- : 0;
    return !Curl().bSelectFails;
}

bool MZCurlMulti::InfoRead(MultiMsg& tMsg)
{
    Event("InfoRead");
    const std::lock_guard<std::mutex> lock(CurlMutex());
    tMsg = MultiMsg();
    if (!Curl().messages.empty()) {
        tMsg = Curl().messages.front();
        Curl().messages.pop_front();
    }
    return true;
}

void MZCurlMulti::ThreadEnd()
{
    Event("ThreadEnd");
}

}  // namespace MZCurl
