// The records of the marching cubes stage and the field computation: bins, cells and their relations
// to the bins, sheets. Plain data that the kernels use on host and device alike.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/UninitialisedArray.h"
#include "device/DeviceLayer.h"

namespace SurfaceReconstruction {

// Scale code of no scale: an error when it reaches the cell building.
constexpr std::int8_t SUB_SCALE_NANE = 0;
// One occupied bin of a block. The array is written by the device and read and rewritten by the host.
struct BinsHeader {
    float center[3];
    std::int32_t point_offset;  // first point of the bin in the block's sorted points
    std::int32_t point_count;
    std::int8_t bin_sub_scale;   // the scale code; starts at 8
    std::uint8_t bin_flags;      // OR of bits 8-15 of the points' words
    std::uint16_t word_high;     // OR of bits 16-31 of the points' words: flag bits as well
    std::uint64_t occupancy[8];  // one bit for each of the 8 x 8 x 8 sub-cells, by Morton code
};
static_assert(sizeof(BinsHeader) == 88, "BinsHeader has no hidden padding");

// The code a bin counts with: a code of 0 (no scale) counts as the default 8.
inline int effectiveScaleCode(const BinsHeader& bin) {
    return bin.bin_sub_scale == SUB_SCALE_NANE ? 8 : bin.bin_sub_scale;
}

// One surface sheet of a cell.
struct FieldSlot {
    float normal[3];
    float value;
    std::uint32_t word;
    std::uint32_t reserved;  // always 0: records are compared and copied byte for byte
    std::uint64_t occupancy;
};
static_assert(sizeof(FieldSlot) == 32, "FieldSlot has no hidden padding");

// The relation of a cell to one bin: a run of points that the cell's field takes in.
struct RelationCell2Bins_Device {
    std::int32_t offset;  // the bin's point_offset
    std::int32_t count;   // the bin's point_count
};

struct CellNode;

// The record of one cell in the field computation.
struct CellNode_Device {
    CellNode* cell;  // the octree cell; the device only carries it along
    float center[3];
    float half_size;               // 0.5 in a record not yet used
    std::uint32_t word;            // low byte the scale code of the bin that made the record, then flags
    std::int32_t relation_offset;  // first entry of the cell in the flat relation array; -1 until flattened
    std::int32_t relation_count;
    std::int32_t point_count;  // sum of the relations' counts; -1 in a record not yet used
    std::int32_t field_flag;   // -1 no usable surface; 0, 1, 2 the number of sheets
    float init_normal[3];
    std::uint32_t rules;     // CELL_* bits, and in bits 8-15 the CellRejection that left it without a sheet
    std::uint32_t reserved;  // always 0
    FieldSlot fields[2];
};
static_assert(sizeof(CellNode_Device) == 128, "CellNode_Device has no hidden padding");

// A cell with fewer points than this takes one more ring of bins into its neighbourhood.
constexpr std::int32_t SPARSE_CELL_POINTS = 16;

// What the cell building and the field computation did with a cell, in CellNode_Device::rules.
constexpr std::uint32_t CELL_WIDENED_SEARCH = 0x1;  // a sparse cell: its search took one more ring of bins
constexpr std::uint32_t CELL_ALL_POINTS = 0x2;  // a flagged cell whose flagged points gave no side: all points count
constexpr std::uint32_t CELL_CREASE = 0x4;      // its value meets a second face that crosses its plane

// The rule that left a cell without a sheet, in bits 8-15 of CellNode_Device::rules.
enum CellRejection : std::uint32_t {
    CELL_KEPT = 0,
    CELL_FEW_POINTS = 1,        // fewer than 5 points in reach
    CELL_NO_RELATIONS = 2,      // no relation list
    CELL_NO_COMMON_NORMAL = 3,  // no 5 points agreeing with any of the three reference normals
    CELL_NO_SIDE = 4,           // no side with more than 4 points, one of them near
    CELL_FIT_ACROSS = 5,        // every side's fit lay across its reference normal
    CELL_OFF_CENTRE = 6,        // a sparse cell whose points' centroid lies beyond one edge of it
    CELL_REJECTION_COUNT = 7,
};

// How many cells of a run each rule of the field computation decided; a region that stays open shows
// here why.
struct CellRuleCounts {
    std::uint64_t cells = 0;  // leaves with a record
    std::uint64_t with_sheet = 0;
    std::uint64_t rejected[CELL_REJECTION_COUNT] = {};
    std::uint64_t widened = 0;
    std::uint64_t all_points = 0;
    std::uint64_t creases = 0;
};

TESSA_HD inline CellRejection cellRejection(std::uint32_t rules) {
    return static_cast<CellRejection>((rules >> 8) & 0xFFu);
}
TESSA_HD inline void setCellRejection(std::uint32_t& rules, CellRejection why) {
    rules = (rules & ~0xFF00u) | (static_cast<std::uint32_t>(why) << 8);
}

// Two points, one a sheet: working array of the field computation.
struct VoxelFieldCenter {
    float sheet[2][3];
};

// A record of a fresh pool block.
inline CellNode_Device emptyCellNodeDevice() {
    CellNode_Device record{};
    record.half_size = 0.5f;
    record.relation_offset = -1;
    record.point_count = -1;
    return record;
}

// The flattened cells of a block and their relations: the input of the field computation.
struct CellNodeAndRelations {
    std::atomic<std::int32_t> cell_node_size{0};
    UninitialisedArray<CellNode_Device> cell_nodes;
    std::atomic<std::int32_t> relation_size{0};
    UninitialisedArray<RelationCell2Bins_Device> relations;
};

}  // namespace SurfaceReconstruction
