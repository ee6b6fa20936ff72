// The hash of three signed 32-bit grid coordinates, shared by every table of the system and by the
// device, which searches the Portioner's table with it: host and device must reach the same slot.
#pragma once

#include <cstdint>

#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {

// FNV-1a over the four bytes of one coordinate, lowest byte first. The 32-bit form gives the same low
// bits as the 64-bit one with its standard offset basis and prime, which is all a masked slot uses.
TESSA_HD inline std::uint32_t coordinateHash(std::int32_t value) {
    const std::uint32_t bits = static_cast<std::uint32_t>(value);
    std::uint32_t h = 0x84222325u;
    for (int byte = 0; byte < 4; ++byte) h = (h ^ ((bits >> (8 * byte)) & 0xFFu)) * 0x1B3u;
    return h;
}

// Golden-ratio combine of the three coordinate hashes; the right shift is arithmetic on the signed seed.
TESSA_HD inline std::uint32_t combineGridHash(std::uint32_t seed, std::int32_t value) {
    const std::uint32_t shifted_right = static_cast<std::uint32_t>(static_cast<std::int32_t>(seed) >> 2);
    return seed ^ (coordinateHash(value) + 0x9E3779B9u + (seed << 6) + shifted_right);
}

TESSA_HD inline std::uint32_t hashGridKey(std::int32_t x, std::int32_t y, std::int32_t z, std::uint32_t mask) {
    std::uint32_t seed = 0;
    seed = combineGridHash(seed, x);
    seed = combineGridHash(seed, y);
    seed = combineGridHash(seed, z);
    return seed & mask;
}

// Grid index of a coordinate on one axis: the quotient in float; one lower below zero; truncated toward
// zero with saturation. This is the floor except at exact negative multiples, which land one lower.
TESSA_HD inline std::int32_t gridIndex(float value, float cell) {
    float q = value / cell;
    if (q < 0.0f) q = q - 1.0f;
    return floatToIntSaturate(q);
}

// The grid indices of a position on all three axes.
TESSA_HD inline void gridKey(const float position[3], float cell, std::int32_t key[3]) {
    for (int k = 0; k < 3; ++k) key[k] = gridIndex(position[k], cell);
}

}  // namespace SurfaceReconstruction
