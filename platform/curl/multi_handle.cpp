// multi_handle.cpp - the public functions of MZCurlMulti.
#include "easy.h"
#include "multi.h"

#include <openssl/crypto.h>

#include <new>
#include <string>

namespace MZCurl {
namespace {

/// The sender of the handles that this thread adds.
thread_local std::string t_sender;

}  // namespace

MZCurlMulti::MZCurlMulti() : m_pImpl(new (std::nothrow) Impl) {}

MZCurlMulti::~MZCurlMulti() = default;

bool MZCurlMulti::Initialize()
{
    if (m_pImpl == nullptr) {
        m_pImpl.reset(new (std::nothrow) Impl);
    }
    return m_pImpl != nullptr && m_pImpl->initialize();
}

void MZCurlMulti::Start()
{
    if (m_pImpl != nullptr) {
        m_pImpl->start();
    }
}

void MZCurlMulti::Stop()
{
    if (m_pImpl != nullptr) {
        m_pImpl->stop();
    }
}

bool MZCurlMulti::addHandle(MZCurlEasy* pEasy)
{
    if (m_pImpl == nullptr || pEasy == nullptr || pEasy->m_pImpl == nullptr ||
        !pEasy->m_pImpl->initialized) {
        return false;
    }
    try {
        return m_pImpl->add(*pEasy, *pEasy->m_pImpl, t_sender);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool MZCurlMulti::removeHandle(MZCurlEasy* pEasy)
{
    return m_pImpl != nullptr && pEasy != nullptr && pEasy->m_pImpl != nullptr &&
           m_pImpl->remove(*pEasy->m_pImpl);
}

bool MZCurlMulti::Perform(int& iRunning)
{
    iRunning = 0;
    if (m_pImpl == nullptr || !m_pImpl->isInitialized()) {
        return false;
    }
    m_pImpl->adopt();
    iRunning = m_pImpl->running();
    return true;
}

bool MZCurlMulti::fdSelect(int& iRunning)
{
    iRunning = 0;
    if (m_pImpl == nullptr || !m_pImpl->isInitialized()) {
        return false;
    }
    const bool ok = m_pImpl->select();
    iRunning = m_pImpl->running();
    return ok;
}

bool MZCurlMulti::InfoRead(MultiMsg& tMsg)
{
    tMsg = MultiMsg();
    if (m_pImpl == nullptr || !m_pImpl->isInitialized()) {
        return false;
    }
    const Transfer* const transfer = m_pImpl->next();
    if (transfer != nullptr) {
        tMsg.pEasyHandle = transfer->place.easy;
        tMsg.bSuccess = transfer->progress.result == CURLE_OK;
        tMsg.iResult = transfer->progress.result;
        try {
            tMsg.strError = transfer->resultText();
        } catch (const std::bad_alloc&) {
            // The result is reported without its text.
        }
    }
    return true;
}

void MZCurlMulti::SetSender(const char* pszSender)
{
    try {
        t_sender = pszSender != nullptr ? pszSender : "";
    } catch (const std::bad_alloc&) {
        t_sender.clear();
    }
}

void MZCurlMulti::ThreadEnd()
{
    OPENSSL_thread_stop();
}

}  // namespace MZCurl
