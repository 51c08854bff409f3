// report.h - collects what support needs into one text, without secrets.
#pragma once

#include <string>

namespace client {

struct ReportOptions {
    std::string bus;   ///< address; empty: the system bus
    std::string file;  ///< path of the written file; empty: the report is only shown
    bool yes = false;  ///< true: writes without asking
};

/// Shows the report, and writes it when the user agrees.
/// @return the exit code
int report(const ReportOptions& options);

/// @return a settings file without its private values: ids, tokens, the credential
std::string hidden(const std::string& settings);

}  // namespace client
