// ReplyText.h - makes a server's body fit for a reply on the bus.
#pragma once

#include <cstddef>
#include <string>

/// @param szDestination the caller's unique bus name; null counts as the longest possible name, 255 bytes
/// @return bytes of the longest text that fits a "(is)" reply to that caller. A message on the system bus has
///   at most 32 MiB with its header (max_message_size of dbus-daemon); the bus disconnects the sender of a
///   longer one.
std::size_t ReplyTextLimit(const char* szDestination);

/// Makes the text valid UTF-8 without NUL: each bad byte becomes U+FFFD. A valid text does not change.
/// @param[in,out] strText empty after false
/// @param uLimit bytes
/// @return false when the resulting text is longer than the limit, or memory is short
bool MakeReplyText(std::string& strText, std::size_t uLimit) noexcept;
