// tickets_test.cpp - which transfers may go on with a large answer, without running transfers.
#include "curl/queue/tickets.h"

#include "curl/queue/admission.h"
#include "curl/queue/quotas.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace MZCurl;
using std::chrono::milliseconds;

constexpr std::size_t kLarge = kSmallAnswer + 1;
constexpr std::size_t kHuge = kLargeAnswer + 1;

/// Fixture: transfers of a few senders, as the tickets require.
class SomeTickets : public testing::Test {
protected:
    ~SomeTickets() override
    {
        for (const auto& transfer : made) {
            admission.leave(*transfer);
        }
    }

    Transfer& add(const std::string& sender = "a")
    {
        made.push_back(std::make_unique<Transfer>());
        made.back()->options.url = "h/path";
        made.back()->place.hostKey = std::make_shared<const std::string>("h");
        EXPECT_TRUE(admission.join(*made.back(), sender));
        return *made.back();
    }

    bool grows(Transfer& transfer, std::size_t bytes)
    {
        return tickets.mayGrow(transfer, bytes, now);
    }

    /// That many transfers with tickets for large answers.
    std::vector<Transfer*> holders(std::size_t count)
    {
        std::vector<Transfer*> all;
        for (std::size_t i = 0; i < count; ++i) {
            all.push_back(&add());
            EXPECT_TRUE(grows(*all.back(), kLarge));
        }
        return all;
    }

    Transfer* next() { return tickets.next(now); }
    Transfer* overdue() { return tickets.overdue(now); }

    Tickets::Clock::time_point now = Tickets::Clock::now();
    Admission admission;
    std::vector<std::unique_ptr<Transfer>> made;
    Tickets tickets;
};

TEST_F(SomeTickets, AreNotNeededForASmallAnswer)
{
    holders(kLargeTickets);
    EXPECT_TRUE(grows(add(), kSmallAnswer));
    EXPECT_FALSE(tickets.isWaiting());
}

TEST_F(SomeTickets, AreForAFewLargeAnswers)
{
    const auto all = holders(kLargeTickets);
    Transfer& late = add();
    EXPECT_FALSE(grows(late, kLarge));
    EXPECT_FALSE(grows(late, kLarge)) << "asked again while it waits";
    EXPECT_EQ(next(), nullptr);

    tickets.ended(*all[1]);
    EXPECT_EQ(next(), nullptr) << "the body of one that has ended is still there";
    tickets.leave(*all[1]);
    EXPECT_EQ(next(), &late);
    EXPECT_TRUE(grows(late, kLargeAnswer));
    EXPECT_FALSE(tickets.isWaiting());
}

TEST_F(SomeTickets, AreForOneHugeAnswer)
{
    Transfer& first = add();
    EXPECT_TRUE(grows(first, kHuge));
    Transfer& second = add();
    EXPECT_TRUE(grows(second, kLarge)) << "of another kind";
    EXPECT_FALSE(grows(second, kHuge));
    tickets.leave(first);
    EXPECT_EQ(next(), &second);
    holders(kLargeTickets);
}

TEST_F(SomeTickets, StayTakenWhileBodiesAreInMemory)
{
    const std::shared_ptr<void> large = CountBody(kLarge);
    std::shared_ptr<void> huge = CountBody(kHuge);
    EXPECT_EQ(CountBody(kSmallAnswer), nullptr);
    holders(kLargeTickets - 1);
    Transfer& waiting = add();
    EXPECT_FALSE(grows(waiting, kHuge));
    EXPECT_FALSE(grows(add(), kLarge));
    EXPECT_EQ(next(), nullptr);
    std::shared_ptr<void> copy = huge;
    huge.reset();
    EXPECT_EQ(next(), nullptr);
    copy.reset();
    EXPECT_EQ(next(), &waiting);
}

TEST_F(SomeTickets, GoToTheSenderThatWasServedLongestAgo)
{
    Transfer& first = add("greedy");
    EXPECT_TRUE(grows(first, kHuge));
    Transfer& second = add("greedy");
    EXPECT_FALSE(grows(second, kHuge));
    Transfer& third = add("greedy");
    EXPECT_FALSE(grows(third, kHuge));
    Transfer& modest = add("modest");
    EXPECT_FALSE(grows(modest, kHuge));

    tickets.leave(first);
    ASSERT_EQ(next(), &modest);
    tickets.leave(modest);
    ASSERT_EQ(next(), &second) << "in order of arrival";
    tickets.leave(second);
    EXPECT_EQ(next(), &third);
}

TEST_F(SomeTickets, AreNotTakenPastThoseThatWait)
{
    Transfer& holder = add();
    EXPECT_TRUE(grows(holder, kHuge));
    Transfer& waiting = add();
    EXPECT_FALSE(grows(waiting, kHuge));
    tickets.leave(holder);
    EXPECT_FALSE(grows(add(), kHuge));
    EXPECT_EQ(next(), &waiting);
}

TEST_F(SomeTickets, AreGivenUpByOneThatIsSilentWhileOthersWait)
{
    Transfer& silent = add();
    EXPECT_TRUE(grows(silent, kHuge));
    now += kSilentTurn;
    EXPECT_EQ(overdue(), nullptr) << "nobody waits";
    EXPECT_FALSE(grows(add(), kHuge));
    EXPECT_EQ(overdue(), &silent);
    EXPECT_TRUE(grows(silent, kHuge));
    EXPECT_EQ(overdue(), nullptr) << "it has gone on";
    now += kSilentTurn;
    tickets.ended(silent);
    EXPECT_EQ(overdue(), nullptr) << "it has ended";
}

TEST_F(SomeTickets, AreGivenUpAfterALongTurnWhileOthersWait)
{
    Transfer& slow = add();
    EXPECT_TRUE(grows(slow, kHuge));
    EXPECT_FALSE(grows(add(), kHuge));
    const auto end = now + kLongestAnswer;
    for (; now < end; now += milliseconds(1000)) {
        EXPECT_TRUE(grows(slow, kHuge));
        EXPECT_EQ(overdue(), nullptr);
    }
    EXPECT_EQ(overdue(), &slow);
}

TEST_F(SomeTickets, AreKeptByOneThatWaitsForTheHugeOne)
{
    EXPECT_TRUE(grows(add(), kHuge));
    const auto all = holders(kLargeTickets);
    EXPECT_FALSE(grows(*all[0], kHuge));
    EXPECT_FALSE(grows(add(), kLarge)) << "its 4 MiB are in memory";
    now += kSilentTurn;
    for (Transfer* const transfer : all) {
        tickets.mayGrow(*transfer, kLarge, now);
    }
    EXPECT_EQ(overdue(), made.front().get()) << "it is silent as it has to wait";
    tickets.giveBack(*all[0]);
    EXPECT_EQ(next(), made.back().get());
    tickets.leave(*made.front());
    EXPECT_EQ(next(), all[0]) << "without its ticket it waits on";
}

TEST_F(SomeTickets, AreNotWaitedForByATransferThatHasEnded)
{
    Transfer& holder = add();
    EXPECT_TRUE(grows(holder, kHuge));
    Transfer& waiting = add();
    EXPECT_FALSE(grows(waiting, kHuge));
    tickets.leave(waiting);
    EXPECT_FALSE(tickets.isWaiting());
    tickets.leave(holder);
    EXPECT_EQ(next(), nullptr);
}

}  // namespace
