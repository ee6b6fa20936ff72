// Contouring of one dual cube: the eight leaves around a point, their sheets matched across the
// corners, and marching cubes through the library's own configuration and triangle tables.
#pragma once

#include <omp.h>

#include <array>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "common/CellRecords.h"
#include "common/OctreeRecords.h"
#include "contour/DualCubeTables.h"
#include "tessaline/Tessaline.h"
#include "volume/FieldDataPool.h"

namespace SurfaceReconstruction {

// A corner's sheet belongs to the cube's surface when its normal agrees with the reference this well;
// when none of its sheets does, its best one still serves above the fallback bound.
constexpr float SHEET_AGREEMENT = 0.1f;
constexpr float SHEET_FALLBACK_AGREEMENT = -0.2f;

// The 16-bit quality word of a dual cube from the sub-cell occupancy of its eight slots: the share of
// corner cells whose points spread over more than a threshold of their octants, as four equal nibbles.
inline std::uint32_t computeQualityWord(const std::uint64_t masks[8], float min_edge) {
    const int divisor = 2;
    const int bar = min_edge >= 0.1f ? 1 : 3;
    constexpr std::uint64_t OCTANT_MASKS[8] = {0x330033ull,         0xcc00ccull,        0x33003300ull,
                                               0xcc00cc00ull,       0x330033ull << 32,  0xcc00ccull << 32,
                                               0x33003300ull << 32, 0xcc00cc00ull << 32};
    int n = 0;
    float s = 0.0f;
    for (int k = 0; k < 8; ++k) {
        if (masks[k] == 0) continue;
        int count = 0;
        for (std::uint64_t octant : OCTANT_MASKS) count += (masks[k] & octant) != 0 ? 1 : 0;
        if (count > bar) {
            ++n;
            const float share = static_cast<float>(count) / static_cast<float>(bar);
            s += share < 1.0f ? share : 1.0f;
        }
    }
    if (n == 0) return 0;
    float level = s * (static_cast<float>(n) / static_cast<float>(divisor));
    if (level > 1.0f) level = 1.0f;
    const std::uint32_t nibble = static_cast<std::uint32_t>(level * 15.0f);
    return nibble * 0x1111u;
}

// Where triangles leave the extraction: each worker appends to its own part, so no lock is taken. A
// triangle with a NaN coordinate is dropped, so xyz and w keep equal lengths.
struct TriangleSink {
    std::atomic<unsigned char>* is_ok;
    std::vector<MultiMeshData*>* parts;  // the part each worker fills, by thread number

    void operator()(const TriangleXYZ& xyz, const TriangleW& w) const {
        if (is_ok->load(std::memory_order_relaxed) == 0) return;
        MultiMeshData& part = *(*parts)[static_cast<std::size_t>(omp_get_thread_num())];
        for (float coordinate : xyz.xyz)
            if (std::isnan(coordinate)) return;
        part.xyz.push_back(xyz);
        part.w.push_back(w);
    }
};

// The triangles of a canonical case, or null for 0, 255 and numbers that are no case; looked up by
// table, as it runs for every contoured dual cube.
inline const DualCubeCase* dualCubeCase(int canonical_case) {
    static const auto index = [] {
        std::array<const DualCubeCase*, 256> table{};
        for (const DualCubeCase& c : DUAL_CUBE_CASES) table[c.canonical_case] = &c;
        return table;
    }();
    return canonical_case >= 0 && canonical_case < 256 ? index[static_cast<std::size_t>(canonical_case)] : nullptr;
}

// Contours the dual cubes it is handed into `sink`, a callable taking (const TriangleXYZ&, const TriangleW&).
template <class Sink>
class DualCubeContour {
public:
    DualCubeContour(const FieldDataPool& pool, Sink& sink) : m_pool(pool), m_sink(sink) {}

    void operator()(const CellNode* const cells[8]) const {
        std::uint8_t used_first[8] = {}, used_second[8] = {};
        const CellNode* c0 = cells[0];
        // Corner 0 decides how many surfaces the cube can hold: one contouring for each of its sheets.
        for (int sheet = 0; sheet < 2; ++sheet) {
            if (c0->data_id < 0 || c0->field_count < sheet + 1) return;
            const FieldSlot* reference = m_pool.slot(c0->data_id + sheet);
            const FieldSlot* slots[8] = {};
            float min_edge = 0.0f;
            if (matchSheets(reference->normal, cells, slots, used_first, used_second, min_edge) == 0)
                contourSheets(slots, cells, min_edge);
        }
    }

    // One slot for each corner that agrees with the reference; 1 when a corner has none to give.
    int matchSheets(const float reference[3], const CellNode* const cells[8], const FieldSlot* slots[8],
                    std::uint8_t used_first[8], std::uint8_t used_second[8], float& min_edge) const {
        float half = FLT_MAX;
        for (int k = 0; k < 8; ++k) {
            const CellNode* cell = cells[k];
            if (cell->data_id == -1 || cell->field_count < 1) return 1;
            half = cell->half_size < half ? cell->half_size : half;
            const FieldSlot* first = m_pool.slot(cell->data_id);
            const float first_dot = dot(first->normal, reference);
            if (first_dot > SHEET_AGREEMENT) {
                if (used_first[k]) return 1;  // the first slot has priority, even when it is taken
                slots[k] = first;
                used_first[k] = 1;
                continue;
            }
            const FieldSlot* second = cell->field_count == 2 ? m_pool.slot(cell->data_id + 1) : nullptr;
            const float second_dot = second ? dot(second->normal, reference) : -FLT_MAX;
            if (second_dot > SHEET_AGREEMENT) {
                if (used_second[k]) return 1;
                slots[k] = second;
                used_second[k] = 1;
                continue;
            }
            // No sheet agrees: near a sharp edge the corners fit different faces, and refusing the cube
            // would leave a slit along the edge. The best-agreeing sheet serves unless it faces away.
            const bool take_second = second_dot > first_dot;
            if (!((take_second ? second_dot : first_dot) > SHEET_FALLBACK_AGREEMENT)) return 1;
            std::uint8_t& used = take_second ? used_second[k] : used_first[k];
            if (used) return 1;
            slots[k] = take_second ? second : first;
            used = 1;
        }
        min_edge = half + half;
        return 0;
    }

    void contourSheets(const FieldSlot* const slots[8], const CellNode* const cells[8], float min_edge) const {
        int configuration = 0;
        for (int k = 0; k < 8; ++k)
            if (slots[k]->value < 0.0f) configuration |= 1 << k;  // NaN and 0 count as not below
        const DualCubeConfiguration& row = DUAL_CUBE_CONFIGURATIONS[configuration];
        if (row.canonical_case == 0 || row.canonical_case == 255) return;
        const FieldSlot* s[8];
        const float* p[8];
        for (int j = 0; j < 8; ++j) {
            s[j] = slots[row.corner[j]];
            p[j] = cells[row.corner[j]]->center;
        }
        std::uint32_t group = 0;
        std::uint64_t masks[8];
        for (int j = 0; j < 8; ++j) {
            group |= s[j]->word;
            masks[j] = s[j]->occupancy;
        }
        group &= 0xffffff00u;  // every flag bit; the quality word joins bits 16-31 below
        const std::uint32_t quality = computeQualityWord(masks, min_edge);
        float vertices[12][3];
        std::uint32_t words[12];
        for (int e = 0; e < 12; ++e) {
            int a = DUAL_CUBE_EDGES[e][0], b = DUAL_CUBE_EDGES[e][1];
            if ((s[a]->value < 0.0f) == (s[b]->value < 0.0f)) continue;
            // The vertex runs from the edge's corner below 0 to the other one, whichever cube makes it and in
            // whatever order its corners come: every cube that shares the edge gives the same bits.
            if (!(s[a]->value < 0.0f)) std::swap(a, b);
            const float va = s[a]->value, vb = s[b]->value;
            const float t = (0.0f - va) / (vb - va);
            for (int axis = 0; axis < 3; ++axis) vertices[e][axis] = (p[b][axis] - p[a][axis]) * t + p[a][axis];
            words[e] = ((s[a]->word | s[b]->word) & 255u) | group | (quality << 16);
        }
        const DualCubeCase* triangles = dualCubeCase(row.canonical_case);
        if (triangles == nullptr) return;
        for (int i = 0; i < triangles->triangle_count; ++i)
            emitTriangle(vertices, words, triangles->edges[i][0], triangles->edges[i][1], triangles->edges[i][2],
                         row.reflected != 0);
    }

private:
    static float dot(const float a[3], const float b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

    static bool coincide(const float a[3], const float b[3]) {
        const float eps = 1.1920929e-7f;
        return std::fabs(a[0] - b[0]) < eps && std::fabs(a[1] - b[1]) < eps && std::fabs(a[2] - b[2]) < eps;
    }

    // The winding makes the triangle face where the field is below 0.
    void emitTriangle(const float vertices[12][3], const std::uint32_t words[12], int a, int b, int c,
                      bool reflected) const {
        if (coincide(vertices[a], vertices[b]) || coincide(vertices[a], vertices[c]) ||
            coincide(vertices[b], vertices[c]))
            return;
        const int order[3] = {reflected ? a : c, b, reflected ? c : a};
        TriangleXYZ xyz;
        TriangleW w;
        for (int v = 0; v < 3; ++v) {
            for (int axis = 0; axis < 3; ++axis) xyz.xyz[3 * v + axis] = vertices[order[v]][axis];
            w.w[v] = words[order[v]];
        }
        m_sink(xyz, w);
    }

    const FieldDataPool& m_pool;
    Sink& m_sink;
};

}  // namespace SurfaceReconstruction
