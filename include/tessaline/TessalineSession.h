// A live session: frames come in while the scanner runs, and each update re-meshes only the blocks that
// the new points reach, with the blocks whose seams touch them. Built on the engine's runs of chosen
// blocks (Tessaline::setOwnedBlocks, processParts) and the mesh library's weld; header only.
//
// After any sequence of add and update the session's mesh is the mesh of one run over all its frames on
// the same grid (the session's origin and block size), bit for bit.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tessaline/Tessaline.h"
#include "tessaline/TessalineMesh.h"

namespace SurfaceReconstruction {

class ScanSession {
public:
    // `resolution` as for Tessaline::setResolution. Without an `origin` the first update's run chooses it
    // (Tessaline::setRunOrigin), and it stays; `block_size` 0 is the engine's default.
    explicit ScanSession(float resolution, std::optional<std::array<double, 3>> origin = std::nullopt,
                         std::uint32_t block_size = 0)
        : m_resolution(resolution), m_origin(origin), m_block_size(block_size) {}

    // Keeps a reference to the frame (nothing is computed until update). 1 for a null frame or one whose
    // nor or w lengths differ from xyz's.
    int add(const std::shared_ptr<FrameDataWithInfo>& frame) {
        if (!frame || frame->nor.size() != frame->xyz.size() || frame->w.size() != frame->xyz.size()) {
            m_last_error = "[ScanSession] add: a null frame, or nor and w not as long as xyz!";
            return 1;
        }
        m_frames.push_back(frame);
        return 0;
    }

    // Re-meshes the blocks whose region (margin included) received points since the last update and the
    // blocks whose seams touch those: `remeshed` gets their keys, in key order, and `parts` their new
    // triangles (a re-meshed block without triangles has no part). 0, or the engine's status with
    // lastError(); after a failure the session is as before the update.
    int update(std::vector<BlockKey>& remeshed, std::vector<MeshPart>& parts) {
        remeshed.clear();
        parts.clear();
        if (m_meshed_frames == m_frames.size()) return 0;
        const bool first = !m_grid_known;
        std::vector<BlockKey> owners;
        if (!first) owners = ownersOf(changedBlocks());
        Tessaline engine;
        int status = engine.init();
        if (status == 0) {
            engine.setResolution(m_resolution);
            if (engine.getLastErrorMsg() != "no error!") status = 1;
        }
        if (status == 0 && m_origin) status = engine.setRunOrigin(*m_origin);
        if (status == 0) status = engine.setBlockSize(m_block_size);
        if (status == 0 && !first) status = engine.setOwnedBlocks(owners);
        if (status == 0) engine.setDiagnosticSink([](const std::string&, bool) {});
        for (std::size_t f = 0; status == 0 && f < m_frames.size(); ++f)
            if (first || reaches(f, owners)) status = engine.addScanFrame_ALL(m_frames[f]);
        std::vector<MeshPart> made;
        if (status == 0) status = engine.processParts(made);
        if (status == 0 && first) {
            std::array<double, 3> origin{};
            status = engine.getRunOrigin(origin);
            m_origin = origin;
            m_block_size = engine.getBlockSize();
            for (const MeshPart& p : made) owners.push_back(p.block);
        }
        if (status != 0) {
            m_last_error = engine.getLastErrorMsg();
            engine.deInit();
            return status;
        }
        engine.deInit();
        m_grid_known = true;
        m_meshed_frames = m_frames.size();
        for (const BlockKey& k : owners) m_parts.erase(k);
        for (const MeshPart& p : made) m_parts[p.block] = p.mesh;
        remeshed = std::move(owners);
        parts = std::move(made);
        return 0;
    }

    // The triangles of every block, in key order: the soup of one run over all frames meshed so far.
    MultiMeshData soup() const {
        MultiMeshData all;
        for (const auto& part : m_parts) {
            all.xyz.insert(all.xyz.end(), part.second.xyz.begin(), part.second.xyz.end());
            all.w.insert(all.w.end(), part.second.w.begin(), part.second.w.end());
        }
        return all;
    }

    // The welded mesh now (weldMesh with a ten-thousandth of the resolution).
    int mesh(IndexedMesh& mesh) const { return weldMesh(soup(), m_resolution * 1e-4f, mesh); }

    // The grid: fixed from the first update on (before it, the origin given or none).
    std::optional<std::array<double, 3>> origin() const { return m_origin; }
    std::uint32_t blockSize() const { return m_block_size; }
    float resolution() const { return m_resolution; }
    std::size_t frameCount() const { return m_frames.size(); }
    const std::string& lastError() const { return m_last_error; }

private:
    // The margin of a block and one resolution to spare, in resolutions.
    static constexpr float REACH_RESOLUTIONS = 13.0f;

    // The engine's grid index: the quotient in float, one lower below zero, truncated.
    static std::int32_t gridIndex(float value, float cell) {
        float q = value / cell;
        if (q < 0.0f) q = q - 1.0f;
        if (!(q > -2147483648.0f && q < 2147483648.0f)) return q > 0.0f ? INT32_MAX : INT32_MIN;
        return static_cast<std::int32_t>(q);
    }
    float blockRes() const { return static_cast<float>(m_block_size) * m_resolution; }
    float relative(float v, int axis) const {
        return static_cast<float>(static_cast<double>(v) - (*m_origin)[static_cast<std::size_t>(axis)]);
    }

    // The blocks whose region or margin holds a point of the frames added since the last update.
    std::set<BlockKey> changedBlocks() const {
        std::set<BlockKey> changed;
        const float reach = REACH_RESOLUTIONS * m_resolution, edge = blockRes();
        for (std::size_t f = m_meshed_frames; f < m_frames.size(); ++f)
            for (const Vec3f& p : m_frames[f]->xyz) {
                if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
                std::int32_t lo[3], hi[3];
                for (int k = 0; k < 3; ++k) {
                    const float r = relative(p[static_cast<std::size_t>(k)], k);
                    lo[k] = gridIndex(r - reach, edge);
                    hi[k] = gridIndex(r + reach, edge);
                }
                for (std::int32_t x = lo[0]; x <= hi[0]; ++x)
                    for (std::int32_t y = lo[1]; y <= hi[1]; ++y)
                        for (std::int32_t z = lo[2]; z <= hi[2]; ++z) changed.insert(BlockKey{x, y, z});
            }
        return changed;
    }

    // The blocks whose triangles use cells of the changed blocks: each one and its neighbours on the low
    // side, whose seams reach into it.
    static std::vector<BlockKey> ownersOf(const std::set<BlockKey>& changed) {
        std::set<BlockKey> owners;
        for (const BlockKey& b : changed)
            for (int d = 0; d < 8; ++d)
                owners.insert(BlockKey{b.x - (d & 1), b.y - ((d >> 1) & 1), b.z - ((d >> 2) & 1)});
        return {owners.begin(), owners.end()};
    }

    // Whether frame `f` may hold a point that reaches the blocks the run for `owners` computes (the owners
    // and their neighbours on the high side): its box against theirs, a block to spare.
    bool reaches(std::size_t f, const std::vector<BlockKey>& owners) const {
        const FrameDataWithInfo& frame = *m_frames[f];
        if (frame.xyz.empty() || owners.empty()) return false;
        float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
        for (const Vec3f& p : frame.xyz)
            for (int k = 0; k < 3; ++k) {
                const float v = p[static_cast<std::size_t>(k)];
                if (!std::isfinite(v)) continue;
                lo[k] = std::min(lo[k], v);
                hi[k] = std::max(hi[k], v);
            }
        std::int32_t box_lo[3], box_hi[3];
        for (int k = 0; k < 3; ++k) {
            if (!(lo[k] <= hi[k])) return false;
            box_lo[k] = gridIndex(relative(lo[k], k), blockRes()) - 1;
            box_hi[k] = gridIndex(relative(hi[k], k), blockRes()) + 1;
        }
        for (const BlockKey& o : owners) {
            const std::int32_t key[3] = {o.x, o.y, o.z};
            bool inside = true;
            for (int k = 0; k < 3 && inside; ++k) inside = key[k] + 1 >= box_lo[k] && key[k] <= box_hi[k];
            if (inside) return true;
        }
        return false;
    }

    float m_resolution;
    std::optional<std::array<double, 3>> m_origin;
    std::uint32_t m_block_size;
    bool m_grid_known = false;
    std::vector<std::shared_ptr<FrameDataWithInfo>> m_frames;
    std::size_t m_meshed_frames = 0;
    std::map<BlockKey, MultiMeshData> m_parts;
    std::string m_last_error = "no error!";
};

}  // namespace SurfaceReconstruction
