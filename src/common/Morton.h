// Morton codes of bin coordinates: x in the lowest bit of each triple, 10 bits a coordinate.
#pragma once

#include <cstdint>

#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {

TESSA_HD inline std::uint32_t mortonSpread(std::uint32_t v) {
    std::uint32_t t = (v << 16) | v;
    t = (t & 0x030000FFu) | ((t << 8) & 0x0000FF00u);
    t = (t & 0x0300F00Fu) | ((t << 4) & 0x300F00F0u);
    t = (t & 0x01041041u) | ((t << 2) & 0x08208208u);
    return t;
}

TESSA_HD inline std::uint32_t mortonEncode(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
    return mortonSpread(x) | (mortonSpread(y) << 1) | (mortonSpread(z) << 2);
}

// The Morton code of the bin of bins of edge `bin_size` from `origin` that holds `p`. A coordinate within
// rounding below the origin (or at it) goes to the first bin on its axis: its code must not depend on
// anything beyond the block.
TESSA_HD inline std::uint32_t binCodeOf(const float p[3], const float origin[3], float bin_size) {
    std::uint32_t index[3];
    for (int k = 0; k < 3; ++k) {
        const float d = p[k] - origin[k];
        index[k] = d > 0.0f ? static_cast<std::uint32_t>(floatToIntSaturate(d / bin_size)) : 0u;
    }
    return mortonEncode(index[0], index[1], index[2]);
}

// One coordinate back from the bits of its axis (the code shifted so that they sit at 0, 3, 6, ...).
TESSA_HD inline std::uint32_t mortonCompact(std::uint32_t code) {
    const std::uint32_t m = code & 0x09249249u;
    const std::uint32_t a = (m >> 2) | m;
    std::uint32_t b = a & 0x030C30C3u;
    b = (b >> 4) | b;
    b = b & 0x0300F00Fu;
    return (((b >> 8) | b) & 255u) | ((a & 0x03000000u) >> 16);
}

TESSA_HD inline void mortonDecode(std::uint32_t code, std::uint32_t& x, std::uint32_t& y, std::uint32_t& z) {
    x = mortonCompact(code);
    y = mortonCompact(code >> 1);
    z = mortonCompact(code >> 2);
}

// The number of set bits, without depending on a population-count instruction.
TESSA_HD inline int bitCount64(std::uint64_t v) {
    v = v - ((v >> 1) & 0x5555555555555555ull);
    v = (v & 0x3333333333333333ull) + ((v >> 2) & 0x3333333333333333ull);
    v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0full;
    return static_cast<int>((v * 0x0101010101010101ull) >> 56);
}

}  // namespace SurfaceReconstruction
