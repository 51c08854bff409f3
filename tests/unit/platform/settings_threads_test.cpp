// settings_threads_test.cpp - several threads read the settings and write the log while the file changes.
#include "device_conf.h"
#include "linux/settings/settings.h"

#include <platform/config.h>
#include <platform/log.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <thread>

namespace {

constexpr int kReads = 20000;

/// True if the value is a whole value of one version of the file.
bool isWhole(const std::string& value)
{
    return value == std::string(2000, 'a') || value == std::string(3000, 'b');
}

TEST(SettingsThreads, ReadWholeValuesOrNoneWhileTheFileIsReplaced)
{
    const device::CapturedLog log;
    const device::Conf conf;
    const std::string versions[] = {"[config]\ndb/comss/atoken=" + std::string(2000, 'a') + "\n",
                                    "[config]\ndb/comss/atoken=" + std::string(3000, 'b') + "\n"};
    conf.write(versions[0]);
    std::atomic<int> running{3};
    std::atomic<int> whole{0};
    std::atomic<int> broken{0};
    const auto reader = [&] {
        for (int i = 0; i < kReads; i++) {
            char* const value = vconf_get_str("db/comss/atoken");
            if (value != nullptr)
                (isWhole(value) ? whole : broken)++;
            free(value);
        }
        running--;
    };
    std::thread readers[] = {std::thread(reader), std::thread(reader), std::thread(reader)};
    for (int i = 0; running > 0; i++) {
        if (i % 7 == 6)
            conf.remove();
        else
            conf.replace(versions[i % 2]);
    }
    for (std::thread& thread : readers)
        thread.join();
    EXPECT_EQ(broken, 0);
    EXPECT_GT(whole, 0);
}

TEST(SettingsThreads, SurviveAFileThatIsWrittenInPlaceAndCut)
{
    const device::CapturedLog log;
    const device::Conf conf;
    conf.write("[account]\nguid=g\n");
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        const std::string line = "[account]\nguid=" + std::string(500, 'g') + "\nnonsense\n";
        for (std::size_t i = 0; !stop; i++)
            conf.write(line.substr(0, i % line.size()));
    });
    for (int i = 0; i < kReads; i++)
        settings::text("account", "guid");
    stop = true;
    writer.join();
    conf.write("[account]\nguid=end\n");
    EXPECT_EQ(settings::text("account", "guid"), "end");
}

#define BLANKS_50 "                                                  "
#define BLANKS_300 BLANKS_50 BLANKS_50 BLANKS_50 BLANKS_50 BLANKS_50 BLANKS_50

TEST(LogThreads, WriteWholeLines)
{
    const device::CapturedLog log;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; thread++) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 500; i++)
                __dlog_print(DLOG_ERROR, "T", "thread %d record %d" BLANKS_300, thread, i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> lines = log.lines();
    const std::set<std::string> different(lines.begin(), lines.end());
    EXPECT_EQ(lines.size(), 2000U);
    EXPECT_EQ(different.size(), 2000U);
    EXPECT_THAT(lines, testing::Each(testing::StartsWith("E/T: thread ")));
}

}  // namespace
