// A stop asked of the running process (Tessaline::requestStop). For the length of a run the engine points
// its thread at its flag; the stages look at it at their safe points (stopPoint, on the run's thread), and a
// parallel loop takes the flag before it starts and passes over its remaining items once the flag is set,
// leaving the stop to the next safe point.
#pragma once

#include <atomic>

namespace SurfaceReconstruction {

// Thrown at a safe point of a run that was asked to stop; the engine turns it into the run's status.
struct RunStopped {};

inline thread_local const std::atomic<bool>* t_run_stop_flag = nullptr;

inline const std::atomic<bool>* runStopFlag() { return t_run_stop_flag; }
inline bool stopAsked(const std::atomic<bool>* flag) {
    return flag != nullptr && flag->load(std::memory_order_relaxed);
}
inline void stopPoint() {
    if (stopAsked(t_run_stop_flag)) throw RunStopped();
}

class StopScope {
public:
    explicit StopScope(const std::atomic<bool>* flag) : m_previous(t_run_stop_flag) { t_run_stop_flag = flag; }
    ~StopScope() { t_run_stop_flag = m_previous; }
    StopScope(const StopScope&) = delete;
    StopScope& operator=(const StopScope&) = delete;

private:
    const std::atomic<bool>* m_previous;
};

}  // namespace SurfaceReconstruction
