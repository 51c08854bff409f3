// engine_fixture.h - fixture of the CBillingEngine tests: an engine on the fake platform with doubles of the
// protocol layer, and the reader of its pipe.
#pragma once

#include "BillingEngine.h"
#include "ecore_environment.h"
#include "log_matchers.h"
#include "protocol_double.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

/// Failures of the pipe's functions.
struct PipeDouble {
    bool bAddFails = false;
    bool bWriteFails = false;
    bool bSizeFails = false;  ///< with EPERM
};
PipeDouble& Pipe();

struct EngineProbe {
    static Ecore_Pipe* pipe(const CBillingEngine& oEngine) { return oEngine.m_pPipe; }
};

inline const LinesOf ENGINE_LINES{"BillingEngine.cpp"};

/// Content of a message in the pipe.
struct Result {
    int eReqType;
    int iRespResult;
    std::string strRespInfo;
    void* pUser;
};

bool operator==(const Result& a, const Result& b);
std::ostream& operator<<(std::ostream& out, const Result& result);

class AnEngine : public ::testing::Test {
public:
    /// Reader of the pipe: takes ownership of the record, like the front end.
    static void Receive(void* data, void* buffer, unsigned int nbyte);

protected:
    void SetUp() override;
    void TearDown() override;

    /// Iterates the loop until that many results have arrived.
    /// @return all results so far
    std::vector<Result> resultsOnPipe(std::size_t expected);

    void* caller() { return &m_caller; }

    static CBillingItem anItem();

    CBillingEngine m_oEngine;
    std::vector<Result> m_results;
    std::vector<unsigned int> m_messageSizes;
    BILLING_RETURN_INFO_T m_last;
    bool m_bAnswered = false;  // true once the contexts of the calls are freed
    int m_caller = 0;
};
