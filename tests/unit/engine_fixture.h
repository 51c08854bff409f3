// engine_fixture.h - what the tests of CBillingEngine share: an engine on the fake platform, with
// doubles in place of the protocol layer, and the reader of its pipe.
#pragma once

#include "BillingEngine.h"
#include "ecore_environment.h"
#include "log_matchers.h"
#include "protocol_double.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

/// What Ecore refuses to do for the engine's pipe.
struct PipeDouble {
    bool bAddFails = false;
    bool bWriteFails = false;
};
PipeDouble& Pipe();

struct EngineProbe {
    static Ecore_Pipe* pipe(const CBillingEngine& oEngine) { return oEngine.m_pPipe; }
};

inline const LinesOf ENGINE_LINES{"BillingEngine.cpp"};

/// What a message of the pipe says.
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
    /// The reader of the pipe: takes the record over, as the front end does.
    static void Receive(void* data, void* buffer, unsigned int nbyte);

protected:
    void SetUp() override;
    void TearDown() override;

    /// Turns the loop until so many results have come. @return all that came
    std::vector<Result> resultsOnPipe(std::size_t expected);

    void* caller() { return &m_caller; }

    static CBillingItem anItem();

    CBillingEngine m_oEngine;
    std::vector<Result> m_results;
    std::vector<unsigned int> m_messageSizes;
    BILLING_RETURN_INFO_T m_last;
    bool m_bAnswered = false;  // the contexts of the calls are gone
    int m_caller = 0;
};
