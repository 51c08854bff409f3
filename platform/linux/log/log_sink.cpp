// log_sink.cpp - the journal and standard error. GLib sends to the journal: with libsystemd five more
// libraries would be mapped.
#include "log_sink.h"

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace logging {

namespace {

static_assert(kRecordLimit <= PIPE_BUF, "a pipe must take a record in one piece");

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
    explicit Fields(const char* message) { m_fields[m_count++] = {"MESSAGE", message, -1}; }

    void add(const Field& field, std::string_view record)
    {
        char* const name = m_texts[m_count];
        const std::size_t nameSize = field.name.copy(name, kTextSize - 2);
        name[nameSize] = '\0';
        char* const value = name + nameSize + 1;
        const std::string_view text = record.substr(field.begin, field.end - field.begin);
        value[text.copy(value, kTextSize - nameSize - 2)] = '\0';
        m_fields[m_count++] = {name, value, -1};
    }

    template <typename Value>
    void add(const char* name, const char* format, Value value)
    {
        if (snprintf(m_texts[m_count], kTextSize, format, value) <= 0)
            return;
        m_fields[m_count] = {name, m_texts[m_count], -1};
        m_count++;
    }

    bool send() const
    {
        return g_log_writer_journald(G_LOG_LEVEL_MESSAGE, m_fields, m_count, nullptr) ==
               G_LOG_WRITER_HANDLED;
    }

private:
    static constexpr std::size_t kMost = 7 + kMostFields;
    static constexpr std::size_t kTextSize = 128;
    char m_texts[kMost][kTextSize];
    GLogField m_fields[kMost];
    std::size_t m_count = 0;
};

int writeJournal(std::string_view message, log_priority priority, const char* tag,
                 const Parts& parts)
{
    const Origin& origin = parts.origin;
    Fields fields(message.data());
    fields.add("PRIORITY", "%d", syslogNumberOf(priority));
    fields.add("SYSLOG_IDENTIFIER", "%s", tag);
    if (origin.file != nullptr && origin.function != nullptr) {
        fields.add("CODE_FILE", "%s", origin.file);
        fields.add("CODE_FUNC", "%s", origin.function);
        fields.add("CODE_LINE", "%d", origin.line);
    }
    if (*parts.caller != '\0')
        fields.add("BILLING_SENDER", "%s", parts.caller);
    for (std::size_t i = 0; i < parts.fieldCount; i++)
        fields.add(parts.fields[i], message);
    return fields.send() ? static_cast<int>(message.size()) : -1;
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
    if (sink == Sink::Journal)
        return;
    const char letter = letterOf(priority);
    record.trusted({&letter, 1});
    record.trusted("/");
    record.escaped(tag);
    record.trusted(": ");
}

int writeRecord(Sink sink, Record& record, log_priority priority, const char* tag,
                const Parts& parts)
{
    if (sink == Sink::Stderr) {
        record.finish('\n');
        return writeStderr(record.line());
    }
    record.finish('\0');
    return writeJournal(record.text(), priority, tag, parts);
}

}  // namespace logging
