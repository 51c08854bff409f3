// ReplyText.h - makes of a server's body what the bus can carry in a reply.
#pragma once

#include <cstddef>
#include <string>

/// The longest text, in bytes, that fits a "(is)" reply to that caller: one byte more and the bus
/// disconnects the sender. A message is at most 32 MiB on the system bus (max_message_size of dbus-
/// daemon), its header included.
/// @param szDestination the caller's unique bus name; null counts as the longest name there can be,
///   255 bytes
std::size_t ReplyTextLimit(const char* szDestination);

/// Makes the text valid UTF-8 without NUL: each byte that is not becomes U+FFFD. A text that is
/// valid stays as it is.
/// @param[in,out] strText emptied when false is returned
/// @return false when the text, made valid, is longer than the limit or finds no memory
bool MakeReplyText(std::string& strText, std::size_t uLimit) noexcept;
