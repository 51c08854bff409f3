// log_sink.h - destination of log records: the journal when standard error is connected to it, else
// standard error.
#pragma once

#include "log_format.h"
#include "log_record.h"

#include <platform/log.h>

namespace logging {

enum class Sink { Stderr, Journal };

/// @return the sink that belongs to the present standard error
Sink detectSink();

/// Begins a record in the form of the sink.
void beginRecord(Sink sink, Record& record, log_priority priority, const char* tag);

/// Finishes a record and writes it. Waits while the reader's pipe is full, since a dropped record is lost.
/// @return the bytes written, or -1
int writeRecord(Sink sink, Record& record, log_priority priority, const char* tag,
                const Parts& parts);

}  // namespace logging
