// Parameter records shared by the engine and the stages; both are copied to the device as a whole,
// so they hold no pointers.
#pragma once

#include <cstdint>

namespace SurfaceReconstruction {

struct DeviceParameters {
    std::uint32_t laser_word_a;
    std::uint32_t laser_word_b;
    std::uint32_t MAX_FRAME_POINTS;  // the largest frame of the run; a frame slot holds this many points
    std::uint32_t laser_block[4];
    std::uint32_t laser_word_c;
    float laser_min_edge[8];  // a point of laser i counts in a cell only if its edge is at least this
    float wide_search_edge;
    float gauss_weight_edge;
    float fine_box_edge;
};

struct PortionerParameters {
    std::uint32_t block_size;           // edge of a block, in units of the resolution
    std::uint32_t ext_size;             // margin on each side of a block, same units
    std::uint32_t block_with_ext_size;  // block_size + 2 * ext_size
};

constexpr std::uint32_t PORTIONER_EXT_SIZE = 12;

// The edges that steer the field computation: 3-edge search from 0.2 up, Gaussian weights from 0.1
// up, the larger sample box and projection up to 0.1.
inline void setFieldComputationEdges(DeviceParameters& params) {
    params.wide_search_edge = 0.2f;
    params.gauss_weight_edge = 0.1f;
    params.fine_box_edge = 0.1f;
}

// Sets the block size from the resolution and the device's total memory: 256 cells, 512 on a device of
// more than 7 GiB, halved below a resolution of 0.2. Without a memory figure it stays at 256.
void computeBlockSizing(PortionerParameters& params, float resolution);

}  // namespace SurfaceReconstruction
