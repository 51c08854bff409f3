// protocol_double.h - stands in for the protocol layer and the connector in the engine's tests: it
// records what the engine asks for and accepts or refuses it.
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
    std::vector<std::string> connector;  ///< "construct", "Create", "Destroy", "destruct", in order
};

/// The one double of the process.
ProtocolDouble& Protocol();
