// reply_body_test.cpp - the text of a reply to the bus: not copied, and its bytes counted.
#include "BusMessage.h"
#include "ReplyBody.h"
#include "held_locks.h"

#include <gtest/gtest.h>
#include <malloc.h>

namespace {

/// Fixture: a reply with such a body, and the counter of its bytes.
class AReplyBody : public ::testing::Test {
protected:
    AReplyBody()
    {
        std::shared_ptr<void> pCount = std::make_shared<int>();
        m_pCount = pCount;
        m_szText = m_strText.data();
        g_dbus_message_set_body(m_pReply.get(), MakeCountedBody(-1, m_strText, pCount));
    }

    GVariant* body() { return g_dbus_message_get_body(m_pReply.get()); }
    const char* text()
    {
        // The body keeps a reference to the text.
        GVariant* pText = g_variant_get_child_value(body(), 1);
        const char* szText = g_variant_get_string(pText, nullptr);
        g_variant_unref(pText);
        return szText;
    }

    std::string m_strText = std::string(100000, 'x');
    const char* m_szText = nullptr;
    std::weak_ptr<void> m_pCount;
    BusMessagePtr m_pReply{g_dbus_message_new()};
};

TEST_F(AReplyBody, HasTheTextItself)
{
    EXPECT_STREQ(g_variant_get_type_string(body()), "(is)");
    EXPECT_EQ(text(), m_szText) << "no copy was made";
    EXPECT_EQ(std::string(text()), std::string(100000, 'x'));
    EXPECT_EQ(g_variant_get_size(body()), sizeof(gint32) + 100000 + 1) << "with its NUL";
    gint32 iResult = 0;
    g_variant_get_child(body(), 0, "i", &iResult);
    EXPECT_EQ(iResult, -1);
}

TEST_F(AReplyBody, CountsTheTextUntilItIsFreed)
{
    EXPECT_FALSE(m_pCount.expired());
    m_pReply.reset();
    EXPECT_TRUE(m_pCount.expired());
}

TEST_F(AReplyBody, CountsTheTextNoMoreWhenTold)
{
    StopCounting(m_pReply.get());
    EXPECT_TRUE(m_pCount.expired());
    EXPECT_EQ(text(), m_szText);
    StopCounting(m_pReply.get());
}

TEST_F(AReplyBody, IsToldFromOthers)
{
    const BusMessagePtr pEmpty(g_dbus_message_new());
    StopCounting(pEmpty.get());
    g_dbus_message_set_body(pEmpty.get(), g_variant_new("(s)", "text"));
    StopCounting(pEmpty.get());
    g_dbus_message_set_body(pEmpty.get(), g_variant_new("(is)", 0, "small"));
    StopCounting(pEmpty.get());
    EXPECT_FALSE(m_pCount.expired());
}

TEST_F(AReplyBody, ChangesTheListOfTextsUnderItsLock)
{
    int iLocks = 0;
    const auto count = [&] { BeforeLock(1, [&] { ++iLocks; }); };
    count();
    std::string strText = "text";
    std::shared_ptr<void> pCount = std::make_shared<int>();
    GVariant* const pBody = g_variant_ref_sink(MakeCountedBody(0, strText, pCount));
    EXPECT_EQ(iLocks, 1);
    count();
    StopCounting(m_pReply.get());
    EXPECT_EQ(iLocks, 2);
    count();
    g_variant_unref(pBody);
    EXPECT_EQ(iLocks, 3);
}

TEST(ReplyBodies, LeaveNoMemoryBehind)
{
    const auto make = [](int iBodies) {
        for (int i = 0; i < iBodies; ++i) {
            std::string strText = "text";
            std::shared_ptr<void> pCount = std::make_shared<int>();
            const BusMessagePtr pReply(g_dbus_message_new());
            g_dbus_message_set_body(pReply.get(), MakeCountedBody(0, strText, pCount));
            StopCounting(pReply.get());
        }
    };
    make(100);
    const std::size_t uBefore = mallinfo2().uordblks;
    make(10000);
    // A text that is kept takes more than 60 bytes.
    EXPECT_LT(mallinfo2().uordblks, uBefore + 300000);
}

TEST(AnUncountedText, IsLeftToItsOwner)
{
    std::string strText = "text";
    std::shared_ptr<void> pCount;
    EXPECT_EQ(MakeCountedBody(0, strText, pCount), nullptr);
    EXPECT_EQ(strText, "text");
}

}  // namespace
