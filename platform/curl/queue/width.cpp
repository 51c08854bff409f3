// width.cpp - raises and lowers the limit of simultaneous requests to a host.
#include "width.h"

#include "quotas.h"

#include <algorithm>

namespace MZCurl {
namespace {

// After this many halvings the width is 0.
constexpr Width::Clock::rep kMostHalvings = 20;

}  // namespace

std::size_t Width::at(Clock::time_point now) const
{
    const auto halvings = std::min((now - m_widened) / kWideFor, kMostHalvings);
    return std::max(kNarrow, m_width >> halvings);
}

Width::Clock::time_point Width::widensAt(Clock::time_point since) const
{
    return std::max({m_quick, m_widened, since}) + kPatience;
}

void Width::widen(Clock::time_point now)
{
    m_width = 2 * std::max(at(now), m_underWay);
    m_widened = now;
}

void Width::ended(Clock::time_point sent, Clock::time_point now)
{
    --m_underWay;
    if (now - sent <= kQuick) {
        m_quick = now;
    }
}

}  // namespace MZCurl
