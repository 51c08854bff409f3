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

/// Calls of one caller that expect no reply and are queued for the main thread; further ones are dropped.
/// The bus limits the others, to 128. 5,000 of them delayed another caller by 1.8 s on a busy machine.
constexpr std::size_t UNANSWERED_CALLS = 512;

/// Bytes of replies that one caller may leave unread; further replies are held back in the service. The
/// bus charges unread bytes to the service: at 127 MiB it stops reading from the service, for all callers.
constexpr std::size_t WINDOW_BYTES = 1 * MIB;

/// Largest window, in bytes. The window doubles whenever half of it was read between two questions, and
/// returns to its first size when nothing was read. Eight answers of 1 MiB at a time then need no pause.
constexpr std::size_t WIDEST_WINDOW_BYTES = 8 * WINDOW_BYTES;

/// Unread bytes beyond which the bus is asked about the caller. A question costs 0.22 ms; an ordinary
/// call stays below and costs none.
constexpr std::size_t AskBytes(std::size_t uWindow)
{
    return uWindow / 2;
}

/// Bytes of a reply besides its body: header fields and their padding.
constexpr std::size_t HEADER_BYTES = 256;

// --- all callers ---

/// Bytes. A reply above it is large. Prices, invoices and confirmations are below it.
constexpr std::size_t LARGE_BYTES = 64 * KIB;

/// Bytes unread by all callers together, up to which large replies are sent. The build option `unread`
/// sets this and the three figures derived from it; the largest body, 32 MiB, has to fit.
constexpr std::size_t UNREAD_BYTES = BILLING_UNREAD_MIB * MIB;

/// Bytes unread by all callers together, above which every window has its first size.
constexpr std::size_t PLENTY_BYTES = UNREAD_BYTES / 2;

/// Further unread bytes, for replies that are not large: unread large replies do not delay small ones.
/// Both limits together stay below the 127 MiB at which the bus stops reading.
constexpr std::size_t UNREAD_SMALL_BYTES = UNREAD_BYTES / 2;

/// Bytes held back in the service; beyond, the largest replies become errors. Without this limit the
/// unread answers would only move from the bus into the service: 2.1 GiB for 240 answers of 4 MiB and
/// more. The longest possible reply, 32 MiB, fits unless `unread` is lowered: a caller that reads may
/// have it held back for a moment, too.
constexpr std::size_t HELD_BYTES = UNREAD_BYTES / 2 + 1 * MIB;

/// Bytes that a held reply takes besides its text: the message object and its header fields.
constexpr std::size_t HELD_EXTRA_BYTES = 2 * KIB;

/// Bytes. A held reply below this size is not replaced by an error: that would free next to nothing.
constexpr std::size_t REFUSABLE_BYTES = 4 * KIB;

/// Bytes. When more than this was held, free memory is returned to the system once nothing is held:
/// 50 MiB stayed with the process after 32 MiB had been held.
constexpr std::size_t GIVE_BACK_BYTES = 4 * MIB;

/// Milliseconds without progress, after which a caller's held replies are the first to become errors
/// and no longer block the next large answer.
constexpr gint64 STUCK_MS = 2000;

/// Callers that are remembered before the bus is asked whether the one that was answered longest ago
/// still exists. 64 cost some 20 KiB.
constexpr std::size_t KEPT_CALLERS = 64;

// --- questions ---

/// Milliseconds between an answer and the next question about a caller that is held back: first and
/// longest pause. The pause doubles while nothing is read. A caller that reads needs only a moment.
constexpr gint64 FIRST_PAUSE_MS = 2;
constexpr gint64 LONGEST_PAUSE_MS = 1000;

/// Open questions about unread bytes at a time. The bus allows a connection 128 open replies, and a
/// ping may stay unanswered for good.
constexpr std::size_t QUESTIONS = 96;

/// Further open questions, which only the bus answers: a caller's user, its existence, the proofs.
constexpr std::size_t QUESTIONS_KEPT = 24;

/// First serial of questions; they are chosen at random above it. A caller that reads nothing could guess
/// the next serial of a sequence and answer in advance. The bus library counts its own serials from 1.
constexpr guint32 FIRST_SERIAL = 0x80000000U;

/// Bytes sent while neither the bus nor the callers tell what is read, after which the bus has to prove
/// that it still reads. The bus stops reading at 127 MiB.
constexpr std::size_t UNKNOWN_BYTES = 96 * MIB;

/// Milliseconds between two such proofs.
constexpr gint64 PROOF_MS = 1000;

/// Milliseconds within which the bus has to answer a question. After that the service ends, since such a
/// bus answers no client, and the service manager restarts it. A bus under load answers in under 0.1 s.
constexpr gint64 BUS_SILENT_MS = 10000;

// --- the log ---

/// Milliseconds that a caller is held back before the log reports it: a burst of its own holds back a
/// caller that reads for some milliseconds only.
constexpr gint64 REPORT_MS = 1000;

/// Milliseconds without a further refused call of a caller, after which the log reports the end.
constexpr gint64 REFUSALS_OVER_MS = 10000;

/// Callers whose refused calls are counted at a time.
constexpr std::size_t REFUSED_CALLERS = 64;

/// Reports that may begin within REPORT_PERIOD_MS. Each takes two lines.
constexpr unsigned REPORTS = 20;
constexpr gint64 REPORT_PERIOD_MS = 60000;

/// Callers whose user is known to the log and not asked for again. 256 cost some 40 KiB (reckoned).
constexpr std::size_t TOLD_CALLERS = 256;

/// Lines about new callers of one user within REPORT_PERIOD_MS. An app that connects for each call must
/// not fill the journal, nor hide the callers of other users.
constexpr unsigned TOLD_LINES = 20;

/// Milliseconds to wait for the answer to the first ping before the log reports that callers are asked.
constexpr gint64 PING_REPORT_MS = 1000;

}  // namespace BusLimits
