// token_rights_test.cpp - a token that the daemon may read but not write. Each step runs in a process of its
// own, because the token's library caches what it has read.
#include "rsa_key.h"
#include "soft_token.h"

#include <platform/secure_storage.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

namespace {

namespace fs = std::filesystem;
using test::Bytes;

constexpr uid_t kNobody = 65534;

/// Runs the step as that user in a process of its own.
/// @return the result of the step
int inAProcess(uid_t user, const std::function<int()>& step)
{
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(user) != 0 || setuid(user) != 0)
            _exit(100);
        _exit(step());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

std::map<std::string, std::string> contents(const std::string& folder)
{
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file())
            continue;
        std::ifstream in(entry.path(), std::ios::binary);
        found[entry.path()] = {std::istreambuf_iterator<char>(in), {}};
    }
    return found;
}

void openToReaders(const std::string& folder)
{
    chmod(folder.c_str(), 0755);
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        chmod(entry.path().c_str(), entry.is_directory() ? 0755 : 0644);
}

TEST(ATokenOfAnotherUser, SignsAndIsNotRewritten)
{
    if (device::softTokenModule().empty())
        GTEST_SKIP() << "softhsm2 is not installed (apt install softhsm2)";
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can be two users";
    const device::SoftToken token;
    device::Conf conf;
    token.use(conf, device::softTokenModule());
    const test::RsaKey key = test::RsaKey::make();
    ss_credential_s client{};
    ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0);

    ASSERT_EQ(inAProcess(0,
                         [&] {
                             const Bytes n = key.modulus();
                             const Bytes d = key.privateExponent();
                             std::int32_t id = 7;
                             return ss_store_rsa_key(&client, SS_KEY_RSA, SS_KEY_SIGN, n.data(),
                                                     n.size(), d.data(), d.size(), 0, 0, &id, 0, 0);
                         }),
              0);
    openToReaders(token.folder());
    openToReaders(fs::path(conf.path()).parent_path());
    ASSERT_EQ(chmod(token.pinFile().c_str(), 0600), 0);
    ASSERT_EQ(chown(token.pinFile().c_str(), kNobody, kNobody), 0);
    const auto before = contents(token.tokens());

    const auto sign = [&] {
        Bytes block = test::paddedBlock();
        unsigned char* at = block.data();
        std::size_t size = block.size();
        if (const int error = ss_encrypt_by_key(&client, 7, &at, &size, 0, 0))
            return error;
        return key.publicOperation(Bytes(at, at + size)) == block ? 0 : 102;
    };
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(inAProcess(kNobody, sign), 0);
    EXPECT_NE(inAProcess(kNobody, [&] { return ss_remove_key(&client, 7); }), 0);
    EXPECT_EQ(contents(token.tokens()), before);
    EXPECT_EQ(inAProcess(kNobody, sign), 0);
}

}  // namespace
