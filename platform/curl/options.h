// options.h - the wrapper's options and their counterparts in libcurl.
#pragma once

#include "transfer.h"

#include <list>
#include <string>

namespace MZCurl {

/// Each sets one option.
/// @return false, with the reason in the transfer's lastError, when the option takes another type of value or
///   the value is refused
bool setNumber(Transfer& transfer, MZCURL_OPTION_TYPE option, long long value);
bool setText(Transfer& transfer, MZCURL_OPTION_TYPE option, const std::string& value);
bool setList(Transfer& transfer, MZCURL_OPTION_TYPE option, const std::list<std::string>& value);
bool setWriter(Transfer& transfer, MZCURL_OPTION_TYPE option, WriteCallback value);
bool setSslContext(Transfer& transfer, MZCURL_OPTION_TYPE option, SslContextCallback value);
bool setPointer(Transfer& transfer, MZCURL_OPTION_TYPE option, void* value);

}  // namespace MZCurl
