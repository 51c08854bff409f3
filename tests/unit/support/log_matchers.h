// log_matchers.h - compares whole log records: priority, colour, file, function and text. Also the timeline
// of log records, platform calls and calls of doubles.
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

/// Makes the expected lines of one source file.
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

/// Timeline entry of a platform call: the function's name and, where there is one, its key.
inline Line Asked(const std::string& strCall)
{
    return {log_priority(0), "", "platform", strCall};
}

/// Timeline entry of a double's call or of a test's step.
inline Line Did(const std::string& strWhat)
{
    return {log_priority(0), "", "double", strWhat};
}

/// Adds a double's call to the timeline.
inline void Note(const std::string& strWhat)
{
    fake::platform().note(strWhat);
}

using Steps = std::vector<Line>;

/// Passes a list of steps to a macro as one argument.
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

/// All events so far in one order: log records, platform calls and notes of the doubles.
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

/// The notes of the doubles so far, in order.
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

/// The lines logged so far. The test fails for a record without the service's tag or a line number.
inline std::vector<Line> LoggedLines()
{
    std::vector<Line> lines;
    for (const fake::LogRecord& record : fake::platform().log()) {
        lines.push_back(LineOf(record));
    }
    return lines;
}

/// The lines of one source file logged so far.
inline std::vector<Line> LoggedLines(const std::string& strFile)
{
    std::vector<Line> lines = LoggedLines();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [&](const Line& line) { return line.strFile != strFile; }),
                lines.end());
    return lines;
}
