// The engine: set-up and tear-down of the stages, frame intake and the run.
#include "engine/Tessaline_OPT.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/BlockSelection.h"
#include "common/Diagnostics.h"
#include "common/ErrorLadder.h"
#include "common/MemoryFailure.h"
#include "common/ThreadPool.h"
#include "common/TimeProfiler.h"
#include "contour/Reconstructor.h"
#include "device/DeviceSelection.h"
#include "engine/MarkerFilter.h"
#include "fusion/MarchingCubes.h"
#include "portion/Portioner.h"
#include "volume/HashOctree.h"

namespace SurfaceReconstruction {

const wchar_t* const STEP_PREPROCESS = L"\u70b9\u4e91\u9884\u5904\u7406";
const wchar_t* const STEP_FUSION = L"\u878d\u5408\u6570\u636e";
const wchar_t* const STEP_MESH = L"\u751f\u6210\u7f51\u683c";

namespace {
constexpr int TOTAL_STEPS = 3;

// A new stage with the run's settings, set up: its status, and where its init fails its last error in
// `last_error`.
template <class Stage>
int startStage(std::shared_ptr<Stage>& stage, const std::shared_ptr<DeviceParameters>& device_params,
               const std::shared_ptr<PortionerParameters>& portioner_params, const std::weak_ptr<ThreadPool>& pool,
               std::string& last_error) {
    stage = std::make_shared<Stage>();
    stage->setDeviceParams(device_params);
    stage->setPortionerParams(portioner_params);
    stage->setThreadPool(pool);
    const int result = stage->init();
    if (result != 0) last_error = stage->getLastError();
    return result;
}
}  // namespace

int printStepReport(ProcessStepInfo& info) {
    diagnostic("[info] cur step %s , (%d / %d) , (%d / %d) \n", toUtf8(info.step_name).c_str(), info.cur_step,
               info.total_steps, info.cur_sub_step, info.total_sub_steps);
    return 1;
}

void printCellRuleCounts(const CellRuleCounts& counts) {
    const auto n = [](std::uint64_t v) { return static_cast<unsigned long long>(v); };
    diagnostic(
        "[MarchingCubes] cells %llu, %llu with a surface; without one: %llu with fewer than 5 points, %llu "
        "without relations, %llu without a common normal, %llu without a side of 5 points, %llu with fits "
        "across their normals, %llu sparse and off their points; %llu sparse cells widened, %llu flagged "
        "cells on all their points, %llu at a sharp edge\n",
        n(counts.cells), n(counts.with_sheet), n(counts.rejected[CELL_FEW_POINTS]),
        n(counts.rejected[CELL_NO_RELATIONS]), n(counts.rejected[CELL_NO_COMMON_NORMAL]),
        n(counts.rejected[CELL_NO_SIDE]), n(counts.rejected[CELL_FIT_ACROSS]), n(counts.rejected[CELL_OFF_CENTRE]),
        n(counts.widened), n(counts.all_points), n(counts.creases));
}

std::string emptyMeshReason(const CellRuleCounts& counts, std::uint64_t points, float resolution) {
    static const char* const RULES[CELL_REJECTION_COUNT] = {
        "",
        "fewer than 5 points in reach",
        "no relations",
        "no 5 points agreeing on a normal",
        "no side of 5 points",
        "fits across their normals",
        "sparse and off their points",
    };
    char text[512];
    const auto n = [](std::uint64_t v) { return static_cast<unsigned long long>(v); };
    if (counts.cells == 0) {
        std::snprintf(text, sizeof(text),
                      "[Tessaline_OPT] process %llu points gave no triangles: no cell was made of them", n(points));
    } else if (counts.with_sheet == 0) {
        int top = 1;
        for (int r = 2; r < static_cast<int>(CELL_REJECTION_COUNT); ++r)
            if (counts.rejected[r] > counts.rejected[top]) top = r;
        std::snprintf(text, sizeof(text),
                      "[Tessaline_OPT] process %llu points gave no triangles: every one of the %llu cells was "
                      "rejected, %llu of them for %s%s",
                      n(points), n(counts.cells), n(counts.rejected[top]), RULES[top],
                      top == CELL_FEW_POINTS ? " (the points are too sparse for the resolution)" : "");
    } else {
        std::snprintf(text, sizeof(text),
                      "[Tessaline_OPT] process %llu points gave no triangles: %llu of %llu cells hold a surface "
                      "but no two of them meet (the scan is too sparse or too small for the resolution %g)",
                      n(points), n(counts.with_sheet), n(counts.cells), static_cast<double>(resolution));
    }
    return text;
}

Tessaline_OPT::~Tessaline_OPT() {
    if (m_inited) deInit();
}

template <class Body>
int Tessaline_OPT::exclusively(Holder holder, const char* operation, Body&& body) {
    int current = HELD_BY_NONE;
    if (!m_holder.compare_exchange_strong(current, holder)) {
        setLastError(std::string("[Tessaline_OPT] ") + operation +
                     (current == HELD_BY_RUN ? " refused: a run is in progress!"
                                             : " refused: another call is changing the engine!"));
        return 1;
    }
    struct Release {
        std::atomic<int>& holder;
        ~Release() { holder.store(HELD_BY_NONE); }
    } release{m_holder};
    std::shared_ptr<const DiagnosticSink> sink;
    {
        std::lock_guard<std::mutex> lock(m_sink_lock);
        sink = m_diagnostic_sink;
    }
    const DiagnosticScope lines(sink);
    std::string error = getLastErrorMsg();
    int result = 1;
    try {
        result = body(error);
    } catch (const std::bad_alloc& failure) {  // the bodies guard themselves; this keeps the engine sound
        result = static_cast<int>(TESSALINE_OUT_OF_MEMORY);
        try {
            error = memoryFailureText(failure);
        } catch (...) {
        }
    } catch (...) {
        result = 1;
    }
    setLastError(error);
    return result;
}

int Tessaline_OPT::setDiagnosticSink(DiagnosticSink sink) {
    if (m_holder.load() == HELD_BY_RUN) {
        setLastError("[Tessaline_OPT] setDiagnosticSink refused: a run is in progress!");
        return 1;
    }
    std::lock_guard<std::mutex> lock(m_sink_lock);
    m_diagnostic_sink = sink ? std::make_shared<const DiagnosticSink>(std::move(sink)) : nullptr;
    return 0;
}

int Tessaline_OPT::requestStop() {
    if (m_holder.load() == HELD_BY_RUN) m_stop_requested.store(true);
    return 0;
}

void Tessaline_OPT::setLastError(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_error_lock);
    m_last_error = text;
}

std::string Tessaline_OPT::getLastErrorMsg() const {
    std::lock_guard<std::mutex> lock(m_error_lock);
    return m_last_error;
}

int Tessaline_OPT::init() {
    return exclusively(HELD_BY_CALL, "init", [&](std::string& last_error) {
        m_inited = false;
        return runGuarded(last_error, {1, "[Tessaline_OPT] init try catch error!"}, [&]() -> int {
            std::string error;
            const int device = gpuGetMaxGflopsDeviceId(error);
            if (device < 0 || !gpuDeviceInit(device, error)) {
                last_error = error;
                return TESSALINE_NO_DEVICE;
            }

            if (!m_device_params) {
                m_device_params = std::make_shared<DeviceParameters>();
                std::memset(m_device_params.get(), 0, sizeof(DeviceParameters));
            }
            setFieldComputationEdges(*m_device_params);
            // Every set-up starts from the default frame size: the largest frame of a former run only
            // sized that run, and a huge one must not make the Portioner's buffers fail for good.
            m_max_frame_points = DEFAULT_MAX_FRAME_POINTS;
            m_device_params->MAX_FRAME_POINTS = static_cast<std::uint32_t>(m_max_frame_points);

            if (!m_portioner_params) m_portioner_params = std::make_shared<PortionerParameters>();
            computeBlockSizing(*m_portioner_params, m_resolution, m_block_size_setting);

            // Destroying the former pool stops and joins its workers before the new stages exist.
            m_thread_pool.reset();
            m_thread_pool = std::make_shared<ThreadPool>(ENGINE_POOL_THREADS);
            m_step_callback = [](ProcessStepInfo& info) { printStepReport(info); };

            int result = startStage(m_portioner, m_device_params, m_portioner_params, m_thread_pool, last_error);
            if (result != 0) return result;
            result = startStage(m_marching_cubes, m_device_params, m_portioner_params, m_thread_pool, last_error);
            if (result != 0) return result;
            result = startStage(m_reconstructor, m_device_params, m_portioner_params, m_thread_pool, last_error);
            if (result != 0) return result;

            m_inited = true;
            m_stages_spent = false;
            last_error = "no error!";
            return 0;
        });
    });
}

int Tessaline_OPT::deInit() {
    return exclusively(HELD_BY_CALL, "deInit", [&](std::string& last_error) {
        return runGuarded(last_error, {1, "[Tessaline_OPT] deInit try catch error!"}, [&]() -> int {
            if (!m_inited) return 0;
            // A stage that an earlier, half-finished deInit already released is passed over.
            if (m_portioner) {
                const int result = m_portioner->deInit();
                if (result != 0) {
                    last_error = m_portioner->getLastError();
                    return result;
                }
                m_portioner.reset();
            }
            if (m_marching_cubes) {
                const int result = m_marching_cubes->deInit();
                if (result != 0) {
                    last_error = m_marching_cubes->getLastError();
                    return result;
                }
                m_marching_cubes.reset();
            }
            if (m_reconstructor) {
                const int result = m_reconstructor->deInit();
                if (result != 0) {
                    last_error = m_reconstructor->getLastError();
                    return result;
                }
                m_reconstructor.reset();
            }
            m_thread_pool.reset();
            m_inited = false;
            last_error = "no error!";
            return 0;
        });
    });
}

int Tessaline_OPT::setResolution(const float& resolution) {
    const float value = resolution;  // the caller's variable may change while we wait for nothing
    return exclusively(HELD_BY_CALL, "setResolution", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        if (!(value >= MIN_RESOLUTION && value <= MAX_RESOLUTION)) {  // NaN fails too
            last_error =
                "[Tessaline_OPT] setResolution resolution must be between 0.001 and 100000, the former one is "
                "kept!";
            return 1;
        }
        m_resolution = value;
        if (m_portioner) m_portioner->setResolution(m_resolution);
        if (m_marching_cubes) m_marching_cubes->setResolution(m_resolution);
        if (m_reconstructor) m_reconstructor->setResolution(m_resolution);
        computeBlockSizing(*m_portioner_params, m_resolution, m_block_size_setting);
        return 0;
    });
}

int Tessaline_OPT::setRunOrigin(const std::array<double, 3>& origin) {
    const std::array<double, 3> value = origin;
    return exclusively(HELD_BY_CALL, "setRunOrigin", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        if (!std::isfinite(value[0]) || !std::isfinite(value[1]) || !std::isfinite(value[2])) {
            last_error = "[Tessaline_OPT] setRunOrigin the origin must be finite, the former one is kept!";
            return 1;
        }
        m_origin_fixed = true;
        for (int k = 0; k < 3; ++k) m_fixed_origin[k] = value[k];
        return 0;
    });
}

int Tessaline_OPT::clearRunOrigin() {
    return exclusively(HELD_BY_CALL, "clearRunOrigin", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        m_origin_fixed = false;
        return 0;
    });
}

int Tessaline_OPT::getRunOrigin(std::array<double, 3>& origin) {
    return exclusively(HELD_BY_CALL, "getRunOrigin", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        for (int k = 0; k < 3; ++k)
            origin[static_cast<std::size_t>(k)] = m_origin_fixed ? m_fixed_origin[k] : m_run_origin[k];
        return 0;
    });
}

int Tessaline_OPT::setBlockSize(std::uint32_t cells) {
    return exclusively(HELD_BY_CALL, "setBlockSize", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        if (cells != 0 && !validBlockSize(cells)) {
            last_error =
                "[Tessaline_OPT] setBlockSize the block edge must be a power of two from 32 to 512 resolutions (0: "
                "the default), the former one is kept!";
            return 1;
        }
        m_block_size_setting = cells;
        computeBlockSizing(*m_portioner_params, m_resolution, m_block_size_setting);
        return 0;
    });
}

std::uint32_t Tessaline_OPT::getBlockSize() {
    PortionerParameters params{};
    computeBlockSizing(params, m_resolution, m_block_size_setting);
    return params.block_size;
}

int Tessaline_OPT::setLaserInfo(const LaserInfo& info) {
    return exclusively(HELD_BY_CALL, "setLaserInfo", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        if (info.laser_id < 0 || info.laser_id > 7) {
            last_error = "[Tessaline_OPT] setLaserInfo laser_id must be 0 to 7!";
            return 1;
        }
        if (!std::isfinite(info.min_edge) || info.min_edge < 0.0f) {
            last_error =
                "[Tessaline_OPT] setLaserInfo min_edge must be a finite length of 0 or more, the former "
                "one is kept!";
            return 1;
        }
        DeviceParameters& params = *m_device_params;
        params.laser_word_a = info.laser_word_a;
        params.laser_word_b = info.laser_word_b;
        params.laser_min_edge[info.laser_id] = info.min_edge;
        std::memcpy(params.laser_block, info.laser_block, sizeof(params.laser_block));
        params.laser_word_c = info.laser_word_c;
        return 0;
    });
}

int Tessaline_OPT::setOptimizedMarkers(MarkerInfos& markers) {
    return exclusively(HELD_BY_CALL, "setOptimizedMarkers", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        const std::size_t count = markers.ids.size();
        if (markers.xyz.size() < count || markers.nor.size() < count) {
            last_error = "[Tessaline_OPT] setOptimizedMarkers xyz and nor need one entry for each id!";
            return 1;
        }
        return runGuarded(last_error, {1, "[Tessaline_OPT] setOptimizedMarkers try catch error!"}, [&]() -> int {
            auto list = std::make_shared<std::vector<OptedMarker>>(count);
            for (std::size_t i = 0; i < count; ++i) {
                OptedMarker& marker = (*list)[i];
                marker.id = static_cast<std::int32_t>(i);
                marker.xyz = markers.xyz[i];
                marker.nor = markers.nor[i];
            }
            m_opted_markers = std::move(list);  // whoever shares the former list keeps it
            return 0;
        });
    });
}

int Tessaline_OPT::setProcessStepCallBack(std::function<int(ProcessStepInfo&)>& callback) {
    return exclusively(HELD_BY_CALL, "setProcessStepCallBack", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        std::function<void(ProcessStepInfo&)> wrapped;
        if (callback) {
            wrapped = [callback](ProcessStepInfo& info) { callback(info); };  // its result steers nothing
        }
        m_step_callback.swap(wrapped);
        return 0;
    });
}

int Tessaline_OPT::setSimplifiedModel(const std::vector<Vec3f>& model) {
    return exclusively(HELD_BY_CALL, "setSimplifiedModel", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        return runGuarded(last_error, {1, "[Tessaline_OPT] setSimplifiedModel try catch error!"}, [&]() -> int {
            const int result = m_portioner->setSimplifiedModel(model);
            if (result != 0) last_error = m_portioner->getLastError();
            return result;
        });
    });
}

int Tessaline_OPT::getOptimizedMarkerErrors(std::shared_ptr<std::vector<OptedMarker>>& markers) {
    // A run changes neither the markers nor the set-up: during one this is a plain read.
    if (m_holder.load() == HELD_BY_RUN) {
        if (!m_inited) {
            setLastError("no init!");
            return 1;
        }
        markers = m_opted_markers;
        return 0;
    }
    return exclusively(HELD_BY_CALL, "getOptimizedMarkerErrors", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        markers = m_opted_markers;
        return 0;
    });
}

int Tessaline_OPT::addScanFrame(const std::shared_ptr<FrameDataWithInfo>& frame) {
    return exclusively(HELD_BY_CALL, "addScanFrame", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        if (!frame) {
            last_error = "[Tessaline_OPT] addScanFrame frame is null!";
            return 1;
        }
        if (frame->nor.size() != frame->xyz.size() || frame->w.size() != frame->xyz.size()) {
            last_error = "[Tessaline_OPT] addScanFrame nor and w must have as many entries as xyz!";
            return 1;
        }
        return runGuarded(last_error, {1, "[Tessaline_OPT] addScanFrame try catch error!"}, [&]() -> int {
            m_held_frames.push_back(frame);
            return 0;
        });
    });
}

namespace {

// A scale code of 0 or a power of two up to 64.
bool listedScaleCode(std::int32_t word) {
    const std::uint32_t code = static_cast<std::uint32_t>(word) & 0xFFu;
    return code <= 64 && (code & (code - 1)) == 0;
}

}  // namespace

void Tessaline_OPT::chooseRunOrigin() {
    if (m_origin_fixed) {
        for (int k = 0; k < 3; ++k) m_run_origin[k] = m_fixed_origin[k];
        return;
    }
    for (double& o : m_run_origin) o = 0.0;
    // The median of an even sample of the finite points: a few stray points far away do not move it.
    std::uint64_t total = 0;
    for (const auto& frame : m_held_frames) total += frame->xyz.size();
    const std::uint64_t stride = std::max<std::uint64_t>(1, total / RUN_ORIGIN_SAMPLES);
    std::vector<double> sample[3];
    std::uint64_t first = 0;  // the index of the frame's first point among all points
    for (const auto& frame : m_held_frames) {
        const std::uint64_t size = frame->xyz.size();
        // Every stride-th point of all, counted from the first: the frame's first such point, then on by stride.
        for (std::uint64_t i = (stride - first % stride) % stride; i < size; i += stride) {
            const Vec3f& p = frame->xyz[static_cast<std::size_t>(i)];
            if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
            for (int k = 0; k < 3; ++k) sample[k].push_back(static_cast<double>(p[k]));
        }
        first += size;
    }
    if (sample[0].empty()) return;
    // Within this distance of the origin a float position resolves a 64th of the finest cell (an eighth of
    // the resolution) or better, and the positions stay as given: the mesh of such a scan is unchanged.
    const double near = RUN_ORIGIN_NEAR_RESOLUTIONS * static_cast<double>(m_resolution);
    const double block = static_cast<double>(m_portioner_params->block_size) * static_cast<double>(m_resolution);
    for (int k = 0; k < 3; ++k) {
        std::vector<double>& v = sample[k];
        std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
        const double middle = v[v.size() / 2];
        // Beyond the grid's own reach no origin is taken: such points stay beyond it and are dropped.
        const double grid = static_cast<double>(1u << 30) * (static_cast<double>(m_resolution) / 8.0);
        if (std::fabs(middle) <= near || std::fabs(middle) > grid) continue;
        // A whole number of blocks: the grid of blocks, bins and cells stays the grid of the origin.
        m_run_origin[k] = std::round(middle / block) * block;
    }
}

bool Tessaline_OPT::hasRunOrigin() const {
    return m_run_origin[0] != 0.0 || m_run_origin[1] != 0.0 || m_run_origin[2] != 0.0;
}

void Tessaline_OPT::screenHeldFrames() {
    chooseRunOrigin();
    const bool shifted = hasRunOrigin();
    const double origin[3] = {m_run_origin[0], m_run_origin[1], m_run_origin[2]};
    const auto relative = [&](const Vec3f& p, int k) {
        return shifted ? static_cast<float>(static_cast<double>(p[k]) - origin[k]) : p[k];
    };
    // Beyond this distance from the run's origin a position's finest grid index (an eighth of the
    // resolution) comes near the end of a 32-bit integer.
    const double limit = static_cast<double>(1u << 30) * (m_resolution / 8.0);
    // A float lies beyond the limit when it lies beyond the largest float not above it.
    float float_limit = static_cast<float>(limit);
    if (static_cast<double>(float_limit) > limit) float_limit = std::nextafter(float_limit, 0.0f);
    // A run restricted to some blocks keeps only the points that can reach the blocks it computes: in one
    // of them or in its margin (with a resolution to spare). The rest could change no cell of those blocks.
    const bool restricted = !m_owned_blocks.empty();
    const BlockKeySet computed = blocksToCompute(m_owned_blocks);
    const float block_res = static_cast<float>(m_portioner_params->block_size) * m_resolution;
    const float reach = static_cast<float>(m_portioner_params->ext_size + 1) * m_resolution;
    std::uint64_t dropped = 0, recoded = 0;
    // Frame by frame on all cores: each is screened and, where it must change, copied on its own.
    const std::int64_t frame_count = static_cast<std::int64_t>(m_held_frames.size());
    bool failed = false;
#pragma omp parallel for schedule(dynamic, 4) reduction(+ : dropped, recoded)
    for (std::int64_t f = 0; f < frame_count; ++f) {
        try {
            std::shared_ptr<FrameDataWithInfo>& frame = m_held_frames[static_cast<std::size_t>(f)];
            const FrameDataWithInfo& in = *frame;
            const auto usable = [&](std::size_t i) {
                const Vec3f& p = in.xyz[i];
                const Vec3f& n = in.nor[i];
                for (int k = 0; k < 3; ++k)
                    if (!std::isfinite(p[k]) || !std::isfinite(n[k]) || std::fabs(relative(p, k)) > limit) return false;
                return n[0] * n[0] + n[1] * n[1] + n[2] * n[2] > 1e-12f;
            };
            const auto reaches = [&](std::size_t i) {
                if (!restricted) return true;
                const float p[3] = {relative(in.xyz[i], 0), relative(in.xyz[i], 1), relative(in.xyz[i], 2)};
                return reachesBlocks(p, block_res, reach, computed);
            };
            std::size_t bad = 0, unlisted = 0, elsewhere = 0;
            if (!restricted && !shifted) {
                // The common run (no origin, every block computed): the same tests without a branch a point.
                for (std::size_t i = 0; i < in.xyz.size(); ++i) {
                    const Vec3f& p = in.xyz[i];
                    const Vec3f& n = in.nor[i];
                    const bool ok = std::isfinite(p[0]) & std::isfinite(p[1]) & std::isfinite(p[2]) &
                                    std::isfinite(n[0]) & std::isfinite(n[1]) & std::isfinite(n[2]) &
                                    !(std::fabs(p[0]) > float_limit) & !(std::fabs(p[1]) > float_limit) &
                                    !(std::fabs(p[2]) > float_limit) &
                                    (n[0] * n[0] + n[1] * n[1] + n[2] * n[2] > 1e-12f);
                    bad += !ok;
                    unlisted += ok & !listedScaleCode(in.w[i]);
                }
            } else {
                for (std::size_t i = 0; i < in.xyz.size(); ++i) {
                    if (!usable(i))
                        ++bad;
                    else if (!reaches(i))
                        ++elsewhere;
                    else if (!listedScaleCode(in.w[i]))
                        ++unlisted;
                }
            }
            if (bad == 0 && unlisted == 0 && elsewhere == 0 && !shifted) continue;
            auto copy = std::make_shared<FrameDataWithInfo>();
            copy->frame_info = in.frame_info;
            copy->marker_ids = in.marker_ids;
            copy->marker_xyz = in.marker_xyz;
            copy->marker_nor = in.marker_nor;
            copy->xyz.reserve(in.xyz.size() - bad - elsewhere);
            copy->nor.reserve(in.xyz.size() - bad - elsewhere);
            copy->w.reserve(in.xyz.size() - bad - elsewhere);
            for (std::size_t i = 0; i < in.xyz.size(); ++i) {
                if (!usable(i) || !reaches(i)) continue;
                copy->xyz.push_back({relative(in.xyz[i], 0), relative(in.xyz[i], 1), relative(in.xyz[i], 2)});
                copy->nor.push_back(in.nor[i]);
                // An unknown size wish becomes one cell a bin; the flags stay.
                copy->w.push_back(listedScaleCode(in.w[i]) ? in.w[i] : ((in.w[i] & ~0xFF) | 8));
            }
            dropped += bad;
            recoded += unlisted;
            frame = std::move(copy);
        } catch (...) {
            // no room for a copy: the run fails below, no exception leaves the team
#pragma omp atomic write
            failed = true;
        }
    }
    if (failed) throw std::bad_alloc();
    if (dropped > 0 || recoded > 0)
        diagnostic(
            "addScanFrame: %llu points dropped (not finite, normal of length 0 or beyond the grid), %llu scale "
            "codes not 0-64 set to 8 \n",
            static_cast<unsigned long long>(dropped), static_cast<unsigned long long>(recoded));
}

int Tessaline_OPT::filterScanFrameByMarkers() {
    if (m_opted_markers) return filterByOptimizedMarkers();
    const std::size_t n = m_held_frames.size();
    std::size_t largest = 0;
    // The frames are the application's (another engine may read them at the same time): their marker
    // lists stay as they are, the run reads no further than the points.
    for (std::shared_ptr<FrameDataWithInfo>& frame : m_held_frames) {
        m_frame_queue.push_back(frame);
        if (frame->xyz.size() > largest) largest = frame->xyz.size();
        frame.reset();
    }
    m_max_frame_points = static_cast<std::int32_t>(largest);
    m_device_params->MAX_FRAME_POINTS = static_cast<std::uint32_t>(largest);
    std::vector<std::shared_ptr<FrameDataWithInfo>>().swap(m_held_frames);
    diagnostic("filter frame by markers (%d / %d) \n", static_cast<int>(m_frame_queue.size()), static_cast<int>(n));
    return 0;
}

int Tessaline_OPT::filterByOptimizedMarkers() {
    // The filter shares the application's list: the statistics it gathers are what getOptimizedMarkerErrors
    // hands out. It reads the frames and their markers and changes neither.
    MarkerFilter filter;
    int result = filter.init();
    if (result == 0) result = filter.setOptimizedMarkers(m_opted_markers);
    if (result == 0) result = filter.filterScanFrameByMarkers(m_held_frames, m_frame_queue);
    if (result != 0) return result;  // only when memory runs out: the markers are set
    m_max_frame_points = filter.maxFramePoints();
    m_device_params->MAX_FRAME_POINTS = static_cast<std::uint32_t>(m_max_frame_points);
    const std::vector<std::size_t>& rejected = filter.rejectedFrames();
    if (!rejected.empty()) {
        // One line naming them all, by their place in the order in which they were added (from 0).
        std::string names;
        for (const std::size_t f : rejected) names += " " + std::to_string(f);
        diagnostic("%s (%zu):%s \n", FRAMES_LEFT_OUT_BY_MARKERS, rejected.size(), names.c_str());
    }
    return 0;
}

void Tessaline_OPT::reportStep(const wchar_t* name, int cur_step, int cur_sub_step, int total_sub_steps) {
    ProcessStepInfo info;
    info.step_name = name;
    info.total_steps = TOTAL_STEPS;
    info.cur_step = cur_step;
    info.total_sub_steps = total_sub_steps;
    info.cur_sub_step = cur_sub_step;
    m_step_callback(info);  // an empty callback throws and ends the run
}

int Tessaline_OPT::process(std::shared_ptr<MultiMeshData>& mesh) { return runGuardedStages("process", mesh, nullptr); }

int Tessaline_OPT::processParts(std::vector<MeshPart>& parts) {
    std::shared_ptr<MultiMeshData> unused;
    std::vector<MeshPart> made;
    const int status = runGuardedStages("processParts", unused, &made);
    if (status == 0) parts = std::move(made);
    return status;
}

int Tessaline_OPT::setOwnedBlocks(const std::vector<BlockKey>& blocks) {
    return exclusively(HELD_BY_CALL, "setOwnedBlocks", [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        return runGuarded(last_error, {1, "[Tessaline_OPT] setOwnedBlocks try catch error!"}, [&]() -> int {
            std::vector<BlockKey> sorted = blocks;
            std::sort(sorted.begin(), sorted.end());
            sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
            m_owned_blocks = std::move(sorted);
            return 0;
        });
    });
}

int Tessaline_OPT::runGuardedStages(const char* operation, std::shared_ptr<MultiMeshData>& mesh,
                                    std::vector<MeshPart>* parts) {
    return exclusively(HELD_BY_RUN, operation, [&](std::string& last_error) {
        if (refuseBeforeInit(m_inited, last_error)) return 1;
        if (m_stages_spent) {
            last_error =
                "[Tessaline_OPT] process refused: the former run ended its stages, deInit and init come before "
                "the next one (the frames added since are kept)!";
            return 1;
        }
        m_stop_requested.store(false);
        const StopScope stop(&m_stop_requested);
        return runGuarded(last_error, {1, "[Tessaline_OPT] process try catch error!"}, [&]() -> int {
            try {
                return runStages(mesh, parts, last_error);
            } catch (const RunStopped&) {
                last_error = "[Tessaline_OPT] process stopped: a stop was requested!";
                return 1;
            }
        });
    });
}

int Tessaline_OPT::runStages(std::shared_ptr<MultiMeshData>& mesh, std::vector<MeshPart>* parts,
                             std::string& last_error) {
    TimeProfiler profiler;
    reportStep(STEP_PREPROCESS, 1, 1, 1);
    profiler.time_start("portioner");
    std::uint64_t held_points = 0;
    for (const auto& frame : m_held_frames)
        if (frame) held_points += frame->xyz.size();
    std::uint64_t usable_points = 0;
    {
        // What each stage wants, for the text of a memory failure: a cleaned copy of the frames (28 bytes a
        // point), the blocks' lists (a 40-byte record a point and margin, about 1.7 a point), a block's cells.
        const MemoryStageScope stage("[Tessaline_OPT] process (screening the frames)", held_points * 28);
        screenHeldFrames();
        for (const auto& frame : m_held_frames) usable_points += frame->xyz.size();
        if (!m_owned_blocks.empty() && usable_points == 0) {
            // No point reaches the blocks asked for: they have no triangles.
            m_stages_spent = true;
            std::vector<std::shared_ptr<FrameDataWithInfo>>().swap(m_held_frames);
            if (parts != nullptr) parts->clear();
            mesh = std::make_shared<MultiMeshData>();
            last_error = "no error!";
            return 0;
        }
        profiler.time_start("filterScanFrameByMarkers");
        const int result = filterScanFrameByMarkers();
        if (result != 0) {
            last_error = "filterScanFrameByMarkers error";
            return result;
        }
        profiler.time_stop("filterScanFrameByMarkers", true);
    }

    // From here on the stages belong to this run.
    m_stages_spent = true;
    m_portioner->setComputedBlocks(m_owned_blocks.empty() ? BlockKeySet() : blocksToCompute(m_owned_blocks));
    int result = portionFrames(usable_points, last_error);
    if (result != 0) return result;
    result = prepareFusion(profiler, last_error);
    if (result != 0) return result;

    const int block_count = m_portioner->getPointCloudBlockCount();
    const LeftOutBlocks left_out = fuseBlocks(profiler, block_count);
    const CellRuleCounts counts = m_marching_cubes->cellRuleCounts();
    printCellRuleCounts(counts);
    reportStep(STEP_MESH, 3, 1, 1);
    result = endFusion(last_error);
    if (result != 0) return result;

    stopPoint();
    profiler.time_start("reconstructor");
    std::vector<MeshPart> made;
    {
        const MemoryStageScope stage("[Reconstructor] process (the mesh)", 0);
        result = m_reconstructor->processPieces(m_owned_blocks, made);
    }
    if (result != 0) {
        mesh = std::make_shared<MultiMeshData>();
        last_error = m_reconstructor->getLastError();  // the stage's own text, its status unchanged
        return result;
    }
    profiler.time_stop("reconstructor", true);

    const bool empty = made.empty();  // no piece is empty
    if (parts != nullptr) {
        if (hasRunOrigin()) toApplicationCoordinates(made);
        joinPiecesByBlock(made, *parts);
    } else {
        mesh = std::make_shared<MultiMeshData>();
        joinPieces(made, *mesh, hasRunOrigin() ? m_run_origin : nullptr);
    }

    last_error = "no error!";
    if (left_out.blocks > 0) return reportLeftOut(left_out, block_count, last_error);
    if (empty && m_owned_blocks.empty() && usable_points >= EMPTY_MESH_NOTICE_POINTS) {
        last_error = emptyMeshReason(counts, usable_points, m_resolution);
        diagnostic("%s\n", last_error.c_str());
    }
    return 0;
}

int Tessaline_OPT::portionFrames(std::uint64_t usable_points, std::string& last_error) {
    int result = 0;
    {
        const MemoryStageScope stage("[Portioner] process (frames into blocks)",
                                     usable_points * sizeof(RawPointWithHash) * 17 / 10);
        while (!m_frame_queue.empty()) {
            stopPoint();
            std::shared_ptr<FrameDataWithInfo> frame = m_frame_queue.front();
            m_frame_queue.pop_front();
            m_portioner->addScanFrameWithoutModel(frame);  // a refused frame just takes no part
        }
        stopPoint();
        result = m_portioner->processWithoutModel();
    }
    // A stage that fails hands its own text up; its status is returned unchanged.
    if (result != 0 && usable_points == 0 && m_portioner->getLastError() == "no error!") {
        last_error = "[Tessaline_OPT] process no usable points: no frames, or every point was dropped!";
        return result;
    }
    if (result != 0) last_error = m_portioner->getLastError();
    return result;
}

int Tessaline_OPT::prepareFusion(TimeProfiler& profiler, std::string& last_error) {
    const int max_block_points = m_portioner->getMaxBlockPointsSize();
    const MemoryStageScope stage("[Tessaline_OPT] process (the octree, the field store, the largest block's arrays)",
                                 blockWorkingSetBytes(static_cast<std::uint64_t>(max_block_points), 0));
    auto hash_params = std::make_shared<HashParameters>(defaultHashParameters());
    auto octree = std::make_shared<HashOctree>();
    int result = octree->init(hash_params);
    if (result != 0) {
        last_error = octree->getLastError();
        return result;
    }
    octree->setResolution(m_resolution);
    octree->setBlockSize(static_cast<std::int32_t>(m_portioner_params->block_size));
    m_marching_cubes->setHashOctree(octree);
    m_reconstructor->setHashOctree(octree);

    auto field_data_pool = std::make_shared<FieldDataPool>();
    if (!field_data_pool->init()) {
        last_error = memoryFailureText(0);
        return static_cast<int>(TESSALINE_OUT_OF_MEMORY);
    }
    m_marching_cubes->setFieldDataPool(field_data_pool);
    m_reconstructor->setFieldDataPool(field_data_pool);

    result = m_marching_cubes->initDevice(static_cast<std::uint64_t>(max_block_points));
    if (result != 0) {
        last_error = m_marching_cubes->getLastError();
        return result;
    }
    profiler.time_stop("portioner", true);
    return 0;
}

Tessaline_OPT::LeftOutBlocks Tessaline_OPT::fuseBlocks(TimeProfiler& profiler, int block_count) {
    // A run restricted to some blocks computes those and their neighbours on the high side alone.
    const bool restricted = !m_owned_blocks.empty();
    const BlockKeySet computed = blocksToCompute(m_owned_blocks);
    const float block_res = static_cast<float>(m_portioner_params->block_size) * m_resolution;
    LeftOutBlocks left_out;
    reportStep(STEP_FUSION, 2, 0, block_count);
    for (int i = 0; i < block_count; ++i) {
        stopPoint();
        reportStep(STEP_FUSION, 2, i, block_count);
        diagnostic("==========================================\n");
        profiler.time_start("marching_cubes");
        std::shared_ptr<PointCloudBlock> block;
        if (m_portioner->takePointCloudBlock(block, i) != 0) continue;
        // A block the run does not compute holds no points of its own: it is passed over without a word.
        if (block && restricted && computed.count(blockKeyOfCentre(block->center, block_res)) == 0) continue;
        if (!block || !block->points || block->points->empty()) {
            diagnostic("[Tessaline_OPT] process : point_cloud_block->points->size() <= 0!\n");
            continue;
        }
        // A block that fails is left out of the mesh; the run goes on, and says so at its end. The stage may
        // give up the block's points once it no longer needs them.
        const std::size_t block_points = block->points->size();
        int block_result = 0;
        {
            const MemoryStageScope block_stage("[MarchingCubes] process (a block's cells)",
                                               blockWorkingSetBytes(block_points, 0));
            block_result = m_marching_cubes->process(block);
        }
        if (block_result == 0) {
            profiler.time_stop("marching_cubes", true);
        } else {
            noteLeftOut(left_out, i, block->center, block_points, block_result);
        }
        block.reset();  // at most one block is held outside the Portioner's list
    }
    return left_out;
}

void Tessaline_OPT::noteLeftOut(LeftOutBlocks& left_out, int index, const float centre[3], std::size_t points,
                                int status) const {
    char text[768];
    std::snprintf(text, sizeof(text), "block %d at (%g, %g, %g) with %llu points: %s", index,
                  static_cast<double>(centre[0]) + m_run_origin[0], static_cast<double>(centre[1]) + m_run_origin[1],
                  static_cast<double>(centre[2]) + m_run_origin[2], static_cast<unsigned long long>(points),
                  m_marching_cubes->getLastError().c_str());
    diagnostic("[Tessaline_OPT] process left out %s\n", text);
    // A block left out for want of memory makes the run's status the memory status, whichever block was first.
    if (left_out.blocks == 0 || (status == static_cast<int>(TESSALINE_OUT_OF_MEMORY) && left_out.status != status)) {
        left_out.status = status;
        left_out.first = text;
    }
    ++left_out.blocks;
    left_out.points += points;
}

int Tessaline_OPT::endFusion(std::string& last_error) {
    int result = m_marching_cubes->deInitDevice();
    if (result == 0) result = m_marching_cubes->deInit();
    if (result != 0) {
        last_error = m_marching_cubes->getLastError();
        return result;
    }
    result = m_portioner->deInit();
    if (result != 0) last_error = m_portioner->getLastError();
    return result;
}

// Back to the application's coordinates, in double so that only the final rounding remains.
void Tessaline_OPT::toApplicationCoordinates(std::vector<MeshPart>& parts) const {
    const std::int64_t count = static_cast<std::int64_t>(parts.size());
#pragma omp parallel for schedule(dynamic, 1)
    for (std::int64_t p = 0; p < count; ++p)
        for (TriangleXYZ& t : parts[static_cast<std::size_t>(p)].mesh.xyz)
            for (int v = 0; v < 9; ++v)
                t.xyz[v] = static_cast<float>(static_cast<double>(t.xyz[v]) + m_run_origin[v % 3]);
}

// The mesh holds the rest of the scan; the status says that it is not all of it.
int Tessaline_OPT::reportLeftOut(const LeftOutBlocks& left_out, int block_count, std::string& last_error) const {
    char text[1024];
    std::snprintf(text, sizeof(text),
                  "[Tessaline_OPT] process left out part of the scan: %d of %d blocks (%llu points, margins "
                  "included); the mesh holds the rest. First: %s",
                  left_out.blocks, block_count, static_cast<unsigned long long>(left_out.points),
                  left_out.first.c_str());
    last_error = text;
    if (left_out.status == static_cast<int>(TESSALINE_OUT_OF_MEMORY) &&
        last_error.find(MEMORY_ADVICE) == std::string::npos)
        last_error += std::string("; ") + MEMORY_ADVICE;
    diagnostic("%s\n", text);
    return left_out.status;
}

}  // namespace SurfaceReconstruction
