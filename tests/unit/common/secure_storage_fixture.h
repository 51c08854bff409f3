// secure_storage_fixture.h - one instance of CBillingSecureStorageUtil on a fresh fake platform, with the
// device's certificate file.
#pragma once

#include "BillingSecureStorageUtil.h"
#include "BillingTaskBase.h"
#include "device_certificate_file.h"
#include "log_matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

inline const LinesOf UTIL{"BillingSecureStorageUtil.cpp"};

class SecureStorage : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        m_iBuffersBefore = fake::platform().buffersOut();
        m_oFile.holdsTheDevices();
        m_poUtil = BillingInstance<CBillingSecureStorageUtil>();
        forget();
    }

    void TearDown() override
    {
        BillingDeleteInstance<CBillingSecureStorageUtil>();
        EXPECT_EQ(fake::platform().buffersOut(), m_iBuffersBefore);
        EXPECT_EQ(ERR_peek_error(), 0u) << "nothing is left for the next TLS call to find";
    }

    // Replaces the instance, as a restart of the process does, and forgets earlier calls and lines.
    void restart()
    {
        BillingDeleteInstance<CBillingSecureStorageUtil>();
        m_poUtil = BillingInstance<CBillingSecureStorageUtil>();
        forget();
    }

    void forget()
    {
        fake::platform().clearLog();
        fake::platform().clearCalls();
    }

    DeviceCertificateFile m_oFile;
    CBillingSecureStorageUtil* m_poUtil = nullptr;
    int m_iBuffersBefore = 0;
};
