// report.h - one text with everything that support needs, secrets hidden.
#pragma once

#include <string>

namespace client {

struct ReportOptions {
    std::string bus;   ///< address; empty: the system's
    std::string file;  ///< where it is written; empty: it is only shown
    bool yes = false;  ///< written without a question
};

/// Shows the report, and writes it when that was agreed to. @return the exit code
int report(const ReportOptions& options);

/// A settings file with the values hidden that are private: ids, tokens, the credential.
std::string hidden(const std::string& settings);

}  // namespace client
