// ReplyBody.h - the body of a reply on its way to the bus.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

/// Makes the body "(is)" of a reply whose text is counted. The text is not copied, and freed with the
/// body.
/// @param[in,out] strText valid UTF-8 without NUL; emptied when it is taken
/// @param[in,out] pCount counts the text among the large ones in memory, until the body is freed
/// @return a floating reference; null when pCount is, or there is no memory: nothing is taken then
GVariant* MakeCountedBody(int iResult, std::string& strText,
                          std::shared_ptr<void>& pCount) noexcept;

/// The reply waits for nobody knows how long, in the flow control, which has a bound of its own: its
/// text is not counted any more. Thread: any
void StopCounting(GDBusMessage* pReply);
