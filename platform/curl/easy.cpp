// easy.cpp - MZCurlEasy: one transfer, also performed on the calling thread.
#include "easy.h"

#include "global.h"
#include "options.h"
#include "tls.h"

#include <new>

namespace MZCurl {
namespace {

/// Sets an option, also of a handle that does not exist or is not initialized.
template <class Set, class Value>
bool setGuarded(Transfer* transfer, Set set, MZCURL_OPTION_TYPE option, const Value& value)
{
    if (transfer == nullptr) {
        return false;
    }
    transfer->pristine = false;
    try {
        return transfer->curl != nullptr ? set(*transfer, option, value)
                                         : transfer->fail("The handle is not initialised");
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

MZCurlEasy::MZCurlEasy() : m_pImpl(new (std::nothrow) Impl) {}

MZCurlEasy::~MZCurlEasy() = default;

bool MZCurlEasy::Initialize()
{
    if (m_pImpl == nullptr) {
        m_pImpl.reset(new (std::nothrow) Impl);
    }
    return m_pImpl != nullptr && m_pImpl->curl == nullptr && initializeLibraries() &&
           m_pImpl->initialize();
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, int iValue)
{
    return setGuarded(m_pImpl.get(), setNumber, eOption, iValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, long lValue)
{
    return setGuarded(m_pImpl.get(), setNumber, eOption, lValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, long long llValue)
{
    return setGuarded(m_pImpl.get(), setNumber, eOption, llValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, const std::string& strValue)
{
    return setGuarded(m_pImpl.get(), setText, eOption, strValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, const std::list<std::string>& lstValue)
{
    return setGuarded(m_pImpl.get(), setList, eOption, lstValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, WriteCallback pfnValue)
{
    return setGuarded(m_pImpl.get(), setWriter, eOption, pfnValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, SslContextCallback pfnValue)
{
    return setGuarded(m_pImpl.get(), setSslContext, eOption, pfnValue);
}

bool MZCurlEasy::setOption(MZCURL_OPTION_TYPE eOption, void* pValue)
{
    return setGuarded(m_pImpl.get(), setPointer, eOption, pValue);
}

bool MZCurlEasy::getInfo(MZCURL_INFO_TYPE eInfo, void** ppOut)
{
    if (m_pImpl == nullptr || m_pImpl->curl == nullptr || eInfo != MZCURL_INFO_PRIVATE ||
        m_pImpl->userPointer == nullptr || ppOut == nullptr) {
        return false;
    }
    *ppOut = m_pImpl->userPointer;
    return true;
}

std::string MZCurlEasy::getLastError() const
{
    return m_pImpl != nullptr ? m_pImpl->lastError : "There is no memory";
}

bool MZCurlEasy::send()
{
    if (m_pImpl == nullptr) {
        return false;
    }
    if (m_pImpl->curl == nullptr || m_pImpl->owner != nullptr) {
        return m_pImpl->fail("The handle is not initialised, or a multi handle has it");
    }
    const TlsErrorScope errors;
    m_pImpl->start();
    m_pImpl->begin(false);
    const CURLcode code = curl_easy_perform(m_pImpl->curl.get());
    m_pImpl->lastError = m_pImpl->resultText(code);
    return code == CURLE_OK;
}

void MZCurlEasy::reset()
{
    if (m_pImpl != nullptr && m_pImpl->curl != nullptr) {
        m_pImpl->reset();
    }
}

}  // namespace MZCurl
