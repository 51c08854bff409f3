// environment_test.cpp - which variables the process keeps.
#include "process/environment.h"

#include "child.h"
#include "test_certificates.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using testing::IsEmpty;
using Variables = std::vector<std::string>;

/// Cleans an environment that has only these variables.
/// @return the variables that are left, a line each
std::string cleaned(Variables given)
{
    std::vector<char*> all;
    for (std::string& variable : given)
        all.push_back(variable.data());
    all.push_back(nullptr);
    environ = all.size() == 1 ? nullptr : all.data();
    process::cleanEnvironment();
    std::string left;
    for (char** variable = environ; *variable != nullptr; variable++)
        left += std::string(*variable) + "\n";
    return left;
}

std::string lines(const Variables& variables)
{
    std::string text;
    for (const std::string& variable : variables)
        text += variable + "\n";
    return text;
}

const std::string kRunFolder = "XDG_RUNTIME_DIR=/";

TEST(TheEnvironment, KeepsWhatIsKnownAsHarmless)
{
    const Variables harmless{"PLEVO_LOG_LEVEL=info",
                             "PLEVO_=1",
                             "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/bus",
                             "DBUS_STARTER_BUS_TYPE=system",
                             "JOURNAL_STREAM=8:1",
                             "NOTIFY_SOCKET=/run/n",
                             "INVOCATION_ID=1",
                             kRunFolder,
                             "PATH=a=b",
                             "HOME=/",
                             "USER=u",
                             "LOGNAME=u",
                             "TERM=xterm",
                             "LANG=C",
                             "LANGUAGE=en",
                             "LC_ALL=C",
                             "TZ=UTC",
                             "TZDIR=/z",
                             "G_DEBUG=",
                             "G_MESSAGES_DEBUG=all",
                             "G_SLICE=x",
                             "MALLOC_ARENA_MAX=1",
                             "GLIBC_TUNABLES=x",
                             "ASAN_OPTIONS=x",
                             "LSAN_OPTIONS=x",
                             "MSAN_OPTIONS=x",
                             "TSAN_OPTIONS=x",
                             "UBSAN_OPTIONS=x",
                             "GCOV_PREFIX=x",
                             "LLVM_PROFILE_FILE=x",
                             "SOFTHSM2_CONF=x",
                             "TPM2_PKCS11_STORE=x",
                             "TSS2_LOG=x",
                             "OPENSC_CONF=x",
                             "P11_KIT_DEBUG=x",
                             "PKCS11_ANYTHING=x"};
    EXPECT_EQ(test::inChild([&] { return cleaned(harmless); }), lines(harmless));
}

TEST(TheEnvironment, LosesEverythingElse)
{
    const Variables others{"https_proxy=http://p", "SSL_CERT_FILE=/f", "SSLKEYLOGFILE=/f",
                           "OPENSSL_CONF=/f", "RES_OPTIONS=x", "DBUS_SESSION_BUS_ADDRESS=x",
                           // names that only begin or end like one that stays
                           "PLEVO=1", "XPLEVO_LOG_LEVEL=1", "PATHS=x", "PAT=x", "XPATH=x", "LC=x",
                           "SOFTHSM2=x", "XSOFTHSM2_CONF=x", "XDG_RUNTIME_DIRS=/", "OTHER=PATH=x"};
    Variables given = others;
    given.insert(given.begin() + 3, kRunFolder);
    EXPECT_EQ(test::inChild([&] { return cleaned(given); }), lines({kRunFolder}));
}

TEST(TheEnvironment, MayHaveNoVariables)
{
    EXPECT_EQ(test::inChild([] { return cleaned({}); }), "XDG_RUNTIME_DIR=/run\n");
}

TEST(TheRunFolder, IsReplacedWhereItIsNone)
{
    for (const std::string folder : {"", ".", "/no/such/folder", "/etc/passwd"}) {
        EXPECT_EQ(test::inChild([&] { return cleaned({"XDG_RUNTIME_DIR=" + folder}); }),
                  "XDG_RUNTIME_DIR=/run\n")
            << folder;
    }
}

TEST(TheRunFolder, IsTheOneForTemporaryFilesOnASystemWithoutRun)
{
    const test::TemporaryFolder empty;
    const std::string left = test::inChild(
        [&] { return test::enterRoot(empty.path("")) ? cleaned({"PATH=x"}) : std::string(); });
    if (left.empty())
        GTEST_SKIP() << "only root, or a user with a name space, can have another root folder";
    EXPECT_EQ(left, "PATH=x\nXDG_RUNTIME_DIR=/tmp\n");
}

}  // namespace
