// secure_device.h - a device whose secure storage is arranged, for each backend's contract.
#pragma once

#include "arrange_secure.h"

#include <platform/secure_storage.h>

#include <gtest/gtest.h>

#include <string>

class ASecureDevice : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string missing = arrange::missing();
        if (!missing.empty())
            GTEST_SKIP() << missing;
        arrange::secureDevice();
        ASSERT_EQ(ss_init_credential(&client, 1, 2, 3, 4, 5, 1, 0), SS_ERROR_NONE);
    }

    ss_credential_s client{};
};
