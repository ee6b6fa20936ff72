// The records of scan points and blocks as they travel from the Portioner through the marching cubes
// stage: plain data with one layout on host and device, and the orders in which they are sorted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/UninitialisedArray.h"
#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {

// Grid index of a block.
struct RawSurfaceBlockPos {
    std::int32_t x, y, z;
};

struct RawSurfaceBlockPos_CMP_LESS {
    TESSA_HD bool operator()(const RawSurfaceBlockPos& a, const RawSurfaceBlockPos& b) const {
        if (a.x != b.x) return a.x < b.x;
        if (a.y != b.y) return a.y < b.y;
        return a.z < b.z;
    }
};

struct RawSurfaceBlockPos_CMP_EQUAL {
    TESSA_HD bool operator()(const RawSurfaceBlockPos& a, const RawSurfaceBlockPos& b) const {
        return a.x == b.x && a.y == b.y && a.z == b.z;
    }
};

// One point as it travels through the stages; one layout on host and device.
struct RawPointWithHash {
    float x, y, z;
    float nx, ny, nz;
    std::int32_t w;     // the frame's word: bits 0-7 scale wish, bits 8 and up flags
    std::int32_t hash;  // here the block's table entry; the marching cubes stage writes a Morton code into it
    std::uint8_t laser;
    std::uint8_t padding;  // always 0: records are compared and copied byte for byte
    std::uint16_t reserved_a;
    std::uint32_t reserved_b;
};
// Every byte is a named field, so a record written field by field has no undefined bytes.
static_assert(offsetof(RawPointWithHash, w) == 24 && offsetof(RawPointWithHash, hash) == 28 &&
                  offsetof(RawPointWithHash, laser) == 32 && offsetof(RawPointWithHash, padding) == 33 &&
                  offsetof(RawPointWithHash, reserved_a) == 34 && offsetof(RawPointWithHash, reserved_b) == 36 &&
                  sizeof(RawPointWithHash) == 40,
              "RawPointWithHash has no hidden padding");

// Orders by `hash` as unsigned, then by every other field's bits, so that the points of a block come
// out in one order whatever order the threads wrote them in.
struct RawPointWithHash_CMP_LESS {
    TESSA_HD static std::uint32_t bits(float value) {
        union {
            float f;
            std::uint32_t u;
        } cast{value};
        return cast.u;
    }
    TESSA_HD bool operator()(const RawPointWithHash& a, const RawPointWithHash& b) const {
        if (a.hash != b.hash) return static_cast<std::uint32_t>(a.hash) < static_cast<std::uint32_t>(b.hash);
        const float fa[6] = {a.x, a.y, a.z, a.nx, a.ny, a.nz};
        const float fb[6] = {b.x, b.y, b.z, b.nx, b.ny, b.nz};
        for (int i = 0; i < 6; ++i) {
            const std::uint32_t ua = bits(fa[i]), ub = bits(fb[i]);
            if (ua != ub) return ua < ub;
        }
        if (a.w != b.w) return a.w < b.w;
        return a.laser < b.laser;
    }
};

// The points of a block: written in full wherever the list grows, so its growth leaves them unset.
using PointList = UninitialisedArray<RawPointWithHash>;

// One block of the world grid with its own points and the points of its margin.
struct PointCloudBlock {
    std::atomic<std::int32_t> state{0};
    float center[3] = {0.0f, 0.0f, 0.0f};
    float half_size = 0.5f;
    std::int32_t flags = 0;  // OR of w over all the block's points
    std::shared_ptr<PointList> points = std::make_shared<PointList>();
};

}  // namespace SurfaceReconstruction
