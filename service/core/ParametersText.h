// ParametersText.h - the arguments of a call, as the log prints them.
#pragma once

#include <gio/gio.h>

#include <memory>

/// Their printed form with type annotations. Where the log would hide it, blanks of about its size
/// stand for it: printing a MiB of control characters takes 88 ms.
class CParametersText {
public:
    /// @param pParameters a tuple
    explicit CParametersText(GVariant* pParameters);
    const char* Get() const { return m_szText; }

private:
    std::unique_ptr<gchar, decltype(&g_free)> m_szPrinted;
    const char* m_szText;
};
