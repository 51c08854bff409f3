// ParametersText.cpp - the arguments of a call as text for the log.
#include "ParametersText.h"

#include "BusLimits.h"

#include <platform/log.h>

#include <algorithm>
#include <array>

namespace {

// Arguments with a much longer text are refused before.
constexpr std::size_t LONGEST = BusLimits::ARGUMENT_BYTES + 64;

constexpr std::array<char, LONGEST + 1> MakeBlanks()
{
    std::array<char, LONGEST + 1> arBlanks{};
    for (std::size_t i = 0; i < LONGEST; ++i) {
        arBlanks[i] = ' ';
    }
    return arBlanks;
}

constexpr std::array<char, LONGEST + 1> BLANKS = MakeBlanks();

// @return length of a text such as "('a', 'b')", without escapes and type annotations
std::size_t PrintedSize(GVariant* pParameters)
{
    const gsize uTexts = g_variant_n_children(pParameters);
    if (uTexts == 0) {
        return 2;
    }
    std::size_t uSize = uTexts == 1 ? 3 : 2 * uTexts;
    for (gsize i = 0; i < uTexts; ++i) {
        GVariant* pText = g_variant_get_child_value(pParameters, i);
        // The text's size includes its NUL; in print it has two quotes instead.
        uSize += g_variant_get_size(pText) + 1;
        g_variant_unref(pText);
    }
    return uSize;
}

}  // namespace

CParametersText::CParametersText(GVariant* pParameters) : m_szPrinted(nullptr, g_free)
{
    if (log_shows_private(DLOG_INFO) != 0) {
        m_szPrinted.reset(g_variant_print(pParameters, TRUE));
        m_szText = m_szPrinted.get();
    } else {
        m_szText = &BLANKS[LONGEST - std::min(PrintedSize(pParameters), LONGEST)];
    }
}
