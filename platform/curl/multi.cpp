// multi.cpp - the implementation of the multi handle: many transfers on one worker, added from any thread.
#include "multi.h"

#include "curl/queue/quotas.h"
#include "curl/transfer/callbacks.h"
#include "curl/transfer/tls.h"
#include "global.h"
#include "report.h"

#include <platform/process.h>

#include <algorithm>
#include <new>
#include <thread>

namespace MZCurl {
namespace {

// Longest wait. libcurl's own deadlines, additions and stops end a wait earlier; the limit is for deadlines that libcurl
// misses, and for the checks of kept connections.
constexpr int kLongestPollMs = 1000;

// Wait while a finished transfer was handed out and not taken out: its owner needs only a moment.
constexpr int kUnclaimedPollMs = 1;

// Connections that libcurl keeps. With fewer than there are transfers under way, each further call would need a
// handshake.
constexpr long kMostKeptConnections = static_cast<long>(kMostSlots);

// Transfers at once that make a burst. After a burst the connections are closed and their memory is returned, once the
// last transfer was taken out and none came for kAfterBurstMs: a busy burst has moments without a transfer.
constexpr std::size_t kBurst = 64;
constexpr int kAfterBurstMs = 500;

// The result of timeLeft when no time is left.
constexpr std::chrono::milliseconds kNoTime{1};

// A wait that fails returns at once: without this pause the caller's loop would spin.
constexpr std::chrono::milliseconds kPauseAfterFailure{10};

}  // namespace

MZCurlMulti::Impl::~Impl()
{
    m_gate.release(m_going, Gate::Clock::time_point::max());
    m_admission.drain(m_going);
    for (TransferList* const list :
         {&m_pending, &m_later, &m_postponed, &m_going, &m_active, &m_ready, &m_given}) {
        while (!list->empty()) {
            takeOut(*list->front());
        }
    }
}

bool MZCurlMulti::Impl::initialize()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_multi != nullptr) {
        return true;
    }
    if (initializeLibraries()) {
        m_multi = newMulti();
    }
    return m_multi != nullptr;
}

MZCurlMulti::Impl::Multi MZCurlMulti::Impl::newMulti()
{
    Multi multi(curl_multi_init());
    if (multi != nullptr) {
        curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, kMostKeptConnections);
    }
    return multi;
}

bool MZCurlMulti::Impl::isInitialized()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_multi != nullptr;
}

void MZCurlMulti::Impl::start()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_started = true;
    m_stopped = false;
}

void MZCurlMulti::Impl::stop()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_started = false;
    m_stopped = true;
    if (m_multi != nullptr) {
        curl_multi_wakeup(m_multi.get());
    }
}

bool MZCurlMulti::Impl::stopped()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_stopped;
}

int MZCurlMulti::Impl::running()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_stopped ? 0 : static_cast<int>(m_added);
}

bool MZCurlMulti::Impl::add(MZCurlEasy& easy, Transfer& transfer, const std::string& sender)
{
    TransferList entry{&transfer};
    const std::lock_guard<std::mutex> guard(m_lock);
    auto key = m_lastKey.of(transfer.options.url);
    const void* none = nullptr;
    if (m_multi == nullptr || !m_started ||
        !transfer.place.owner.compare_exchange_strong(none, this)) {
        return false;
    }
    transfer.place.hostKey = std::move(key);
    try {
        if (!m_admission.join(transfer, sender)) {
            transfer.place.owner = nullptr;
            return false;
        }
    } catch (...) {
        transfer.place.owner = nullptr;
        throw;
    }
    transfer.progress = {};
    transfer.place.easy = &easy;
    transfer.place.node = entry.begin();
    transfer.place.home = &m_pending;
    // The worker takes all pending transfers at once: only the first one wakes it, and only while it waits.
    const bool wake = m_waits && m_pending.empty();
    m_pending.splice(m_pending.end(), entry);
    ++m_added;
    m_most = std::max(m_most, m_added);
    if (wake) {
        curl_multi_wakeup(m_multi.get());
    }
    return true;
}

bool MZCurlMulti::Impl::remove(Transfer& transfer)
{
    if (transfer.place.owner != this) {
        return false;
    }
    takeOut(transfer);
    return true;
}

void MZCurlMulti::Impl::detach(Transfer& transfer)
{
    if (transfer.attempt != nullptr && transfer.attempt->attached) {
        const TlsErrorScope errors;
        Connections::end(transfer.attempt->use);
        curl_multi_remove_handle(m_multi.get(), transfer.attempt->curl.get());
        SessionShare::detach(*transfer.attempt);
        transfer.attempt->attached = false;
    }
}

void MZCurlMulti::Impl::release(Transfer& transfer)
{
    m_admission.release(transfer, transfer.attempt != nullptr ? transfer.attempt->sent
                                                              : Admission::Clock::time_point{});
}

void MZCurlMulti::Impl::takeOut(Transfer& transfer)
{
    detach(transfer);
    m_tickets.leave(transfer);
    release(transfer);
    transfer.attempt.reset();
    const std::lock_guard<std::mutex> guard(m_lock);
    transfer.place.home->erase(transfer.place.node);
    m_gate.leave(transfer);
    m_admission.leave(transfer);
    transfer.place.home = nullptr;
    --m_added;
    transfer.place.owner = nullptr;
}

void MZCurlMulti::Impl::adopt()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        while (!m_pending.empty()) {
            moveTo(*m_pending.front(), m_going);
        }
    }
    const auto now = Gate::Clock::now();
    for (auto it = m_later.begin(); it != m_later.end();) {
        Transfer& transfer = **it++;
        if (transfer.place.due <= now) {
            moveTo(transfer, m_going);
        }
    }
    for (auto it = m_going.begin(); it != m_going.end();) {
        Transfer& transfer = **it++;
        if (m_gate.enter(transfer, now)) {
            m_admission.enqueue(transfer, now);
        }
    }
    giveSlots();
}

void MZCurlMulti::Impl::giveSlots()
{
    if (!m_admission.isWaiting()) {
        return;
    }
    const auto now = Gate::Clock::now();
    while (Transfer* const transfer = m_admission.overdue(now, m_active)) {
        failToStart(*transfer, "The call waited 20 s for its turn: too many calls are under way",
                    CURLE_OPERATION_TIMEDOUT);
    }
    m_admission.widen(now);
    if (!m_admission.mayGive(now)) {
        return;
    }
    m_connections.retireIdle();
    while (Transfer* const transfer = m_admission.next(now, m_active)) {
        attach(*transfer);
    }
}

void MZCurlMulti::Impl::attach(Transfer& transfer)
{
    if (transfer.progress.number == 0) {
        transfer.progress.number = ++m_transfers;
    }
    if (transfer.attempt == nullptr) {
        transfer.attempt = prepare(transfer.options, transfer, *this);
    }
    if (transfer.attempt == nullptr) {
        failToStart(transfer, "There is no memory for the transfer", CURLE_OUT_OF_MEMORY);
        return;
    }
    Attempt& attempt = *transfer.attempt;
    m_connections.follow(attempt.curl.get());
    const bool trusted = m_share.attach(attempt);
    Conditions conditions = conditionsOf(transfer);
    conditions.freshConnection = m_connections.isInDoubt(*transfer.place.hostKey);
    begin(attempt, conditions);
    if (!trusted) {
        finish(transfer, CURLE_SSL_CACERT_BADFILE);
        return;
    }
    const CURLMcode code = curl_multi_add_handle(m_multi.get(), attempt.curl.get());
    if (code != CURLM_OK) {
        SessionShare::detach(attempt);
        failToStart(transfer, curl_multi_strerror(code), CURLE_FAILED_INIT);
        return;
    }
    attempt.attached = true;
    m_begun = true;
    moveTo(transfer, m_active);
}

void MZCurlMulti::Impl::failToStart(Transfer& transfer, const char* reason, CURLcode code)
{
    transfer.progress.failure = reason;
    finish(transfer, code);
}

void MZCurlMulti::Impl::finish(Transfer& transfer, CURLcode result)
{
    transfer.progress.result = result;
    const Again reason = whyAgain(transfer);
    Attempt* const attempt = transfer.attempt.get();
    if (reason == Again::No && attempt != nullptr && !deliverEarly(*attempt)) {
        transfer.progress.result = CURLE_WRITE_ERROR;
    }
    report(transfer);
    if (attempt != nullptr) {
        Connections::end(attempt->use);
    }
    if (reason != Again::No) {
        beginAgain(transfer, reason);
        return;
    }
    m_tickets.ended(transfer);
    release(transfer);
    moveTo(transfer, m_ready);
    Gate::open(transfer);
}

void MZCurlMulti::Impl::beginAgain(Transfer& transfer, Again reason)
{
    detach(transfer);
    const std::chrono::milliseconds pause = countRepeat(transfer, reason);
    if (reason == Again::Ticket) {
        m_tickets.giveBack(transfer);
        moveTo(transfer, m_postponed);
        return;
    }
    m_tickets.leave(transfer);
    if (pause.count() > 0) {
        // The host may need a new leader after the pause.
        m_gate.leave(transfer);
        release(transfer);
        transfer.attempt.reset();
        transfer.place.due = Gate::Clock::now() + pause;
        moveTo(transfer, m_later);
        return;
    }
    attach(transfer);
}

void MZCurlMulti::Impl::giveTickets()
{
    const auto now = Tickets::Clock::now();
    while (Transfer* const transfer = m_tickets.next(now)) {
        goOn(*transfer);
    }
    while (Transfer* const transfer = m_tickets.overdue(now)) {
        cutOff(*transfer, "The answer was too slow: others waited for their turn");
    }
    for (auto it = m_postponed.begin(); it != m_postponed.end();) {
        Transfer& transfer = **it++;
        if (transfer.options.timeout > 0 && timeLeft(transfer) <= kNoTime) {
            cutOff(transfer, "The answer waited for its turn until its time was over");
        }
    }
}

void MZCurlMulti::Impl::goOn(Transfer& transfer)
{
    Attempt& attempt = *transfer.attempt;
    if (attempt.postponed) {
        attach(transfer);
        return;
    }
    Connections::resume(attempt.use);
    // Delivers the piece for which the transfer waited. The transfer may have to wait again at once.
    const CURLcode code = curl_easy_pause(attempt.curl.get(), CURLPAUSE_CONT);
    m_begun = true;
    if (code != CURLE_OK) {
        detach(transfer);
        finish(transfer, code);
    }
}

void MZCurlMulti::Impl::cutOff(Transfer& transfer, const char* reason)
{
    detach(transfer);
    transfer.attempt->refusal = reason;
    finish(transfer, CURLE_OPERATION_TIMEDOUT);
}

void MZCurlMulti::Impl::letThrough()
{
    const auto now = Gate::Clock::now();
    m_gate.release(m_going, now);
    while (!m_going.empty()) {
        m_admission.enqueue(*m_going.front(), now);
    }
    giveSlots();
}

void MZCurlMulti::Impl::offerAgain()
{
    while (!m_given.empty()) {
        moveTo(*m_given.front(), m_ready);
    }
}

int MZCurlMulti::Impl::waitLimit() const
{
    if (!m_ready.empty()) {
        return kUnclaimedPollMs;
    }
    const auto now = Gate::Clock::now();
    int bound = m_admission.waitBound(now, m_gate.waitBound(now, kLongestPollMs));
    if (m_tickets.isWaiting() && inHand(Ticket::Large) + inHand(Ticket::Huge) > 0) {
        bound = std::min(bound, static_cast<int>(kInHandLook.count()));
    }
    for (const Transfer* const transfer : m_later) {
        bound = std::min(bound, millisecondsUntil(transfer->place.due, now));
    }
    return bound;
}

bool MZCurlMulti::Impl::endBurst()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_most <= kBurst) {
            return true;
        }
    }
    const bool ok = wait(kAfterBurstMs);
    Multi old;
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_added > 0 || m_stopped) {
            return ok;
        }
        m_most = 0;
        // libcurl closes kept connections only one by one, when others are used; a new handle has none.
        if (Multi fresh = newMulti(); fresh != nullptr) {
            m_multi.swap(fresh);
            old = std::move(fresh);
        }
    }
    old.reset();
    dropHandles();
    platform_process_give_back_memory();
    return ok;
}

bool MZCurlMulti::Impl::wait(int limit)
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_stopped || !m_pending.empty()) {
            return true;
        }
        m_waits = true;
    }
    const CURLMcode code = curl_multi_poll(m_multi.get(), nullptr, 0, limit, nullptr);
    const std::lock_guard<std::mutex> guard(m_lock);
    m_waits = false;
    return code == CURLM_OK;
}

bool MZCurlMulti::Impl::select()
{
    offerAgain();
    adopt();
    if (running() == 0) {
        return endBurst();
    }
    const TlsErrorScope errors;
    // A transfer that was just attached needs a round of libcurl at once. Reading one HTTP/2 stream may leave pieces of other
    // streams in libcurl's buffers, where no wait sees them: without this one burst in a hundred stalled.
    bool ok = m_begun || m_http2Moved || wait(waitLimit());
    if (stopped()) {
        return ok;
    }
    if (!ok) {
        std::this_thread::sleep_for(kPauseAfterFailure);
    }
    m_connections.retireWaiting();
    adopt();
    m_http2Moved = false;
    m_begun = false;
    int unfinished = 0;
    ok = curl_multi_perform(m_multi.get(), &unfinished) == CURLM_OK && ok;
    collect();
    giveTickets();
    letThrough();
    return ok;
}

void MZCurlMulti::Impl::collect()
{
    int left = 0;
    while (const CURLMsg* const message = curl_multi_info_read(m_multi.get(), &left)) {
        Attempt* attempt = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &attempt);
        finish(attempt->transfer, message->data.result);
    }
}

Transfer* MZCurlMulti::Impl::next()
{
    if (m_ready.empty() || stopped()) {
        return nullptr;
    }
    Transfer* const transfer = m_ready.front();
    moveTo(*transfer, m_given);
    return transfer;
}

}  // namespace MZCurl
