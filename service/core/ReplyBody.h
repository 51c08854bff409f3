// ReplyBody.h - the body of a reply on its way to the bus.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

/// Makes the body "(is)" of a reply. A text that is counted is not copied, and freed with the body.
/// @param strText valid UTF-8 without NUL
/// @param pCount counts the text among the large ones in memory, until the body is freed; null for a
///   text that is not counted
/// @return a floating reference
GVariant* MakeReplyBody(int iResult, std::string&& strText, std::shared_ptr<void> pCount) noexcept;

/// The reply waits for nobody knows how long, in the flow control, which has a bound of its own: its
/// text is not counted any more. Thread: any
void StopCounting(GDBusMessage* pReply);
