// A Portioner over its own parameter records, set up the way the engine does it.
#pragma once

#include <cstring>
#include <memory>

#include "Portioner.h"

namespace SurfaceReconstruction {
namespace testing_support {

inline std::shared_ptr<DeviceParameters> configurePortioner(Portioner& portioner, std::uint32_t max_frame_points,
                                                            std::uint32_t block_size, float resolution) {
    auto params = std::make_shared<DeviceParameters>();
    std::memset(params.get(), 0, sizeof(DeviceParameters));
    params->MAX_FRAME_POINTS = max_frame_points;
    portioner.setDeviceParams(params);
    portioner.setPortionerParams(
        std::make_shared<PortionerParameters>(PortionerParameters{block_size, 12, block_size + 24}));
    portioner.setResolution(resolution);
    return params;
}

}  // namespace testing_support
}  // namespace SurfaceReconstruction
