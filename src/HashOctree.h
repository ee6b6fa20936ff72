// The sparse volume of a run: a hash table from the coordinates of a root block to its root cell,
// one octree below each root.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace SurfaceReconstruction {

// Sizes of the octree's table and cell pool; set once by the engine.
struct HashParameters {
    std::uint64_t HASH_BUCKET_NUM;
    std::uint64_t HASH_BUCKET_MASK;
    std::uint64_t HASH_EXCESS_LIST_SIZE;
    std::uint64_t CELL_POOL_BLOCK_SIZE;
    std::uint64_t CELL_POOL_INIT_BLOCKS;
    std::uint64_t CELL_POOL_MAX_BLOCKS;
};

// The values every run uses.
inline HashParameters defaultHashParameters() { return {0x4000000, 0x3ffffff, 100000, 500000, 4, 10000}; }

class HashOctree {
public:
    HashOctree() = default;
    ~HashOctree();
    HashOctree(const HashOctree&) = delete;
    HashOctree& operator=(const HashOctree&) = delete;

    int init(const std::shared_ptr<HashParameters>& params);
    int deInit();
    int setResolution(float resolution);
    int setBlockSize(std::int32_t block_size);

    std::string getLastError() const { return m_last_error; }
    bool isInited() const { return m_inited; }
    float resolution() const { return m_resolution; }
    std::int32_t blockSize() const { return m_block_size; }

private:
    bool m_inited = false;
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    std::int32_t m_block_size = 100;
    std::shared_ptr<HashParameters> m_hash_params;
};

}  // namespace SurfaceReconstruction
