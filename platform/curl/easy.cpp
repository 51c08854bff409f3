// easy.cpp - MZCurlEasy: one transfer, also performed on the calling thread.
#include "easy.h"

#include "curl/transfer/options.h"
#include "curl/transfer/repeat.h"
#include "curl/transfer/rules.h"
#include "curl/transfer/tls.h"
#include "global.h"

#include <new>

namespace MZCurl {
namespace {

constexpr const char* kNoMemory = "There is no memory";

/// Performs one transfer on the calling thread, without a multi handle.
class Alone : public Performer {
public:
    bool opened(Transfer& /*transfer*/, curl_socket_t /*descriptor*/) override { return true; }
    const char* sending(Transfer& /*transfer*/, const Ends& /*ends*/) override { return nullptr; }
    bool maySendAgain(Transfer& transfer) override { return mayBeSentOnceMore(transfer, true); }
    void moved() override {}
    Growth mayGrow(Transfer& /*transfer*/, std::size_t /*bytes*/) override
    {
        return Growth::ForGood;
    }
};

/// Sets an option, also of a handle that does not exist or is not initialized.
template <class Impl, class Set, class Value>
bool setGuarded(Impl* impl, Set set, MZCURL_OPTION_TYPE option, const Value& value)
{
    if (impl == nullptr) {
        return false;
    }
    try {
        const char* const problem =
            impl->initialized ? set(impl->options, option, value) : "The handle is not initialised";
        if (problem != nullptr) {
            impl->lastError = problem;
        }
        return problem == nullptr;
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
    if (m_pImpl == nullptr || m_pImpl->initialized) {
        return false;
    }
    m_pImpl->initialized = initializeLibraries();
    return m_pImpl->initialized;
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
    if (m_pImpl == nullptr || eInfo != MZCURL_INFO_PRIVATE ||
        m_pImpl->options.userPointer == nullptr || ppOut == nullptr) {
        return false;
    }
    *ppOut = m_pImpl->options.userPointer;
    return true;
}

std::string MZCurlEasy::getLastError() const
{
    return m_pImpl != nullptr ? m_pImpl->lastError : kNoMemory;
}

bool MZCurlEasy::send()
{
    if (m_pImpl == nullptr) {
        return false;
    }
    Impl& impl = *m_pImpl;
    if (!impl.initialized || impl.place.owner != nullptr) {
        impl.lastError = "The handle is not initialised, or a multi handle has it";
        return false;
    }
    const TlsErrorScope errors;
    Alone performer;
    impl.progress = {};
    impl.attempt = prepare(impl.options, impl, performer);
    if (impl.attempt == nullptr) {
        impl.lastError = kNoMemory;
        return false;
    }
    begin(*impl.attempt, conditionsOf(impl));
    impl.progress.result = curl_easy_perform(impl.attempt->curl.get());
    impl.lastError = impl.resultText();
    impl.attempt.reset();
    return impl.progress.result == CURLE_OK;
}

void MZCurlEasy::reset()
{
    if (m_pImpl != nullptr && m_pImpl->initialized) {
        m_pImpl->options = {};
        m_pImpl->lastError.clear();
    }
}

}  // namespace MZCurl
