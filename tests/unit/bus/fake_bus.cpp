// fake_bus.cpp - the fixture of the flow control's tests.
#include "fake_bus.h"

namespace {

BusMessagePtr MakeAnswer(GVariant* pBody)
{
    BusMessagePtr pMessage(g_dbus_message_new());
    g_dbus_message_set_message_type(pMessage.get(), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    if (pBody != nullptr) {
        g_dbus_message_set_body(pMessage.get(), pBody);
    }
    return pMessage;
}

}  // namespace

std::string NameOf(BusQuestion eKind)
{
    switch (eKind) {
        case BusQuestion::UNREAD:
            return "unread";
        case BusQuestion::PING:
            return "ping";
        case BusQuestion::OWNER:
            return "owner";
        case BusQuestion::USER:
            return "user";
        case BusQuestion::PROOF:
            return "proof";
        case BusQuestion::WATCH:
            return "watch";
    }
    return "";
}

bool ABusFlow::reply(const std::string& strTo, std::size_t uBytes)
{
    // A body of type "(s)" is the text and its final NUL.
    const std::string strText(uBytes - BusLimits::HEADER_BYTES - 1, 'x');
    return replyWith(strTo, g_variant_new("(s)", strText.c_str()));
}

bool ABusFlow::replyWith(const std::string& strTo, GVariant* pBody)
{
    BusMessagePtr pReply = MakeAnswer(pBody);
    g_dbus_message_set_destination(pReply.get(), strTo.c_str());
    g_dbus_message_set_serial(pReply.get(), ++m_uSerial);
    g_dbus_message_set_reply_serial(pReply.get(), m_uSerial);
    m_oFlow.Reply(pReply);
    return pReply != nullptr;
}

std::size_t ABusFlow::open(BusQuestion eKind) const
{
    return static_cast<std::size_t>(
        std::count_if(m_oBus.asked.begin(), m_oBus.asked.end(),
                      [&](const auto& asked) { return asked.second.eKind == eKind; }));
}

bool ABusFlow::answer(BusQuestion eKind, const std::string& strName, BusMessagePtr pAnswer,
                      const char* szFrom)
{
    for (const auto& [uSerial, tQuestion] : m_oBus.asked) {
        if (tQuestion.eKind == eKind && tQuestion.strName == strName) {
            g_dbus_message_set_reply_serial(pAnswer.get(), uSerial);
            g_dbus_message_set_sender(pAnswer.get(), szFrom);
            m_oBus.asked.erase(uSerial);
            return m_oFlow.Answer(pAnswer.get());
        }
    }
    ADD_FAILURE() << "nothing was asked about " << strName;
    return false;
}

bool ABusFlow::unread(const std::string& strName, guint32 uBytes)
{
    GVariantDict tFacts;
    g_variant_dict_init(&tFacts, nullptr);
    g_variant_dict_insert(&tFacts, "UniqueName", "s", strName.c_str());
    g_variant_dict_insert(&tFacts, "OutgoingBytes", "u", uBytes);
    return answer(BusQuestion::UNREAD, strName,
                  MakeAnswer(g_variant_new("(@a{sv})", g_variant_dict_end(&tFacts))));
}

bool ABusFlow::user(const std::string& strName, guint32 uUser)
{
    return answer(BusQuestion::USER, strName, MakeAnswer(g_variant_new("(u)", uUser)));
}

bool ABusFlow::owner(const std::string& strName)
{
    return answer(BusQuestion::OWNER, strName, MakeAnswer(g_variant_new("(s)", strName.c_str())));
}

bool ABusFlow::fails(BusQuestion eKind, const std::string& strName, const char* szError,
                     const char* szFrom)
{
    BusMessagePtr pError(g_dbus_message_new());
    g_dbus_message_set_message_type(pError.get(), G_DBUS_MESSAGE_TYPE_ERROR);
    g_dbus_message_set_error_name(pError.get(), szError);
    return answer(eKind, strName, std::move(pError), szFrom);
}

bool ABusFlow::pong(const std::string& strName)
{
    return answer(BusQuestion::PING, strName, MakeAnswer(nullptr), strName.c_str());
}

void ABusFlow::pass(gint64 iMilliseconds)
{
    const gint64 iEnd = m_oBus.iNow + iMilliseconds;
    while (m_oBus.iWakeAt && *m_oBus.iWakeAt <= iEnd) {
        m_oBus.iNow = std::max(m_oBus.iNow, *m_oBus.iWakeAt);
        m_oBus.iWakeAt.reset();
        m_oFlow.Timer();
        ASSERT_TRUE(!m_oBus.iWakeAt || *m_oBus.iWakeAt > m_oBus.iNow) << "the timer never rests";
    }
    m_oBus.iNow = iEnd;
}

std::vector<std::string> ABusFlow::texts() const
{
    std::vector<std::string> found;
    for (const Line& line : LoggedLines()) {
        found.push_back(line.strText);
    }
    return found;
}

std::vector<std::string> ABusFlow::steps()
{
    std::vector<std::string> found;
    for (const Line& line : Timeline()) {
        found.push_back(line.strText);
    }
    fake::platform().clearTimeline();
    return found;
}
