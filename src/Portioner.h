// The Portioner cuts the points of all frames of a run into cubic blocks of a world grid, each block
// with a margin of its neighbours' points, so that later stages hold one block at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Parameters.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

class ThreadPool;

// One point as it travels through the stages; one layout on host and device.
struct RawPointWithHash {
    float x, y, z;
    float nx, ny, nz;
    std::int32_t w;     // the frame's word: bits 0-7 scale wish, bits 8 and up flags
    std::int32_t hash;  // block entry here; the marching cubes stage writes a Morton code into it
    std::uint8_t laser;
    std::uint16_t reserved_a;
    std::uint16_t reserved_b;
};

// One block of the world grid with its own points and the points of its margin.
struct PointCloudBlock {
    std::atomic<std::int32_t> state{0};
    float center[3] = {0.0f, 0.0f, 0.0f};
    float half_size = 0.5f;
    std::int32_t flags = 0;  // OR of w over all the block's points
    std::shared_ptr<std::vector<RawPointWithHash>> points = std::make_shared<std::vector<RawPointWithHash>>();
};

class Portioner {
public:
    Portioner() = default;
    ~Portioner();
    Portioner(const Portioner&) = delete;
    Portioner& operator=(const Portioner&) = delete;

    int setDeviceParams(const std::shared_ptr<DeviceParameters>& params);
    int setPortionerParams(const std::shared_ptr<PortionerParameters>& params);
    int setThreadPool(const std::weak_ptr<ThreadPool>& pool);
    int setResolution(float resolution);

    int init();
    int deInit();

    // First pass, one call a frame; 1 when the frame is not taken.
    int addScanFrameWithoutModel(const std::shared_ptr<FrameDataWithInfo>& frame);
    // Everything from the end of the first pass to the block list sorted by size, largest first.
    int processWithoutModel();

    // Points of the first, largest block; 0 without blocks.
    int getMaxBlockPointsSize();
    int getPointCloudBlockCount();
    // Hands out block `index` and empties its slot.
    int takePointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index);
    // Hands out block `index` and leaves it in the list.
    int getPointCloudBlock(std::shared_ptr<PointCloudBlock>& block, std::int32_t index);

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    std::size_t waitingFrameCount() const { return m_waiting_frames.size(); }

private:
    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::shared_ptr<DeviceParameters> m_device_params;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    bool m_task_failed = false;
    std::weak_ptr<ThreadPool> m_thread_pool;
    std::deque<std::shared_ptr<FrameDataWithInfo>> m_waiting_frames;
    std::vector<std::shared_ptr<PointCloudBlock>> m_point_cloud_blocks;
};

}  // namespace SurfaceReconstruction
