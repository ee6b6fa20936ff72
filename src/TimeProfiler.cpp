// Time spans on a monotonic clock.
#include "TimeProfiler.h"

#include <chrono>
#include <cstdio>

#include "Diagnostics.h"

namespace SurfaceReconstruction {

namespace {
using Clock = std::chrono::steady_clock;

std::int64_t readTicks() { return static_cast<std::int64_t>(Clock::now().time_since_epoch().count()); }

std::int64_t ticksPerSecond() {
    return static_cast<std::int64_t>(Clock::period::den) / static_cast<std::int64_t>(Clock::period::num);
}
}  // namespace

void TimeProfiler::time_start(std::string name) {
    auto found = m_names.find(name);
    int index;
    if (found == m_names.end()) {
        m_start_ticks.push_back(0);
        m_stop_ticks.push_back(0);
        m_frequency.push_back(0);
        m_elapsed_ms.push_back(0.0);
        index = m_count;
        m_names.emplace(std::move(name), m_count);
        ++m_count;
    } else {
        index = found->second;
    }
    m_frequency[index] = ticksPerSecond();
    m_start_ticks[index] = readTicks();  // last, so that the bookkeeping is not measured
}

double TimeProfiler::time_stop(std::string name, bool print) {
    const std::int64_t now = readTicks();
    auto found = m_names.find(name);
    if (found == m_names.end()) {
        diagnostic(" time_stop error ( can not find %s ) ! \n", name.c_str());
        return 0.0;
    }
    const int index = found->second;
    m_stop_ticks[index] = now;
    m_elapsed_ms[index] = static_cast<double>(m_stop_ticks[index] - m_start_ticks[index]) /
                          static_cast<double>(m_frequency[index]) * 1000.0;
    if (print) diagnostic(" %s - elapsed time : %f ms \n", name.c_str(), m_elapsed_ms[index]);
    return m_elapsed_ms[index];
}

std::string toUtf8(const std::wstring& text) {
    std::string out;
    out.reserve(text.size() * 3);
    for (wchar_t wc : text) {
        std::uint32_t c = static_cast<std::uint32_t>(wc);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;  // not a scalar value
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

}  // namespace SurfaceReconstruction
