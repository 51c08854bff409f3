// vault_test.cpp - the vault under power cuts, tampering and missing rights.
#include "keystore/vault.h"

#include "device_conf.h"
#include "keystore/secure_error.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace {

namespace fs = std::filesystem;

class AVault : public testing::Test {
protected:
    void write(const std::string& name, const std::string& data) const
    {
        vault.write(client, name, reinterpret_cast<const unsigned char*>(data.data()), data.size());
    }
    std::string read(const std::string& name) const
    {
        const secret::Bytes data = vault.read(client, name);
        return {data.begin(), data.end()};
    }
    ss_error_e errorOfRead(const std::string& name) const
    {
        try {
            vault.read(client, name);
        } catch (const secure::Error& error) {
            return error.code();
        }
        return SS_ERROR_NONE;
    }
    ss_error_e errorOfWrite(const std::string& name) const
    {
        try {
            write(name, "x");
        } catch (const secure::Error& error) {
            return error.code();
        }
        return SS_ERROR_NONE;
    }
    /// Upper limit of a writer's life in microseconds: the time of four writes as measured here, since
    /// machines differ in speed.
    useconds_t someWrites() const
    {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 4; i++)
            write("name", std::string(300000, 'w'));
        const std::chrono::microseconds spent =
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                  start);
        return std::max<useconds_t>(8000, static_cast<useconds_t>(spent.count()));
    }
    std::vector<fs::path> dataFiles() const
    {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(path)) {
            if (entry.path().extension() == ".data")
                found.push_back(entry.path());
        }
        return found;
    }
    static std::string bytesOf(const fs::path& file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void overwrite(const fs::path& file, const std::string& bytes)
    {
        std::ofstream(file, std::ios::binary) << bytes;
    }

    device::Folder folder;
    std::string path = folder.path() + "/store";
    keystore::Vault vault{path};
    ss_credential_s client{{1, 2, 3, 4, 5}, 1, 0};
};

TEST_F(AVault, HoldsTheOldOrTheNewDataAfterAKillAtAnyMoment)
{
    // Values are long enough for a kill to come in the middle of a write.
    const std::string values[] = {std::string(300000, 'a'), std::string(200000, 'b')};
    std::mt19937 random(20240229);
    std::uniform_int_distribution<useconds_t> moment(0, someWrites());
    write("name", values[0]);
    int seen[2] = {};
    for (int round = 0; round < 200; round++) {
        const pid_t writer = fork();
        if (writer == 0) {
            for (int i = 0;; i++)
                write("name", values[(i + round) % 2]);
        }
        usleep(moment(random));
        kill(writer, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        ASSERT_TRUE(WIFSIGNALED(status));
        const std::string found = read("name");
        ASSERT_TRUE(found == values[0] || found == values[1]) << "torn in round " << round;
        seen[found == values[1] ? 1 : 0]++;
    }
    printf("200 kills: %d times the one, %d times the other, none torn\n", seen[0], seen[1]);
    EXPECT_GT(seen[0], 0);
    EXPECT_GT(seen[1], 0);
    write("name", "still writable");
    EXPECT_EQ(read("name"), "still writable");
    const auto files = std::distance(fs::directory_iterator(path), fs::directory_iterator());
    EXPECT_EQ(files, 3) << "data, key and lock; nothing of a killed writer";
}

// The writer deletes the name first, like the service.
TEST_F(AVault, HoldsTheOldTheNewOrNoDataWhenTheyAreDeletedFirst)
{
    const std::string values[] = {std::string(300000, 'a'), std::string(200000, 'b')};
    std::mt19937 random(20240301);
    std::uniform_int_distribution<useconds_t> moment(0, 8000);
    int seen[3] = {};
    for (int round = 0; round < 200; round++) {
        write("name", values[round % 2]);
        const pid_t writer = fork();
        if (writer == 0) {
            for (int i = 1;; i++) {
                vault.remove(client, "name");
                write("name", values[(i + round) % 2]);
            }
        }
        usleep(moment(random));
        kill(writer, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        ASSERT_TRUE(WIFSIGNALED(status));
        if (errorOfRead("name") == SS_ERROR_NOT_FOUND) {
            seen[2]++;
            continue;
        }
        const std::string found = read("name");
        ASSERT_TRUE(found == values[0] || found == values[1]) << "torn in round " << round;
        seen[found == values[1] ? 1 : 0]++;
    }
    printf("200 kills: %d times the one, %d times the other, %d times none, none torn\n", seen[0],
           seen[1], seen[2]);
    EXPECT_GT(seen[0] + seen[1], 0);
    EXPECT_GT(seen[2], 0);
}

TEST_F(AVault, KeepsItsFilesFromOthersWhateverTheUmask)
{
    const mode_t before = umask(0);
    write("name", "data");
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    int files = 0;
    for (const auto& entry : fs::directory_iterator(path)) {
        ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600U) << entry.path();
        files++;
    }
    EXPECT_EQ(files, 3);
}

TEST_F(AVault, ShowsNeitherNamesNorData)
{
    write("the-secret-name", "the-secret-data");
    for (const auto& entry : fs::directory_iterator(path)) {
        EXPECT_THAT(entry.path().string(), testing::Not(testing::HasSubstr("secret")));
        EXPECT_THAT(bytesOf(entry.path()), testing::Not(testing::HasSubstr("secret")));
    }
}

TEST_F(AVault, ReadsNoFileThatWasChangedAnywhere)
{
    write("name", "data");
    const fs::path file = dataFiles().at(0);
    const std::string good = bytesOf(file);
    for (std::size_t i = 0; i < good.size(); i++) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ 1);
        overwrite(file, bad);
        EXPECT_EQ(errorOfRead("name"), SS_ERROR_BROKEN) << "byte " << i;
    }
    for (const std::size_t size : {std::size_t{0}, std::size_t{7}, good.size() - 1}) {
        overwrite(file, good.substr(0, size));
        EXPECT_EQ(errorOfRead("name"), SS_ERROR_BROKEN) << size;
    }
    overwrite(file, good);
    EXPECT_EQ(read("name"), "data");
}

TEST_F(AVault, ReadsNoFileThatIsPassedOffAsAnother)
{
    write("one", "1");
    const fs::path first = dataFiles().at(0);
    write("two", "2");
    for (const fs::path& file : dataFiles()) {
        if (file != first)
            fs::copy_file(first, file, fs::copy_options::overwrite_existing);
    }
    EXPECT_EQ(read("one"), "1");
    EXPECT_EQ(errorOfRead("two"), SS_ERROR_BROKEN);
}

TEST_F(AVault, DoesNotBuryDataUnderANewKeyWhenItsKeyIsGone)
{
    write("name", "data");
    fs::rename(path + "/store.key", folder.path() + "/kept");
    EXPECT_EQ(errorOfRead("name"), SS_ERROR_ACCESS);
    EXPECT_EQ(errorOfWrite("other"), SS_ERROR_ACCESS);
    fs::rename(folder.path() + "/kept", path + "/store.key");
    EXPECT_EQ(read("name"), "data");
}

TEST_F(AVault, DoesNotUseWhatIsOpenToOthers)
{
    write("name", "data");
    chmod((path + "/store.key").c_str(), 0640);
    EXPECT_EQ(errorOfRead("name"), SS_ERROR_ACCESS);
    EXPECT_EQ(errorOfWrite("name"), SS_ERROR_ACCESS);
    chmod((path + "/store.key").c_str(), 0600);
    chmod(path.c_str(), 0750);
    EXPECT_EQ(errorOfRead("name"), SS_ERROR_ACCESS);
    EXPECT_EQ(errorOfWrite("name"), SS_ERROR_ACCESS);
    chmod(path.c_str(), 0700);
    EXPECT_EQ(read("name"), "data");
}

TEST_F(AVault, FollowsNoLinkThatSomebodyPutInTheWay)
{
    write("name", "data");
    const fs::path file = dataFiles().at(0);
    const fs::path target = folder.path() + "/target";
    overwrite(target, "untouched");
    fs::remove(file);
    fs::create_symlink(target, file);
    fs::create_symlink(target, path + "/new");
    EXPECT_EQ(errorOfRead("name"), SS_ERROR_UNAVAILABLE) << "the name is not missing";
    write("name", "data");
    EXPECT_EQ(read("name"), "data");
    EXPECT_EQ(bytesOf(target), "untouched");
}

TEST_F(AVault, SaysWhenItsFolderCannotBeMade)
{
    const keystore::Vault nowhere(folder.path() + "/no/such/parent");
    try {
        nowhere.write(client, "name", nullptr, 0);
        FAIL();
    } catch (const secure::Error& error) {
        EXPECT_EQ(error.code(), SS_ERROR_UNAVAILABLE);
        EXPECT_THAT(error.what(), testing::HasSubstr("/parent cannot be made: No such file"));
    }
    try {
        nowhere.read(client, "name");
        FAIL();
    } catch (const secure::Error& error) {
        EXPECT_EQ(error.code(), SS_ERROR_NOT_FOUND);
    }
}

TEST_F(AVault, KeepsTheOldDataAndNoRemainsWhenThereIsNoRoomForTheNew)
{
    write("name", "old");
    const auto before = dataFiles();
    rlimit unlimited{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit small{1000, unlimited.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    ss_error_e error = SS_ERROR_NONE;
    try {
        write("name", std::string(5000, 'n'));
    } catch (const secure::Error& thrown) {
        error = thrown.code();
        EXPECT_THAT(thrown.what(), testing::HasSubstr("File too large; make room for it"));
    }
    setrlimit(RLIMIT_FSIZE, &unlimited);
    signal(SIGXFSZ, SIG_DFL);

    EXPECT_EQ(error, SS_ERROR_UNAVAILABLE);
    EXPECT_EQ(read("name"), "old");
    EXPECT_EQ(dataFiles(), before);
    EXPECT_FALSE(fs::exists(path + "/new"));
}

TEST_F(AVault, SaysWhenAFileCannotBeRemoved)
{
    write("name", "data");
    const fs::path file = dataFiles().at(0);
    fs::remove(file);
    fs::create_directory(file);
    EXPECT_THROW(vault.remove(client, "name"), secure::Error);
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(AVault, IsNotWrittenWithoutItsLock)
{
    write("name", "old");
    fs::remove(path + "/lock");
    fs::create_symlink(path + "/store.key", path + "/lock");
    for (const int before : {0, EINTR}) {
        errno = before;
        EXPECT_EQ(errorOfWrite("name"), SS_ERROR_UNAVAILABLE);
    }
    EXPECT_EQ(read("name"), "old");
    fs::remove(path + "/lock");
    errno = EINTR;
    write("name", "new");
    EXPECT_EQ(read("name"), "new");
}

TEST_F(AVault, IsWrittenAlthoughASignalComesWhileItWaitsForTheLock)
{
    write("name", "old");
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const int lock = open((path + "/lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        EXPECT_EQ(errorOfWrite("name"), SS_ERROR_NONE);
        done = true;
    });
    for (int i = 0; i < 20; i++) {
        pthread_kill(writer.native_handle(), SIGUSR1);
        usleep(5000);
    }
    EXPECT_FALSE(done) << "the lock is held";
    close(lock);
    writer.join();
    EXPECT_EQ(read("name"), "x");
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(AVault, NeedsNoStandardInput)
{
    const pid_t child = fork();
    if (child == 0) {
        // The next descriptor is 0.
        close(STDIN_FILENO);
        if (errorOfWrite("name") != SS_ERROR_NONE || errorOfRead("name") != SS_ERROR_NONE)
            _exit(1);
        _exit(read("name") == "x" ? 0 : 2);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(AVault, GivesTwoWritersAndAReaderWholeData)
{
    const std::string values[] = {std::string(5000, 'a'), std::string(4000, 'b')};
    write("name", values[0]);
    std::atomic<bool> stop{false};
    std::thread writers[2];
    for (int w = 0; w < 2; w++) {
        writers[w] = std::thread([&, w] {
            while (!stop)
                write("name", values[w]);
        });
    }
    for (int i = 0; i < 300; i++) {
        const std::string found = read("name");
        EXPECT_TRUE(found == values[0] || found == values[1]);
    }
    stop = true;
    writers[0].join();
    writers[1].join();
}

}  // namespace
