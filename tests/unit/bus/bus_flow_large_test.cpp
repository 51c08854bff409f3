// bus_flow_large_test.cpp - large replies that wait: how long they count as on their way.
#include "ReplyBody.h"
#include "fake_bus.h"

#include <gmock/gmock.h>

using namespace BusLimits;
using ::testing::IsEmpty;

namespace {

TEST_F(ABusFlow, HoldsTheLongestReplyForACallerThatReads)
{
    reply(":1.1", 400);
    EXPECT_FALSE(reply(":1.1", 32 * MIB));
    EXPECT_TRUE(unread(":1.1", 0));
    EXPECT_EQ(m_oBus.errors, std::vector<std::string>{""});
}

/// Fixture: a large reply that is held for a caller.
class AHeldLargeReply : public ABusFlow {
protected:
    void hold(const std::string& strTo, std::size_t uText = 2 * MIB)
    {
        std::string strText(uText, 'x');
        std::shared_ptr<void> pCount = std::make_shared<int>();
        m_pCount = pCount;
        EXPECT_FALSE(replyWith(strTo, MakeCountedBody(0, strText, pCount)));
    }

    static constexpr guint32 STEP = WINDOW_BYTES / 4;
    std::weak_ptr<void> m_pCount;
};

TEST_F(AHeldLargeReply, IsCountedWhileItsCallerReadsOn)
{
    reply(":1.1", WINDOW_BYTES);
    hold(":1.1");
    for (guint32 uLeft = WINDOW_BYTES - STEP; uLeft > 0; uLeft -= STEP) {
        unread(":1.1", uLeft);
        pass(STUCK_MS - 500);
        EXPECT_FALSE(m_pCount.expired());
    }
    pass(500);
    EXPECT_TRUE(m_pCount.expired());
    EXPECT_THAT(m_oBus.released, IsEmpty()) << "it waits on";
}

TEST_F(AHeldLargeReply, IsNotCountedForACallerThatReadsNothingWhileOthersDo)
{
    reply(":1.1", WINDOW_BYTES);
    hold(":1.1");
    reply(":1.2", WINDOW_BYTES);
    pass(STUCK_MS - 1);
    unread(":1.2", STEP);
    EXPECT_FALSE(m_pCount.expired());
    pass(1);
    EXPECT_TRUE(m_pCount.expired());
}

TEST_F(AHeldLargeReply, IsCountedWhileThoseReadForWhomItWaits)
{
    for (int i = 0; i < 2; i++) {
        EXPECT_TRUE(reply(":1.2" + std::to_string(i), UNREAD_BYTES / 2));
    }
    pass(STUCK_MS);
    hold(":1.1");
    pass(STUCK_MS - 1);
    EXPECT_FALSE(m_pCount.expired());
    unread(":1.21", UNREAD_BYTES / 2 - MIB);
    pass(STUCK_MS - 1);
    EXPECT_FALSE(m_pCount.expired());
    pass(1);
    EXPECT_TRUE(m_pCount.expired());
}

TEST_F(AHeldLargeReply, IsCountedOnWhenItIsNotLarger)
{
    // A body of type "(is)" is the number, the text and its NUL.
    constexpr std::size_t LARGEST_TEXT = LARGE_BYTES - HEADER_BYTES - 5;
    reply(":1.1", WINDOW_BYTES);
    hold(":1.1", LARGEST_TEXT);
    pass(STUCK_MS);
    EXPECT_FALSE(m_pCount.expired());
    hold(":1.1", LARGEST_TEXT + 1);
    pass(FIRST_PAUSE_MS);
    EXPECT_TRUE(m_pCount.expired());
}

TEST_F(AHeldLargeReply, IsCountedWhileOthersLeave)
{
    EXPECT_TRUE(reply(":1.2", UNREAD_BYTES - 400));
    EXPECT_TRUE(reply(":1.3", 400));
    unread(":1.2", UNREAD_BYTES - 400);
    hold(":1.1");
    pass(STUCK_MS - 1);
    EXPECT_FALSE(m_pCount.expired());
    fails(BusQuestion::UNREAD, ":1.3", "org.freedesktop.DBus.Error.NameHasNoOwner");
    pass(STUCK_MS - 1);
    EXPECT_FALSE(m_pCount.expired()) << "somebody left: there may soon be room";
    pass(1);
    EXPECT_TRUE(m_pCount.expired());
    fails(BusQuestion::UNREAD, ":1.2", "org.freedesktop.DBus.Error.NameHasNoOwner");
    EXPECT_EQ(m_oBus.errors, std::vector<std::string>{""}) << "there is room now";
}

}  // namespace
