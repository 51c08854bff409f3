// ParametersText.h - the arguments of a call as text for the log.
#pragma once

#include <gio/gio.h>

#include <memory>

/// The printed arguments with type annotations. When the log hides private values, blanks of about the same
/// length replace them: printing 1 MiB of control characters takes 88 ms.
class CParametersText {
public:
    /// @param pParameters a tuple
    explicit CParametersText(GVariant* pParameters);
    const char* Get() const { return m_szText; }

private:
    std::unique_ptr<gchar, decltype(&g_free)> m_szPrinted;
    const char* m_szText;
};
