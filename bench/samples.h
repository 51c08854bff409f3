// samples.h - the duration of each of many operations, and of all together.
#pragma once

#include <chrono>
#include <cstdio>
#include <vector>

class Samples {
public:
    using Clock = std::chrono::steady_clock;

    void add(Clock::time_point began)
    {
        m_microseconds.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - began).count());
    }

    /// Prints JSON: {"seconds": of all, "us": [of each]}
    void print() const
    {
        const std::chrono::duration<double> all = Clock::now() - m_began;
        std::printf("{\"seconds\": %.6f, \"us\": [", all.count());
        const char* between = "";
        for (const double one : m_microseconds) {
            std::printf("%s%.1f", between, one);
            between = ", ";
        }
        std::printf("]}\n");
    }

private:
    Clock::time_point m_began = Clock::now();
    std::vector<double> m_microseconds;
};
