// log_sink.h - where log records go: the journal, when standard error is connected to it, else
// standard error itself.
#pragma once

#include "log_format.h"
#include "log_record.h"

#include <platform/log.h>

namespace logging {

enum class Sink { Stderr, Journal };

/// The sink that standard error, as it is now, stands for.
Sink detectSink();

/// Begins a record in the way that the sink wants it.
void beginRecord(Sink sink, Record& record, log_priority priority, const char* tag);

/// Writes a finished record. Waits while the reader's pipe is full: what is lost there would be
/// lost for good.
/// @return the bytes written, or -1
int writeRecord(Sink sink, const Record& record, log_priority priority, const char* tag,
                const Parts& parts);

}  // namespace logging
