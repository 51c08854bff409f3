// log_sink.cpp - the journal and standard error.
#define SD_JOURNAL_SUPPRESS_LOCATION  // the location fields name the caller, not this file
#include "log_sink.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace logging {

namespace {

static_assert(kRecordLimit <= PIPE_BUF, "a pipe must take a record in one piece");

constexpr std::string_view kMessageField = "MESSAGE=";

char letterOf(log_priority priority)
{
    switch (priority) {
        case DLOG_DEBUG:
            return 'D';
        case DLOG_INFO:
            return 'I';
        case DLOG_WARN:
            return 'W';
        case DLOG_ERROR:
            return 'E';
    }
    return '?';
}

/// Priority as syslog numbers it, which the journal uses.
int syslogNumberOf(log_priority priority)
{
    switch (priority) {
        case DLOG_DEBUG:
            return 7;
        case DLOG_INFO:
            return 6;
        case DLOG_WARN:
            return 4;
        case DLOG_ERROR:
            return 3;
    }
    return 5;
}

int writeStderr(std::string_view line)
{
    ssize_t written;
    do {
        written = write(STDERR_FILENO, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    return static_cast<int>(written);
}

/// The fields of one journal entry beside its message, each a short text.
class Fields {
public:
    explicit Fields(std::string_view message)
    {
        m_parts[m_count++] = {const_cast<char*>(message.data()), message.size()};
    }

    void add(const Field& field, std::string_view record)
    {
        const std::string_view value = record.substr(field.begin, field.end - field.begin);
        char* const text = m_texts[m_count];
        const int size = snprintf(text, sizeof m_texts[m_count], "%.*s=%.*s",
                                  static_cast<int>(field.name.size()), field.name.data(),
                                  static_cast<int>(value.size()), value.data());
        if (size > 0)
            m_parts[m_count++] = {text, strlen(text)};
    }

    template <typename Value>
    void add(const char* format, Value value)
    {
        const int size = snprintf(m_texts[m_count], sizeof m_texts[m_count], format, value);
        if (size <= 0)
            return;
        m_parts[m_count] = {m_texts[m_count], strlen(m_texts[m_count])};
        m_count++;
    }

    int send() const { return sd_journal_sendv(m_parts, static_cast<int>(m_count)); }

private:
    static constexpr std::size_t kMost = 7 + kMostFields;
    char m_texts[kMost][128];
    iovec m_parts[kMost];
    std::size_t m_count = 0;
};

int writeJournal(std::string_view message, log_priority priority, const char* tag,
                 const Parts& parts)
{
    const Origin& origin = parts.origin;
    Fields fields(message);
    fields.add("PRIORITY=%d", syslogNumberOf(priority));
    fields.add("SYSLOG_IDENTIFIER=%s", tag);
    if (origin.file != nullptr && origin.function != nullptr) {
        fields.add("CODE_FILE=%s", origin.file);
        fields.add("CODE_FUNC=%s", origin.function);
        fields.add("CODE_LINE=%d", origin.line);
    }
    if (*parts.caller != '\0')
        fields.add("BILLING_SENDER=%s", parts.caller);
    for (std::size_t i = 0; i < parts.fieldCount; i++)
        fields.add(parts.fields[i], message);
    return fields.send() < 0 ? -1 : static_cast<int>(message.size() - kMessageField.size());
}

}  // namespace

Sink detectSink()
{
    const char* const stream = getenv("JOURNAL_STREAM");
    struct stat status {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0)
        return Sink::Stderr;
    // JOURNAL_STREAM may be inherited while standard error is another file: inode and device decide.
    char expected[64];
    snprintf(expected, sizeof expected, "%ju:%ju", static_cast<uintmax_t>(status.st_dev),
             static_cast<uintmax_t>(status.st_ino));
    return strcmp(stream, expected) == 0 ? Sink::Journal : Sink::Stderr;
}

void beginRecord(Sink sink, Record& record, log_priority priority, const char* tag)
{
    if (sink == Sink::Journal) {
        record.trusted(kMessageField);
        return;
    }
    const char letter = letterOf(priority);
    record.trusted({&letter, 1});
    record.trusted("/");
    record.escaped(tag);
    record.trusted(": ");
}

int writeRecord(Sink sink, const Record& record, log_priority priority, const char* tag,
                const Parts& parts)
{
    return sink == Sink::Journal ? writeJournal(record.text(), priority, tag, parts)
                                 : writeStderr(record.line());
}

}  // namespace logging
