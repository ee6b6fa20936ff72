// A scan point as the stages receive it: position, normal and word, the rest zero.
#pragma once

#include "Portioner.h"

namespace SurfaceReconstruction {
namespace testing_support {

inline RawPointWithHash scanPoint(float x, float y, float z, float nx, float ny, float nz, std::int32_t w = 8) {
    RawPointWithHash p{};
    p.x = x;
    p.y = y;
    p.z = z;
    p.nx = nx;
    p.ny = ny;
    p.nz = nz;
    p.w = w;
    return p;
}

}  // namespace testing_support
}  // namespace SurfaceReconstruction
