// log_matchers.h - what the tests say about log records: priority, colour, file, function and text
// at once; and about the one timeline of records, platform calls and what doubles were asked.
#pragma once

#include "fake_platform.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

/// A record without its line number.
struct Line {
    log_priority ePriority;
    std::string strFile;
    std::string strFunction;
    std::string strText;  ///< colour codes included
};

inline bool operator==(const Line& a, const Line& b)
{
    return a.ePriority == b.ePriority && a.strFile == b.strFile && a.strFunction == b.strFunction &&
           a.strText == b.strText;
}

inline std::ostream& operator<<(std::ostream& out, const Line& line)
{
    if (line.strFile.empty()) {
        return out << "{" << line.strFunction << ": " << line.strText << "}";
    }
    return out << "{" << line.ePriority << " " << line.strFile << " " << line.strFunction << " "
               << ::testing::PrintToString(line.strText) << "}";
}

inline std::string Yellow(const std::string& strText)
{
    return "\033[0;33m" + strText + "\033[0;m";
}

inline std::string Red(const std::string& strText)
{
    return "\033[0;31m" + strText + "\033[0;m";
}

/// The lines of one source file, in the words of its own tests.
struct LinesOf {
    std::string strFile;

    Line debug(const std::string& strFunction, const std::string& strText) const
    {
        return {DLOG_DEBUG, strFile, strFunction, strText};
    }
    Line info(const std::string& strFunction, const std::string& strText) const
    {
        return {DLOG_INFO, strFile, strFunction, Yellow(strText)};
    }
    Line plainInfo(const std::string& strFunction, const std::string& strText) const
    {
        return {DLOG_INFO, strFile, strFunction, strText};
    }
    Line warning(const std::string& strFunction, const std::string& strText) const
    {
        return {DLOG_WARN, strFile, strFunction, strText};
    }
    Line error(const std::string& strFunction, const std::string& strText) const
    {
        return {DLOG_ERROR, strFile, strFunction, Red(strText)};
    }
    Line plainError(const std::string& strFunction, const std::string& strText) const
    {
        return {DLOG_ERROR, strFile, strFunction, strText};
    }
    Line refused(const std::string& strFunction, const std::string& strCondition) const
    {
        return error(strFunction, "(" + strCondition + ") -> " + strFunction + "() return");
    }
};

/// The platform was asked, in the timeline: the function's name and, where it has one, its key.
inline Line Asked(const std::string& strCall)
{
    return {log_priority(0), "", "platform", strCall};
}

/// A double was asked, or a test made a step, in the timeline.
inline Line Did(const std::string& strWhat)
{
    return {log_priority(0), "", "double", strWhat};
}

/// A double says what it was asked.
inline void Note(const std::string& strWhat)
{
    fake::platform().note(strWhat);
}

using Steps = std::vector<Line>;

/// Steps in a list that a macro takes as one argument.
template <typename... One>
Steps These(One... one)
{
    return {one...};
}

inline Steps operator+(Steps first, const Steps& then)
{
    first.insert(first.end(), then.begin(), then.end());
    return first;
}

inline Line LineOf(const fake::LogRecord& record)
{
    EXPECT_EQ(record.strTag, "BILLING_SERVICE");
    EXPECT_GT(record.iLine, 0) << record;
    return {record.ePriority, record.strFile, record.strFunction, record.strText};
}

/// Everything that happened so far, in one order: log records, calls of the platform and notes of
/// the doubles.
inline Steps Timeline()
{
    Steps lines;
    for (const fake::Event& event : fake::platform().timeline()) {
        if (event.kind == fake::Event::LOG) {
            lines.push_back(LineOf(event.record));
        } else {
            lines.push_back(event.kind == fake::Event::CALL ? Asked(event.text) : Did(event.text));
        }
    }
    return lines;
}

/// What doubles were asked so far, in order.
inline std::vector<std::string> Notes()
{
    std::vector<std::string> notes;
    for (const fake::Event& event : fake::platform().timeline()) {
        if (event.kind == fake::Event::NOTE) {
            notes.push_back(event.text);
        }
    }
    return notes;
}

/// The lines logged so far. Every record has the service's tag and a line number, or the test
/// fails.
inline std::vector<Line> LoggedLines()
{
    std::vector<Line> lines;
    for (const fake::LogRecord& record : fake::platform().log()) {
        lines.push_back(LineOf(record));
    }
    return lines;
}

/// The same, of one source file only.
inline std::vector<Line> LoggedLines(const std::string& strFile)
{
    std::vector<Line> lines = LoggedLines();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const Line& line) { return line.strFile != strFile; }),
                lines.end());
    return lines;
}
