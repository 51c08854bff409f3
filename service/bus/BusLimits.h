// BusLimits.h - the limits of the service's bus connection. Each names its unit, its reason and the
// figure behind it. Measured with dbus-daemon 1.14 and GLib 2.74 on two cores.
#pragma once

#include <glib.h>

#include <cstddef>

namespace BusLimits {

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;

// --- arguments ---

/// Bytes of all arguments of one call, as GVariant counts them. Real arguments are under 1 KiB. The
/// main thread serves calls in the order of their arrival: 1,000 calls of this size, all control
/// characters, cost another caller 0.2 to 1.1 s on a busy machine; 1,000 empty ones cost it 0.5.
constexpr std::size_t ARGUMENT_BYTES = 8 * KIB;

// --- one caller ---

/// Calls of one caller that want no answer and wait for the main thread; further ones are dropped. The
/// bus bounds the others, at 128. 5,000 of them held another caller up for 1.8 s on a busy machine.
constexpr std::size_t UNANSWERED_CALLS = 512;

/// Bytes of answers that one caller may leave unread before the next one waits in the service. The
/// bus charges them to the service: with 127 MiB it stops reading from it, for everybody.
constexpr std::size_t WINDOW_BYTES = 1 * MIB;

/// To so many bytes the window doubles, each time that half of it was read between two questions; it is
/// as at first once nothing was. Eight answers of 1 MiB at a time need no pause then.
constexpr std::size_t WIDEST_WINDOW_BYTES = 8 * WINDOW_BYTES;

/// Beyond such a part of the window the bus is asked what the caller has not read. A question costs
/// 0.22 ms; below, an ordinary call costs nothing more.
constexpr std::size_t AskBytes(std::size_t uWindow)
{
    return uWindow / 2;
}

/// Bytes of a reply beside its body: header fields and their padding.
constexpr std::size_t HEADER_BYTES = 256;

// --- all callers ---

/// Bytes. A reply above it is large. Prices, invoices and confirmations are below it.
constexpr std::size_t LARGE_BYTES = 64 * KIB;

/// Bytes unread by all callers, up to which large replies are sent. A device lowers this and the two
/// below with the build option `unread`; the largest body, 32 MiB, has to fit.
constexpr std::size_t UNREAD_BYTES = BILLING_UNREAD_MIB * MIB;

/// Bytes unread by all callers, above which no window is wider than at first.
constexpr std::size_t PLENTY_BYTES = UNREAD_BYTES / 2;

/// Bytes more, for replies that are not large: who leaves large ones unread delays no small one.
/// Both together stay under the 127 MiB at which the bus stops reading.
constexpr std::size_t UNREAD_SMALL_BYTES = UNREAD_BYTES / 2;

/// Bytes that wait in the service. Beyond, the largest become errors. Without it the unread answers
/// would only move from the bus into the service: 2.1 GiB of 240 answers of 4 MiB and more. The
/// longest reply there can be, of 32 MiB, fits where the total is not lowered: also a caller that
/// reads has it wait for a moment.
constexpr std::size_t HELD_BYTES = UNREAD_BYTES / 2 + 1 * MIB;

/// Bytes that a waiting reply takes beside its text: the message object and its header fields.
constexpr std::size_t HELD_EXTRA_BYTES = 2 * KIB;

/// Bytes. A waiting reply below it is not made an error: that would free next to nothing.
constexpr std::size_t REFUSABLE_BYTES = 4 * KIB;

/// Bytes. Once more than that has waited, free memory is given back to the system when nothing does
/// any more: 50 MiB stayed with the process after 32 MiB had waited.
constexpr std::size_t GIVE_BACK_BYTES = 4 * MIB;

/// Milliseconds without any progress, after which a caller's waiting replies are the first to become
/// errors, and no reason any more to receive no further large answer.
constexpr gint64 STUCK_MS = 2000;

/// Callers that are remembered before the bus is asked whether the one that was answered longest ago
/// is still there. 64 cost some 20 KiB.
constexpr std::size_t KEPT_CALLERS = 64;

// --- questions ---

/// Milliseconds from an answer to the next question about a caller that is held back: at first and
/// at most. It doubles in between while nothing is read. A caller that reads has read in a moment.
constexpr gint64 FIRST_PAUSE_MS = 2;
constexpr gint64 LONGEST_PAUSE_MS = 1000;

/// Questions of what is unread that are under way at a time. The bus lets a connection wait for 128
/// replies, and a ping may stay unanswered for good.
constexpr std::size_t QUESTIONS = 96;

/// Questions besides, which only the bus answers: whose a caller is, whether it is there, the proofs.
constexpr std::size_t QUESTIONS_KEPT = 24;

/// Serials of questions begin here, at random: a caller that reads nothing could guess the next one
/// of a sequence and answer unasked. The bus library counts the others from 1.
constexpr guint32 FIRST_SERIAL = 0x80000000U;

/// Bytes sent while nobody tells what is read, after which the bus has to show that it still reads.
/// It stops at 127 MiB.
constexpr std::size_t UNKNOWN_BYTES = 96 * MIB;

/// Milliseconds between two of those proofs.
constexpr gint64 PROOF_MS = 1000;

/// Milliseconds in which the bus answers a question, or the service ends: it answers nobody then, and
/// its manager starts it again. A bus under load answers in under 0.1 s.
constexpr gint64 BUS_SILENT_MS = 10000;

// --- the log ---

/// Milliseconds that a caller is held back before a line says so: a caller that reads is held back
/// for some milliseconds by a burst of its own.
constexpr gint64 REPORT_MS = 1000;

/// Milliseconds without a refused call of a caller, after which a line says that it is over.
constexpr gint64 REFUSALS_OVER_MS = 10000;

/// Callers whose refused calls are counted at a time.
constexpr std::size_t REFUSED_CALLERS = 64;

/// Beginnings of such stories that are told within REPORT_PERIOD_MS. Each takes two lines.
constexpr unsigned REPORTS = 20;
constexpr gint64 REPORT_PERIOD_MS = 60000;

/// Callers whose user the log has told, and is not asked for again. 256 cost some 40 KiB by reckoning.
constexpr std::size_t TOLD_CALLERS = 256;

/// Lines about new callers of one user within REPORT_PERIOD_MS: an app that comes for one call at a
/// time must not fill the journal, and hides no other user's callers by it.
constexpr unsigned TOLD_LINES = 20;

/// Milliseconds in which a caller answers a ping, or the report does not wait for it.
constexpr gint64 PING_REPORT_MS = 1000;

}  // namespace BusLimits
