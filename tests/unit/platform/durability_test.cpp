// durability_test.cpp - named data over a power cut: what is written out, and when. The functions of the C library
// that write, rename, remove and overwrite are replaced by ones that take notes.
#include "device_conf.h"

#include <platform/secure_storage.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

namespace {

/// The one timeline of all replaced functions.
std::vector<std::string> g_events;
int g_syncError = 0;
int g_renameError = 0;

std::string kindOf(int file)
{
    struct stat status {};
    fstat(file, &status);
    return S_ISDIR(status.st_mode) ? "folder" : "file";
}

}  // namespace

extern "C" int fsync(int file)
{
    g_events.push_back("sync " + kindOf(file));
    errno = g_syncError;
    return g_syncError == 0 ? 0 : -1;
}

extern "C" int renameat(int oldFolder, const char* oldName, int newFolder,
                        const char* newName) noexcept
{
    g_events.push_back("rename " + std::string(oldName));
    if (g_renameError != 0) {
        errno = g_renameError;
        return -1;
    }
    return static_cast<int>(syscall(SYS_renameat2, oldFolder, oldName, newFolder, newName, 0));
}

extern "C" void OPENSSL_cleanse(void* bytes, std::size_t size)
{
    const auto* const first = static_cast<const char*>(bytes);
    const std::string text = "secret data";
    if (std::search(first, first + size, text.begin(), text.end()) != first + size)
        g_events.push_back("wipe " + std::to_string(size));
    explicit_bzero(bytes, size);
}

namespace {

using testing::ElementsAre;

class NamedData : public testing::Test {
protected:
    void SetUp() override
    {
        conf.set("keystore", "store", folder.path() + "/store");
        ASSERT_EQ(ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0), 0);
        ASSERT_EQ(write("old"), 0);
        g_events.clear();
    }
    void TearDown() override
    {
        g_syncError = 0;
        g_renameError = 0;
    }

    int write(const std::string& data) const
    {
        return ss_write(reinterpret_cast<const unsigned char*>(data.data()), data.size(), nullptr,
                        0, "name", &client, 33);
    }
    std::string read() const
    {
        unsigned char* buffer = nullptr;
        std::size_t size = 0;
        EXPECT_EQ(ss_read(&buffer, &size, 0, 0, "name", &client, 33), 0);
        std::string data(reinterpret_cast<const char*>(buffer), size);
        ss_free_buffer(buffer);
        return data;
    }

    device::Folder folder;
    device::Conf conf;
    device::CapturedLog log;
    ss_credential_s client{};
};

TEST_F(NamedData, AreWrittenOutBeforeTheyTakeTheirNameAndSoIsTheName)
{
    EXPECT_EQ(write("new"), 0);
    EXPECT_THAT(g_events, ElementsAre("sync file", "rename new", "sync folder"));
    EXPECT_EQ(read(), "new");
}

TEST_F(NamedData, ThatAreDeletedStayDeleted)
{
    EXPECT_EQ(ss_delete(0, "name", &client, 33), 0);
    EXPECT_THAT(g_events, ElementsAre("sync folder"));
}

TEST_F(NamedData, ThatCannotBeWrittenOutDoNotTakeTheirName)
{
    g_syncError = EIO;
    EXPECT_EQ(write("new"), SS_ERROR_UNAVAILABLE);
    EXPECT_THAT(g_events, ElementsAre("sync file"));
    EXPECT_THAT(log.text(),
                testing::HasSubstr("the store cannot be written out: Input/output error; check"));
    EXPECT_EQ(read(), "old");
}

TEST_F(NamedData, SayWhyTheyCannotTakeTheirName)
{
    const std::pair<int, int> errors[] = {
        {EACCES, SS_ERROR_ACCESS},   {EPERM, SS_ERROR_ACCESS},     {EROFS, SS_ERROR_ACCESS},
        {EIO, SS_ERROR_UNAVAILABLE}, {ENOMEM, SS_ERROR_NO_MEMORY},
    };
    for (const auto& [error, code] : errors) {
        g_renameError = error;
        EXPECT_EQ(write("new"), code) << error;
        EXPECT_EQ(read(), "old");
    }
    EXPECT_NE(access((folder.path() + "/store/new").c_str(), F_OK), 0) << "nothing stays behind";
}

TEST_F(NamedData, AreWipedWhenTheirBufferIsReleased)
{
    ASSERT_EQ(write("secret data"), 0);
    unsigned char* buffer = nullptr;
    std::size_t size = 0;
    ASSERT_EQ(ss_read(&buffer, &size, 0, 0, "name", &client, 33), 0);
    g_events.clear();
    ss_free_buffer(buffer);
    EXPECT_THAT(g_events, ElementsAre("wipe 11"));
}

}  // namespace
