// refused_pins_test.cpp - the digests of refused PINs: kept over a restart, for one token, without the PIN.
#include "keystore/refused_pins.h"

#include "device_conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

secret::Bytes pin(const std::string& text)
{
    return {text.begin(), text.end()};
}

class RefusedPins : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(mkdir(store.c_str(), 0700), 0); }

    /// Another process, or the same one after a restart.
    bool areKnownLater(const std::string& text, const std::string& token = "token") const
    {
        return keystore::RefusedPins().contains(store, token, pin(text));
    }
    std::string bytes() const
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    device::Folder folder;
    std::string store = folder.path() + "/store";
    std::string file = store + "/refused-pins";
    device::CapturedLog log;
    keystore::RefusedPins pins;
};

TEST_F(RefusedPins, AreKnownInThisProcessAndALaterOne)
{
    EXPECT_FALSE(pins.contains(store, "token", pin("1111")));
    pins.add(store, "token", pin("1111"));
    pins.add(store, "token", pin("2222"));
    for (const std::string text : {"1111", "2222"}) {
        EXPECT_TRUE(pins.contains(store, "token", pin(text)));
        EXPECT_TRUE(areKnownLater(text));
    }
    EXPECT_FALSE(pins.contains(store, "token", pin("3333")));
    EXPECT_FALSE(areKnownLater("3333"));
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(RefusedPins, AreThoseOfOneToken)
{
    pins.add(store, "token", pin("1111"));
    EXPECT_FALSE(pins.contains(store, "other", pin("1111")));
    EXPECT_FALSE(areKnownLater("1111", "other"));
}

TEST_F(RefusedPins, OfAnEarlierProcessStayWithThoseOfThisOne)
{
    pins.add(store, "token", pin("1111"));
    keystore::RefusedPins later;
    later.add(store, "token", pin("2222"));
    EXPECT_TRUE(areKnownLater("1111"));
    EXPECT_TRUE(areKnownLater("2222"));
}

TEST_F(RefusedPins, AreNotInTheirFile)
{
    pins.add(store, "token", pin("1111"));
    EXPECT_THAT(bytes(), testing::Not(testing::HasSubstr("1111")));
    EXPECT_EQ(bytes().size(), 64U) << "salt and digest";
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    const std::string before = bytes();
    fs::remove(file);
    keystore::RefusedPins().add(store, "token", pin("1111"));
    EXPECT_NE(bytes().substr(0, 32), before.substr(0, 32)) << "each file has a salt of its own";
    EXPECT_NE(bytes().substr(32), before.substr(32));
}

TEST_F(RefusedPins, AreTheLast32)
{
    for (int i = 0; i < 32; i++)
        pins.add(store, "token", pin("pin" + std::to_string(i)));
    EXPECT_TRUE(areKnownLater("pin0"));
    pins.add(store, "token", pin("pin32"));
    EXPECT_FALSE(pins.contains(store, "token", pin("pin0")));
    EXPECT_FALSE(areKnownLater("pin0"));
    EXPECT_TRUE(areKnownLater("pin1"));
    EXPECT_TRUE(areKnownLater("pin32"));
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(RefusedPins, EndWithTheProcessWithoutAFolder)
{
    pins.add("", "token", pin("1111"));
    EXPECT_TRUE(pins.contains("", "token", pin("1111")));
    EXPECT_FALSE(keystore::RefusedPins().contains("", "token", pin("1111")));
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(RefusedPins, AreThoseOfTheFolderThatIsAskedFor)
{
    const std::string other = folder.path() + "/other";
    pins.add(store, "token", pin("1111"));
    EXPECT_FALSE(pins.contains(other, "token", pin("1111")));
    EXPECT_TRUE(pins.contains(store, "token", pin("1111")));
}

TEST_F(RefusedPins, OfAFileThatWasCutAreNotRead)
{
    pins.add(store, "token", pin("1111"));
    pins.add(store, "token", pin("2222"));
    const std::string whole = bytes();
    ASSERT_EQ(whole.size(), 96U);
    fs::resize_file(file, 95);
    EXPECT_TRUE(areKnownLater("1111"));
    EXPECT_FALSE(areKnownLater("2222"));
    fs::resize_file(file, 31);
    EXPECT_FALSE(areKnownLater("1111"));
    keystore::RefusedPins().add(store, "token", pin("3333"));
    EXPECT_TRUE(areKnownLater("3333"));
}

TEST_F(RefusedPins, InAFileThatOthersCanReadAreNotUsedAndTheLogSaysSo)
{
    pins.add(store, "token", pin("1111"));
    chmod(file.c_str(), 0644);
    EXPECT_FALSE(areKnownLater("1111"));
    EXPECT_THAT(log.text(), testing::HasSubstr("refused PINs cannot be read, a new start would try "
                                               "them again: refused-pins of the store is open"));
}

TEST_F(RefusedPins, ThatCannotBeKeptAreKnownInThisProcessAndTheLogSaysSo)
{
    chmod(store.c_str(), 0755);
    pins.add(store, "token", pin("1111"));
    EXPECT_TRUE(pins.contains(store, "token", pin("1111")));
    EXPECT_THAT(log.text(), testing::HasSubstr("refused PINs cannot be written"));
    EXPECT_FALSE(fs::exists(file));
}

/// billing-provision may run as root, on the folder of the service's user or before there is one.
TEST_F(RefusedPins, OfRootTakeNoFolderFromTheService)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be two users";
    const std::string missing = folder.path() + "/missing";
    pins.add(missing, "token", pin("1111"));
    EXPECT_FALSE(fs::exists(missing));

    ASSERT_EQ(chmod(store.c_str(), 0700), 0);
    ASSERT_EQ(chown(store.c_str(), kNobody, kNobody), 0);
    keystore::RefusedPins others;
    others.add(store, "token", pin("1111"));
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(others.contains(store, "token", pin("1111")));
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(RefusedPins, OfTheServiceMakeItsFolder)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be two users";
    ASSERT_EQ(chown(folder.path().c_str(), kNobody, kNobody), 0);
    fs::remove(store);
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0)
            _exit(100);
        pins.add(store, "token", pin("1111"));
        _exit(areKnownLater("1111") ? 0 : 101);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
