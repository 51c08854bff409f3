// protocol_double.h - stands in for the protocol layer and the connector in the engine's tests: it
// notes what the engine asks for in the timeline, keeps the arguments, and accepts or refuses.
#pragma once

#include "BillingTypes.h"

#include <string>
#include <vector>

struct ProtocolCall {
    std::string strOperation;
    CBillingItem oItem;
    std::vector<std::string> texts;
    ResponseCallback pfnCallback = nullptr;
    EngineRequestContext* pContext = nullptr;  ///< owned by whoever the answer makes its owner
    EngineRequestContext tContext{};           ///< as it was at the call
};

struct ProtocolDouble {
    bool bAccepts = true;
    bool bConnectorCreates = true;
    std::vector<ProtocolCall> calls;
};

/// The one double of the process.
ProtocolDouble& Protocol();
