// The hand-over of a block's finished cells: their sheets move into the field store, and each leaf of
// the octree is left with the ids of its slots, or with none.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "common/Diagnostics.h"
#include "common/MemoryFailure.h"
#include "fusion/MarchingCubes.h"
#include "volume/HashOctree.h"

namespace SurfaceReconstruction {

namespace {

void addRuleCounts(CellRuleCounts& into, const CellRuleCounts& add) {
    into.cells += add.cells;
    into.with_sheet += add.with_sheet;
    for (int k = 0; k < static_cast<int>(CELL_REJECTION_COUNT); ++k) into.rejected[k] += add.rejected[k];
    into.widened += add.widened;
    into.all_points += add.all_points;
    into.creases += add.creases;
}

}  // namespace

std::int64_t MarchingCubes::saveFieldData(const CellNodeAndRelations& cells) {
    const std::int64_t n = static_cast<std::int64_t>(cells.cell_nodes.size());
    // Slots in record order, reserved at once, so that where a field lands does not depend on timing: each
    // record's count on all cores (each reads its cell in the tree), then their running sum.
    UninitialisedArray<std::int32_t> first_slot(static_cast<std::size_t>(n) + 1);
    first_slot[0] = 0;
    CellRuleCounts counts{};
#pragma omp parallel if (n > 16384)
    {
        CellRuleCounts mine{};
#pragma omp for schedule(static)
        for (std::int64_t i = 0; i < n; ++i) {
            const CellNode_Device& record = cells.cell_nodes[static_cast<std::size_t>(i)];
            const CellNode* c = record.cell;
            const bool stores = c->data_state != 2 && c->cell_type == CELL_TYPE_LEAF &&
                                (record.field_flag == 1 || record.field_flag == 2);
            first_slot[static_cast<std::size_t>(i) + 1] = stores ? record.field_flag : 0;
            if (c->cell_type != CELL_TYPE_LEAF || (record.point_count == 0 && record.relation_count == 0))
                continue;  // absorbed
            ++mine.cells;
            if (stores)
                ++mine.with_sheet;
            else
                ++mine.rejected[cellRejection(record.rules)];
            if (record.rules & CELL_WIDENED_SEARCH) ++mine.widened;
            if (record.rules & CELL_ALL_POINTS) ++mine.all_points;
            if (record.rules & CELL_CREASE) ++mine.creases;
        }
#pragma omp critical
        addRuleCounts(counts, mine);
    }
    for (std::int64_t i = 0; i < n; ++i)
        first_slot[static_cast<std::size_t>(i) + 1] += first_slot[static_cast<std::size_t>(i)];
    addRuleCounts(m_rule_counts, counts);
    std::int32_t base = -1;
    const bool have_slots =
        first_slot.back() > 0 && m_field_data_pool && m_field_data_pool->allocDataIndex(base, first_slot.back()) == 0;
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) {
        const CellNode_Device& record = cells.cell_nodes[static_cast<std::size_t>(i)];
        CellNode* c = record.cell;
        if (c->data_state == 2 || c->cell_type != CELL_TYPE_LEAF) {
            diagnostic("[error]: cell_node repeat or is not leaf!\n");
            continue;
        }
        c->data_id = -1;
        c->data_state = 0;
        c->field_count = 0;
        const int count = record.field_flag;
        if ((count != 1 && count != 2) || !have_slots) continue;  // no field, or the store is full
        const std::int32_t slot = base + first_slot[static_cast<std::size_t>(i)];
        for (int s = 0; s < count; ++s) *m_field_data_pool->slot(slot + s) = record.fields[s];
        c->data_id = slot;
        c->data_state = 2;
        c->field_count = static_cast<std::uint8_t>(count);
    }
    // A full store fails the block (its cells were reset above, and the block's tree goes back to the
    // pool): fields dropped without a word would leave holes in the mesh.
    if (first_slot.back() > 0 && !have_slots)
        throw OutOfMemory(static_cast<std::uint64_t>(first_slot.back()) * sizeof(FieldSlot));
    return have_slots ? first_slot.back() : 0;
}

}  // namespace SurfaceReconstruction
