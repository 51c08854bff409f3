// ReplyBody.cpp - reply bodies that are handed to the bus library without a copy.
#include "ReplyBody.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <new>
#include <utility>

namespace {

struct CountedText {
    std::string strText;
    std::shared_ptr<void> pCount;
};

using CountedTexts = std::list<CountedText>;

// Neither is ever destroyed: the bus library frees bodies on a thread of its own, also while the process
// exits.
std::mutex& Lock()
{
    static auto& lock = *new std::mutex;
    return lock;
}

CountedTexts& Texts()
{
    static auto& texts = *new CountedTexts;
    return texts;
}

CountedTexts::iterator Find(const void* pText)
{
    return std::find_if(Texts().begin(), Texts().end(), [pText](const CountedText& tText) {
        return tText.strText.c_str() == pText;
    });
}

void Free(void* pText)
{
    CountedTexts freed;  // destroyed after the lock is released
    const std::lock_guard<std::mutex> oLock(Lock());
    freed.splice(freed.end(), Texts(), Find(pText));
}

}  // namespace

GVariant* MakeCountedBody(int iResult, std::string& strText, std::shared_ptr<void>& pCount) noexcept
{
    if (pCount == nullptr) {
        return nullptr;
    }
    CountedTexts made;
    try {
        made.resize(1);
    } catch (const std::bad_alloc&) {
        return nullptr;  // no exception may pass the C code of the caller
    }
    CountedText& tText = made.front();
    tText.strText = std::move(strText);
    tText.pCount = std::move(pCount);
    {
        const std::lock_guard<std::mutex> oLock(Lock());
        Texts().splice(Texts().end(), made);
    }
    auto* pText = const_cast<char*>(tText.strText.c_str());
    GVariant* pString = g_variant_new_from_data(G_VARIANT_TYPE_STRING, pText,
                                                tText.strText.size() + 1, TRUE, Free, pText);
    return g_variant_new("(i@s)", iResult, pString);
}

void StopCounting(GDBusMessage* pReply)
{
    GVariant* pBody = g_dbus_message_get_body(pReply);
    if (pBody == nullptr || !g_variant_is_of_type(pBody, G_VARIANT_TYPE("(is)"))) {
        return;
    }
    // g_variant_get would copy the whole body for "&s".
    GVariant* pString = g_variant_get_child_value(pBody, 1);
    const void* pText = g_variant_get_data(pString);
    g_variant_unref(pString);
    std::shared_ptr<void> pCount;
    const std::lock_guard<std::mutex> oLock(Lock());
    const auto it = Find(pText);
    if (it != Texts().end()) {
        pCount.swap(it->pCount);
    }
}
