// admission_test.cpp - the order in which transfers get slots, without running transfers.
#include "curl/queue/admission.h"

#include "curl/queue/quotas.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace MZCurl;
using std::chrono::seconds;

constexpr int kSlots = static_cast<int>(kMostSlots);
constexpr int kFirst = static_cast<int>(kNarrow);
constexpr int kResolvers = static_cast<int>(kMostResolving);

/// Fixture: transfers that are in the lists of a multi handle, as the admission requires.
class AnAdmission : public testing::Test {
protected:
    ~AnAdmission() override
    {
        admission.drain(active);
        for (const auto& transfer : made) {
            leave(*transfer);
        }
    }

    /// Adds a POST, which waits for no connection.
    /// @return null when the transfer was not accepted
    Transfer* add(const std::string& sender, const std::string& url, const std::string& host = "h",
                  bool get = false)
    {
        made.push_back(std::make_unique<Transfer>());
        Transfer& transfer = *made.back();
        transfer.options.sendsBody = !get;
        transfer.options.url = url;
        transfer.place.hostKey = std::make_shared<const std::string>(host);
        if (!admission.join(transfer, sender)) {
            made.pop_back();
            return nullptr;
        }
        active.push_back(&transfer);
        transfer.place.node = std::prev(active.end());
        transfer.place.home = &active;
        admission.enqueue(transfer, now);
        return &transfer;
    }

    void add(int count, const std::string& sender, const std::string& url,
             const std::string& host = "h")
    {
        for (int i = 0; i < count; ++i) {
            EXPECT_NE(add(sender, url, host), nullptr);
        }
    }

    void addGets(int count, const std::string& sender, const std::string& url,
                 const std::string& host = "h")
    {
        for (int i = 0; i < count; ++i) {
            EXPECT_NE(add(sender, url, host, true), nullptr);
        }
    }

    /// Resolves the host's name, so that its transfers no longer wait for a look-up.
    void name(const std::string& host)
    {
        Transfer* const transfer = add("opener", host + "/open", host);
        ASSERT_EQ(admission.next(now, active), transfer);
        admission.resolved(*transfer);
        admission.release(*transfer, {});
    }

    /// Gives slots until no transfer may have one.
    /// @return number of slots given
    int fill()
    {
        int count = 0;
        while (Transfer* const transfer = admission.next(now, active)) {
            given.push_back(transfer);
            ++count;
        }
        return count;
    }

    /// Ends the transfer so long after it was sent.
    void answer(int index, Admission::Clock::duration took)
    {
        Transfer& transfer = *given[static_cast<std::size_t>(index)];
        admission.release(transfer, Admission::Clock::now() - took);
    }

    void leave(Transfer& transfer)
    {
        if (transfer.place.lane != nullptr) {
            transfer.place.home->erase(transfer.place.node);
            admission.leave(transfer);
        }
    }

    Admission::Clock::time_point now = Admission::Clock::now();
    Admission admission;
    TransferList active;
    std::vector<std::unique_ptr<Transfer>> made;
    std::vector<Transfer*> given;
};

/// Limits the descriptors of the process while it exists.
struct FewDescriptors {
    FewDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit few{kOtherDescriptors + 10, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }

    rlimit before{};
};

class AnAdmissionWithFewDescriptors : private FewDescriptors, public AnAdmission {};

TEST_F(AnAdmissionWithFewDescriptors, GivesNoMoreSlots)
{
    name("h");
    for (int i = 0; i < 20; ++i) {
        add(20, std::to_string(i), "h/" + std::to_string(i));
    }
    EXPECT_EQ(fill(), 10);
}

TEST(AWidth, IsRaisedLaterAfterAQuickAnswer)
{
    const auto now = Width::Clock::now();
    const auto since = now - seconds(1);
    Width width;
    width.begun();
    width.begun();
    width.ended(now - 2 * kQuick, now);
    EXPECT_EQ(width.widensAt(since), since + kPatience);
    width.ended(now - kQuick, now);
    EXPECT_EQ(width.widensAt(since), now + kPatience);
}

TEST_F(AnAdmission, ServesTheLanesInTurn)
{
    name("h");
    add(3, "a", "h/list");
    add(2, "b", "h/list");
    add(1, "a", "h/confirm?x=1");
    EXPECT_EQ(fill(), 6);
    std::vector<std::string> order;
    for (const Transfer* const transfer : given) {
        order.push_back(transfer->options.url +
                        (transfer->place.lane == given[1]->place.lane ? " b" : " a"));
    }
    EXPECT_THAT(order, testing::ElementsAre("h/list a", "h/list b", "h/confirm?x=1 a", "h/list a",
                                            "h/list b", "h/list a"));
}

TEST_F(AnAdmission, GivesOneSenderTwoThirdsAtMost)
{
    name("h");
    for (int i = 0; i < 10; ++i) {
        add(kSlots, "greedy", "h/" + std::to_string(i));
    }
    const int taken = fill();
    EXPECT_GE(taken, kSlots * 2 / 3 - 1);
    EXPECT_LE(taken, kSlots * 2 / 3 + 1);
    add(1, "modest", "h/0");
    EXPECT_EQ(fill(), 1) << "another sender goes at once";
}

TEST_F(AnAdmission, GivesOnePathFourFifthsAtMost)
{
    name("h");
    for (int i = 0; i < 20; ++i) {
        add(kSlots / 4, std::to_string(i), "h/hanging?query=" + std::to_string(i));
    }
    const int taken = fill();
    EXPECT_GE(taken, kSlots * 4 / 5 - 1);
    EXPECT_LE(taken, kSlots * 4 / 5 + 1);
    add(1, "another", "h/other");
    EXPECT_EQ(fill(), 1) << "another path goes at once";
}

TEST_F(AnAdmission, GivesAReleasedSlotToTheNext)
{
    name("h");
    add(kSlots, "a", "h/a");
    const int taken = fill();
    ASSERT_LT(taken, kSlots);
    admission.release(*given.front(), {});
    EXPECT_EQ(fill(), 1);
    EXPECT_EQ(fill(), 0);
    leave(*given.back());
    EXPECT_EQ(fill(), 1) << "one that is taken out gives its slot back, too";
}

TEST_F(AnAdmission, LetsFewLookUpANameAtATime)
{
    add(100, "a", "mute/a", "mute");
    EXPECT_EQ(fill(), kResolvers);
    admission.release(*given.front(), {});
    EXPECT_EQ(fill(), 1) << "a look-up that has failed makes room";
    admission.resolved(*given.back());
    EXPECT_GT(fill(), kResolvers) << "the name is known";
}

TEST_F(AnAdmission, LetsAKnownHostPassAMuteNameServer)
{
    name("known");
    add(100, "a", "mute/a", "mute");
    EXPECT_EQ(fill(), kResolvers);
    add(1, "b", "known/b", "known");
    EXPECT_EQ(fill(), 1);
    now += kNameLife + seconds(1);
    add(1, "b", "known/b", "known");
    EXPECT_EQ(fill(), 0) << "libcurl has forgotten the name";
}

TEST_F(AnAdmission, EndsTheTurnOfOneThatWaitedTooLong)
{
    add(kResolvers + 2, "a", "mute/a", "mute");
    EXPECT_EQ(fill(), kResolvers);
    now += kLongestTurn - seconds(1);
    EXPECT_EQ(admission.overdue(now, active), nullptr);
    now += seconds(1);
    EXPECT_NE(admission.overdue(now, active), nullptr);
    EXPECT_NE(admission.overdue(now, active), nullptr);
    EXPECT_EQ(admission.overdue(now, active), nullptr);
    EXPECT_FALSE(admission.isWaiting());
}

TEST_F(AnAdmission, LetsFewGetsGoToAHostWhoseAnswersComeBack)
{
    name("h");
    addGets(100, "a", "h/a");
    EXPECT_EQ(fill(), kFirst);
    for (int i = 0; i < 50; ++i) {
        now += kPatience / 2;
        answer(i, kQuick / 2);
        admission.widen(now);
        EXPECT_EQ(fill(), 1) << i;
    }
}

TEST_F(AnAdmission, LetsMoreGetsGoWhileAllAnswersAreSlow)
{
    name("h");
    addGets(100, "a", "h/a");
    EXPECT_EQ(fill(), kFirst);
    now += kPatience / 2;
    answer(0, 2 * kQuick);
    admission.widen(now);
    EXPECT_EQ(fill(), 1);
    now += kPatience / 2 + std::chrono::milliseconds(1);
    answer(1, 2 * kQuick);
    EXPECT_EQ(fill(), 1);
    admission.widen(now);
    EXPECT_EQ(fill(), kFirst);
}

TEST_F(AnAdmission, LetsMoreGetsGoWhileNothingComesBack)
{
    name("h");
    addGets(100, "a", "h/a");
    EXPECT_EQ(fill(), kFirst);
    now += kPatience - std::chrono::milliseconds(1);
    admission.widen(now);
    EXPECT_EQ(fill(), 0);
    EXPECT_EQ(admission.waitBound(now, 1000), 1);
    now += std::chrono::milliseconds(1);
    admission.widen(now);
    EXPECT_EQ(fill(), kFirst);
    EXPECT_EQ(admission.waitBound(now, 1000), static_cast<int>(kPatience.count()));
}

TEST_F(AnAdmission, TakesTheRoomBackAfterAWhile)
{
    name("h");
    addGets(2 * kFirst, "a", "h/a");
    EXPECT_EQ(fill(), kFirst);
    now += kPatience;
    admission.widen(now);
    EXPECT_EQ(fill(), kFirst);
    EXPECT_EQ(admission.waitBound(now, 1000), 1000) << "nobody waits";
    for (Transfer* const transfer : given) {
        admission.release(*transfer, {});
    }
    now += kWideFor;
    addGets(2 * kFirst, "a", "h/a");
    EXPECT_EQ(fill(), kFirst);
}

TEST_F(AnAdmission, HasACallBesideManyThatHangWaitAMoment)
{
    name("h");
    addGets(kSlots, "a", "h/hangs");
    for (fill(); admission.waitBound(now, 1000) < 1000; fill()) {
        now += kPatience;
        admission.widen(now);
    }
    now += 20 * kWideFor;
    addGets(1, "b", "h/answers");
    admission.widen(now);
    EXPECT_EQ(fill(), 0);
    now += kPatience;
    admission.widen(now);
    EXPECT_EQ(fill(), 1);
}

TEST_F(AnAdmission, OpensFewConnectionsForASenderWhileNoneIsReady)
{
    name("h");
    addGets(kSlots, "a", "h/a");
    for (fill(); admission.waitBound(now, 1000) < 1000; fill()) {
        now += kPatience;
        admission.widen(now);
    }
    EXPECT_THAT(given, testing::SizeIs(kMostOpening)) << "and no timer runs for the others";

    addGets(2, "b", "h/a");
    add(1, "a", "h/a");
    now += kPatience;
    admission.widen(now);
    EXPECT_EQ(fill(), 2) << "those of another sender; the POST is behind its lane's GETs";

    for (int i = 0; i < 3; ++i) {
        admission.sending(*given[static_cast<std::size_t>(i)]);
    }
    admission.release(*given[3], {});
    now += kPatience;
    admission.widen(now);
    EXPECT_EQ(fill(), 4);
}

TEST_F(AnAdmission, HasNeitherAPostNorAnotherHostWaitForGets)
{
    name("h");
    name("other");
    addGets(100, "a", "h/a");
    EXPECT_EQ(fill(), kFirst);
    add(1, "a", "h/confirm");
    addGets(1, "a", "other/a", "other");
    EXPECT_EQ(fill(), 2);
}

TEST_F(AnAdmission, AcceptsSoManyOfASenderAndAPath)
{
    std::size_t accepted = 0;
    while (add("greedy", "h/" + std::to_string(accepted % 7)) != nullptr) {
        ++accepted;
    }
    EXPECT_NEAR(static_cast<double>(accepted), kMostAccepted * 2.0 / 3, 2);
    EXPECT_NE(add("modest", "h/0"), nullptr);
}

TEST_F(AnAdmission, ForgetsSendersThatHaveGone)
{
    // Kept senders, paths and hosts would take memory without a bound.
    const auto serve = [this](int from, int count) {
        for (int i = from; i < from + count; ++i) {
            const std::string name = std::to_string(i);
            Transfer* const transfer = add(name, "h/" + name, "h" + name);
            ASSERT_EQ(admission.next(now, active), transfer);
            leave(*transfer);
            made.clear();
        }
    };
    serve(0, 1000);
    const std::size_t before = mallinfo2().uordblks;
    serve(1000, 10000);
    // A sender with its path, host and lane takes more than 200 bytes.
    EXPECT_LT(mallinfo2().uordblks, before + 500000);
    add(2, "a", "h/a");
    EXPECT_EQ(fill(), 2);
}

}  // namespace
