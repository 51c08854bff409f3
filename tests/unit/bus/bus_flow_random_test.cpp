// bus_flow_random_test.cpp - random runs of the flow control: apps that read, read nothing, and leave.
#include "fake_bus.h"

#include <gmock/gmock.h>

#include <random>

using namespace BusLimits;

namespace {

constexpr const char* NO_OWNER = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr std::size_t APPS = 4;
constexpr unsigned STEPS = 300;
constexpr std::size_t SIZES[] = {400, 5000, 70000, MIB, MIB, 4 * MIB};
constexpr std::size_t REFUSAL = 400;

struct App {
    bool bThere = true;
    std::size_t uUnread = 0;
};

class ARandomRun : public ABusFlow, public ::testing::WithParamInterface<unsigned> {
protected:
    std::size_t any(std::size_t uBelow) { return m_oRandom() % uBelow; }
    App& anyApp() { return m_apps[":1." + std::to_string(any(APPS))]; }

    void sendOne()
    {
        const std::size_t uBytes = SIZES[any(std::size(SIZES))];
        const std::string strTo = ":1." + std::to_string(any(APPS));
        m_sizes[m_uSerial + 1] = uBytes;
        if (reply(strTo, uBytes)) {
            m_apps[strTo].uUnread += uBytes;
        }
    }

    void answerFirst()
    {
        if (m_oBus.asked.empty()) {
            return;
        }
        const FakeBus::Question tQuestion = m_oBus.asked.begin()->second;
        const App& tApp = m_apps[tQuestion.strName];
        if (!tApp.bThere) {
            fails(tQuestion.eKind, tQuestion.strName, NO_OWNER);
        } else if (tQuestion.eKind == BusQuestion::USER) {
            user(tQuestion.strName, 0);
        } else {
            unread(tQuestion.strName, static_cast<guint32>(tApp.uUnread));
        }
    }

    void step()
    {
        const std::size_t uWhat = any(120);
        if (uWhat < 40) {
            sendOne();
        } else if (uWhat < 80) {
            answerFirst();
        } else if (uWhat < 90) {
            anyApp().uUnread = 0;
        } else if (uWhat < 91) {
            anyApp().bThere = false;
        } else {
            pass(static_cast<gint64>(any(uWhat < 105 ? 5 : 700)));
        }
        for (; m_uSeen < m_oBus.released.size(); ++m_uSeen) {
            const auto& [strTo, uSerial] = m_oBus.released[m_uSeen];
            m_apps[strTo].uUnread += m_oBus.errors[m_uSeen].empty() ? m_sizes[uSerial] : REFUSAL;
        }
    }

    /// All apps leave, and the bus answers what it is asked.
    void end()
    {
        for (auto& [strName, tApp] : m_apps) {
            tApp.bThere = false;
        }
        for (gint64 iSpent = 0; iSpent < 10 * LONGEST_PAUSE_MS; iSpent += LONGEST_PAUSE_MS) {
            while (!m_oBus.asked.empty()) {
                answerFirst();
            }
            pass(LONGEST_PAUSE_MS);
        }
    }

    /// The last line of the log's story about each caller.
    std::map<std::string, std::string> lastLines() const
    {
        std::map<std::string, std::string> found;
        for (const std::string& strText : texts()) {
            for (const char* szPart : {" is held back", " goes on", " has left"}) {
                if (strText.find(szPart) != std::string::npos) {
                    found[strText.substr(0, strText.find(" ("))] = szPart;
                }
            }
        }
        return found;
    }

private:
    std::mt19937 m_oRandom{GetParam()};
    std::map<std::string, App> m_apps;
    std::map<guint32, std::size_t> m_sizes;  // of each reply, by its serial
    std::size_t m_uSeen = 0;                 // released replies that their app has
};

TEST_P(ARandomRun, EndsWithEachStoryToldAndNothingToWaitFor)
{
    for (unsigned u = 0; u < STEPS; u++) {
        step();
    }
    end();
    for (const auto& [strCaller, strLast] : lastLines()) {
        EXPECT_NE(strLast, " is held back") << strCaller;
    }
    EXPECT_FALSE(m_oBus.iWakeAt);
    EXPECT_EQ(m_oBus.uEnds, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ARandomRun, ::testing::Range(1u, 41u));

}  // namespace
