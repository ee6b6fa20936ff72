// What the stages of a run (Portioner, MarchingCubes, Reconstructor) have in common: the run's settings
// that the engine hands each of them before its init, whether it is set up, and the text of its last
// failure. Each stage's own init and deInit say what setting it up means.
#pragma once

#include <memory>
#include <string>

#include "common/ErrorLadder.h"
#include "common/Parameters.h"

namespace SurfaceReconstruction {

class ThreadPool;

class RunStage {
public:
    RunStage(const RunStage&) = delete;
    RunStage& operator=(const RunStage&) = delete;

    int setDeviceParams(const std::shared_ptr<DeviceParameters>& params) {
        m_device_params = params;
        return 0;
    }
    int setPortionerParams(const std::shared_ptr<PortionerParameters>& params) {
        m_portioner_params = params;
        return 0;
    }
    int setThreadPool(const std::weak_ptr<ThreadPool>& pool) {
        m_thread_pool = pool;
        return 0;
    }
    int setResolution(float resolution) {
        m_resolution = resolution;
        return 0;
    }

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }

protected:
    RunStage() = default;
    ~RunStage() = default;  // a stage is never deleted through its base

    // True, with the last error "no init!", when the stage is used before its init.
    bool refuseBeforeInit() { return SurfaceReconstruction::refuseBeforeInit(m_inited, m_last_error); }

    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::shared_ptr<DeviceParameters> m_device_params;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    std::weak_ptr<ThreadPool> m_thread_pool;
};

}  // namespace SurfaceReconstruction
