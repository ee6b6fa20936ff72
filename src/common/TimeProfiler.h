// Named time spans of one operation, printed on standard output.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace SurfaceReconstruction {

class TimeProfiler {
public:
    // Starts or restarts the span of `name`.
    void time_start(std::string name);
    // Ends the span and returns its length in milliseconds; 0.0 and an error line for an unknown name.
    double time_stop(std::string name, bool print);

private:
    std::vector<std::int64_t> m_start_ticks;
    std::vector<std::int64_t> m_stop_ticks;
    std::vector<std::int64_t> m_frequency;
    std::unordered_map<std::string, int> m_names;
    std::vector<double> m_elapsed_ms;
    std::int32_t m_count = 0;
};

// Narrow UTF-8 form of a wide text, for printing step names.
std::string toUtf8(const std::wstring& text);

}  // namespace SurfaceReconstruction
