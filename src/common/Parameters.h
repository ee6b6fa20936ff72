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

// The block edge of a run when the application asks for none: 256 cells, halved below a resolution of
// 0.2. It depends on nothing but the resolution, so that the same scan is cut alike on every machine.
constexpr std::uint32_t DEFAULT_BLOCK_SIZE = 256;
// The block edges an application may ask for: powers of two in this range (a block must hold its two
// margins, and a block with its margins must fit the bins' 10-bit Morton coordinates).
constexpr std::uint32_t MIN_BLOCK_SIZE = 32;
constexpr std::uint32_t MAX_BLOCK_SIZE = 512;

// True for a block edge an application may ask for.
inline bool validBlockSize(std::uint32_t cells) {
    return cells >= MIN_BLOCK_SIZE && cells <= MAX_BLOCK_SIZE && (cells & (cells - 1)) == 0;
}

// Sets the block size: `requested` cells when not 0, otherwise the default above.
void computeBlockSizing(PortionerParameters& params, float resolution, std::uint32_t requested = 0);

}  // namespace SurfaceReconstruction
