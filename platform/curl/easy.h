// easy.h - the easy handle's transfer, for the multi handle.
#pragma once

#include "transfer.h"

namespace MZCurl {

struct MZCurlEasy::Impl : Transfer {};

}  // namespace MZCurl
