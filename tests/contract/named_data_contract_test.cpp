// named_data_contract_test.cpp - the contract of named data, tested on a backend.
#include "rsa_key.h"
#include "secure_device.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

using test::Bytes;
using testing::IsEmpty;

namespace {

constexpr int kSealed = 33;

class NamedData : public ASecureDevice {
protected:
    int write(const std::string& name, const std::string& data)
    {
        return ss_write(reinterpret_cast<const unsigned char*>(data.data()), data.size(), nullptr,
                        0, name.c_str(), &client, kSealed);
    }
    int remove(const std::string& name) { return ss_delete(0, name.c_str(), &client, kSealed); }
    /// @return the data; nullopt with the error number after a failure, which leaves the outputs untouched
    std::optional<std::string> read(const std::string& name, int* error = nullptr)
    {
        unsigned char mark = 0;
        unsigned char* buffer = &mark;
        std::size_t size = 12345;
        const int result = ss_read(&buffer, &size, 0, 0, name.c_str(), &client, kSealed);
        if (error != nullptr)
            *error = result;
        if (result != 0) {
            EXPECT_EQ(buffer, &mark);
            EXPECT_EQ(size, 12345U);
            return std::nullopt;
        }
        EXPECT_NE(buffer, nullptr);
        std::string data(reinterpret_cast<char*>(buffer), size);
        ss_free_buffer(buffer);
        return data;
    }
};

TEST_F(NamedData, AreReadAsTheyWereWritten)
{
    const std::string odd("\0\xff text\n\0", 9);
    EXPECT_EQ(write("name", odd), 0);
    EXPECT_EQ(read("name"), odd);
    EXPECT_THAT(arrange::secureErrors(), IsEmpty());
}

TEST_F(NamedData, OfNoBytesAreABufferOfSizeZero)
{
    EXPECT_EQ(write("name", ""), 0);
    EXPECT_EQ(read("name"), "");
    EXPECT_EQ(ss_write(nullptr, 0, nullptr, 0, "other", &client, kSealed), 0);
    EXPECT_EQ(read("other"), "");
}

TEST_F(NamedData, AreNotFoundUnderANameThatWasNeverWritten)
{
    int error = 0;
    EXPECT_EQ(read("name", &error), std::nullopt);
    EXPECT_EQ(error, SS_ERROR_NOT_FOUND);
    EXPECT_EQ(remove("name"), SS_ERROR_NOT_FOUND);
    EXPECT_EQ(write("other", "x"), 0);
    EXPECT_EQ(read("name", &error), std::nullopt);
    EXPECT_EQ(error, SS_ERROR_NOT_FOUND);
    EXPECT_EQ(remove("name"), SS_ERROR_NOT_FOUND);
}

TEST_F(NamedData, AreReplacedAndDeleted)
{
    EXPECT_EQ(write("name", "first, which is long"), 0);
    EXPECT_EQ(write("name", "second"), 0);
    EXPECT_EQ(read("name"), "second");
    EXPECT_EQ(remove("name"), 0);
    EXPECT_EQ(read("name"), std::nullopt);
    EXPECT_EQ(write("name", "third"), 0);
    EXPECT_EQ(read("name"), "third");
}

TEST_F(NamedData, MayBeOneMebibyteAndNoMore)
{
    const std::string most(1024 * 1024, 'm');
    EXPECT_EQ(write("name", most), 0);
    EXPECT_EQ(read("name"), most);
    EXPECT_EQ(write("name", most + "m"), SS_ERROR_PARAMETER);
    EXPECT_EQ(read("name"), most);
}

TEST_F(NamedData, HaveNamesOf1To255BytesOfAnyKind)
{
    const std::string names[] = {
        "a",  std::string(255, 'n'), "../escape", "/etc/passwd", "a b",          ".",
        "..", "store.key",           "lock",      "new",         "\xff\x01\n%s", "A"};
    for (const std::string& name : names)
        EXPECT_EQ(write(name, "data of " + name), 0) << name;
    for (const std::string& name : names)
        EXPECT_EQ(read(name), "data of " + name);
    EXPECT_EQ(write("", "x"), SS_ERROR_PARAMETER);
    EXPECT_EQ(write(std::string(256, 'n'), "x"), SS_ERROR_PARAMETER);
}

TEST_F(NamedData, BelongToTheirClient)
{
    EXPECT_EQ(write("name", "mine"), 0);
    ss_init_credential(&client, 1, 2, 3, 4, 6, 1, 0);
    EXPECT_EQ(read("name"), std::nullopt);
    EXPECT_EQ(remove("name"), SS_ERROR_NOT_FOUND);
    EXPECT_EQ(write("name", "theirs"), 0);
    ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0);
    EXPECT_EQ(read("name"), "mine");
}

TEST_F(NamedData, RefuseWrongArguments)
{
    unsigned char* buffer = nullptr;
    std::size_t size = 0;
    const unsigned char data[] = {1};
    const ss_credential_s nobody{};
    EXPECT_EQ(write("name", "kept"), 0);
    EXPECT_EQ(ss_read(nullptr, &size, 0, 0, "name", &client, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_read(&buffer, nullptr, 0, 0, "name", &client, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_read(&buffer, &size, 0, 0, nullptr, &client, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_read(&buffer, &size, 0, 0, "name", nullptr, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_read(&buffer, &size, 0, 0, "name", &nobody, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_read(&buffer, &size, 0, 0, "name", &client, 1), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_write(nullptr, 1, nullptr, 0, "name", &client, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_write(data, 1, nullptr, 0, "name", nullptr, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_write(data, 1, nullptr, 0, "name", &client, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_delete(0, nullptr, &client, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_delete(0, "name", nullptr, kSealed), SS_ERROR_PARAMETER);
    EXPECT_EQ(read("name"), "kept");
    ss_free_buffer(nullptr);
}

}  // namespace
