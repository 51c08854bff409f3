// ReplyBody.h - reply bodies that are handed to the bus library without a copy.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

/// Makes the body "(is)" of a reply whose text is counted. The text is moved, not copied, and freed with
/// the body.
/// @param[in,out] strText valid UTF-8 without NUL; empty after success
/// @param[in,out] pCount the count of a large text in memory (CountBody); released with the body
/// @return a floating reference; null when pCount is null or memory is short: nothing is moved then
GVariant* MakeCountedBody(int iResult, std::string& strText,
                          std::shared_ptr<void>& pCount) noexcept;

/// Ends the counting of a reply's text: the flow control may hold the reply without a time limit, and
/// has a limit of its own for held bytes. Thread: any.
void StopCounting(GDBusMessage* pReply);
