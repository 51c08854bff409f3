// easy.h - the easy handle's transfer, for the multi handle.
#pragma once

#include "curl/transfer/transfer.h"

#include <string>

namespace MZCurl {

struct MZCurlEasy::Impl : Transfer {
    bool initialized = false;
    std::string lastError;
};

}  // namespace MZCurl
