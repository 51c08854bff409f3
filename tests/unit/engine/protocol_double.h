// protocol_double.h - double of the protocol layer and the connector for the engine's tests. It notes each
// call in the timeline, keeps the arguments, and accepts or refuses.
#pragma once

#include "BillingTypes.h"

#include <string>
#include <vector>

struct ProtocolCall {
    std::string strOperation;
    CBillingItem oItem;
    std::vector<std::string> texts;
    ResponseCallback pfnCallback = nullptr;
    EngineRequestContext* pContext = nullptr;  ///< owned by an accepted request, else by the engine
    EngineRequestContext tContext{};           ///< copy made during the call
};

struct ProtocolDouble {
    bool bAccepts = true;
    bool bConnectorCreates = true;
    std::vector<ProtocolCall> calls;
};

/// The double of the process.
ProtocolDouble& Protocol();
