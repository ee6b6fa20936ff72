// Portioner: block sizing, frame intake of the first pass and the block list.
#include "Portioner.h"

#include "DeviceLayer.h"
#include "ThreadPool.h"

namespace SurfaceReconstruction {

void computeBlockSizing(PortionerParameters& params, float resolution) {
    params.block_size = 256;
    params.ext_size = PORTIONER_EXT_SIZE;
    params.block_with_ext_size = params.block_size + 2 * PORTIONER_EXT_SIZE;

    std::size_t free_bytes = 0, total_bytes = 0;
    if (deviceMemGetInfo(&free_bytes, &total_bytes) != DEVICE_SUCCESS) return;

    const float total_gib = static_cast<float>(total_bytes) * (1.0f / 1024) * (1.0f / 1024) * (1.0f / 1024);
    if (total_gib > 7.0f) {
        params.block_size = 512;
        params.block_with_ext_size = params.block_size + 2 * PORTIONER_EXT_SIZE;
    }
    if (static_cast<double>(resolution) < 0.2) {
        params.block_size >>= 1;
        params.block_with_ext_size = params.block_size + 2 * PORTIONER_EXT_SIZE;
    }
}

Portioner::~Portioner() {
    if (m_inited) deInit();
}

int Portioner::setDeviceParams(const std::shared_ptr<DeviceParameters>& params) {
    m_device_params = params;
    return 0;
}

int Portioner::setPortionerParams(const std::shared_ptr<PortionerParameters>& params) {
    m_portioner_params = params;
    return 0;
}

int Portioner::setThreadPool(const std::weak_ptr<ThreadPool>& pool) {
    m_thread_pool = pool;
    return 0;
}

int Portioner::setResolution(float resolution) {
    m_resolution = resolution;
    return 0;
}

int Portioner::init() {
    m_inited = true;
    return 0;
}

int Portioner::deInit() {
    if (!m_inited) return 0;
    m_waiting_frames.clear();
    m_inited = false;
    return 0;
}

int Portioner::addScanFrameWithoutModel(const std::shared_ptr<FrameDataWithInfo>& frame) {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    if (m_task_failed || !frame) return 1;
    if (frame->frame_info.laser_id < 0 || frame->frame_info.laser_id >= 8) frame->frame_info.laser_id = 0;

    // A frame slot holds MAX_FRAME_POINTS points, so a frame of exactly that many still fits.
    const std::size_t pt_size = frame->xyz.size();
    if (!m_device_params || pt_size > m_device_params->MAX_FRAME_POINTS) return 1;

    m_waiting_frames.push_back(frame);
    return 0;
}

int Portioner::processWithoutModel() {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    if (m_task_failed) return 1;
    // The block computation of the frames is not built yet: without blocks the run ends here.
    if (m_point_cloud_blocks.empty()) return 1;
    return 0;
}

int Portioner::getMaxBlockPointsSize() {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    if (m_point_cloud_blocks.empty() || !m_point_cloud_blocks.front()) return 0;
    return static_cast<int>(m_point_cloud_blocks.front()->points->size());
}

int Portioner::getPointCloudBlockCount() {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    return static_cast<int>(m_point_cloud_blocks.size());
}

int Portioner::takePointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index) {
    const int result = getPointCloudBlock(block, index);
    if (result == 0) m_point_cloud_blocks[static_cast<std::size_t>(index)].reset();
    return result;
}

int Portioner::getPointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index) {
    if (!m_inited) {
        m_last_error = "no init!";
        return 1;
    }
    if (index < 0 || static_cast<std::size_t>(index) >= m_point_cloud_blocks.size() ||
        !m_point_cloud_blocks[static_cast<std::size_t>(index)]) {
        m_last_error = "no cur block id!";
        return 1;
    }
    block = m_point_cloud_blocks[static_cast<std::size_t>(index)];
    return 0;
}

}  // namespace SurfaceReconstruction
