// The marching cubes stage: takes one block at a time, builds its cells in the octree and stores their
// field values in the FieldDataPool. It produces no triangles; the Reconstructor does.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Parameters.h"

namespace SurfaceReconstruction {

class HashOctree;
class ThreadPool;
struct PointCloudBlock;

// One surface sheet of a cell.
struct FieldSlot {
    float normal[3];
    float value;
    std::uint32_t word;
    std::uint64_t occupancy;
};

// Store of the finished field values of a run: arrays of FIELD_POOL_BLOCK_SIZE slots at fixed
// addresses, grown under a spin lock, slot i at element i % size of array i / size.
class FieldDataPool {
public:
    static constexpr std::int32_t FIELD_POOL_BLOCK_SIZE = 500000;
    static constexpr std::size_t FIELD_POOL_RESERVED_BLOCKS = 10000;
    static constexpr int FIELD_POOL_INIT_BLOCKS = 4;

    FieldDataPool() = default;
    ~FieldDataPool() { deInit(); }
    FieldDataPool(const FieldDataPool&) = delete;
    FieldDataPool& operator=(const FieldDataPool&) = delete;

    // Reserves the block list and allocates the first blocks; false when an allocation fails, in which
    // case nothing stays allocated.
    bool init();
    void deInit();

    // Reserves `count` consecutive slots; 0, or 66049 with index -1 when no array can be added.
    int allocDataIndex(std::int32_t& index, std::int32_t count);
    FieldSlot* slot(std::int32_t index) const;

    bool isInited() const { return m_inited; }
    std::int32_t blockCount() const { return m_block_num.load(); }
    std::int32_t size() const { return m_size.load(); }

private:
    bool addBlock();

    bool m_inited = false;
    std::vector<FieldSlot*> m_blocks;
    std::atomic<std::int32_t> m_block_num{0};  // read without the lock by allocDataIndex
    std::atomic<std::int32_t> m_size{0};
    std::uint32_t m_lock = 0;
};

class MarchingCubes {
public:
    MarchingCubes() = default;
    ~MarchingCubes();
    MarchingCubes(const MarchingCubes&) = delete;
    MarchingCubes& operator=(const MarchingCubes&) = delete;

    int setDeviceParams(const std::shared_ptr<DeviceParameters>& params);
    int setPortionerParams(const std::shared_ptr<PortionerParameters>& params);
    int setThreadPool(const std::weak_ptr<ThreadPool>& pool);
    int setResolution(float resolution);

    int init();
    int setHashOctree(const std::shared_ptr<HashOctree>& octree);
    int setFieldDataPool(const std::shared_ptr<FieldDataPool>& pool);
    // Sizes the device buffers for the largest block of the run.
    int initDevice(std::uint64_t max_points);
    int process(const std::shared_ptr<PointCloudBlock>& block);
    int deInitDevice();
    int deInit();

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    std::uint64_t rawPointsCapacity() const { return m_raw_points_capacity; }

private:
    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::shared_ptr<DeviceParameters> m_device_params;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    std::weak_ptr<ThreadPool> m_thread_pool;
    std::shared_ptr<HashOctree> m_hash_octree;
    std::shared_ptr<FieldDataPool> m_field_data_pool;
    std::uint64_t m_raw_points_capacity = 0;
};

}  // namespace SurfaceReconstruction
