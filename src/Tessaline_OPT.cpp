// The engine: set-up and tear-down of the stages, frame intake and the run.
#include "Tessaline_OPT.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "ErrorLadder.h"
#include "HashOctree.h"
#include "MarchingCubes.h"
#include "Portioner.h"
#include "Reconstructor.h"
#include "ThreadPool.h"
#include "TimeProfiler.h"
#include "helper_cuda.h"

namespace SurfaceReconstruction {

const wchar_t* const STEP_PREPROCESS = L"\u70b9\u4e91\u9884\u5904\u7406";
const wchar_t* const STEP_FUSION = L"\u878d\u5408\u6570\u636e";
const wchar_t* const STEP_MESH = L"\u751f\u6210\u7f51\u683c";

namespace {
constexpr int TOTAL_STEPS = 3;
}  // namespace

int printStepReport(ProcessStepInfo& info) {
    std::printf("[info] cur step %s , (%d / %d) , (%d / %d) \n", toUtf8(info.step_name).c_str(), info.cur_step,
                info.total_steps, info.cur_sub_step, info.total_sub_steps);
    return 1;
}

void printCellRuleCounts(const CellRuleCounts& counts) {
    const auto n = [](std::uint64_t v) { return static_cast<unsigned long long>(v); };
    std::printf(
        "[MarchingCubes] cells %llu, %llu with a surface; without one: %llu with fewer than 5 points, %llu "
        "without relations, %llu without a common normal, %llu without a side of 5 points, %llu with fits "
        "across their normals, %llu sparse and off their points; %llu sparse cells widened, %llu flagged "
        "cells on all their points, %llu at a sharp edge\n",
        n(counts.cells), n(counts.with_sheet), n(counts.rejected[CELL_FEW_POINTS]),
        n(counts.rejected[CELL_NO_RELATIONS]), n(counts.rejected[CELL_NO_COMMON_NORMAL]),
        n(counts.rejected[CELL_NO_SIDE]), n(counts.rejected[CELL_FIT_ACROSS]), n(counts.rejected[CELL_OFF_CENTRE]),
        n(counts.widened), n(counts.all_points), n(counts.creases));
}

Tessaline_OPT::~Tessaline_OPT() {
    if (m_inited) deInit();
}

int Tessaline_OPT::init() {
    m_inited = false;
    return runGuarded(m_last_error, {1, "[Tessaline_OPT] init try catch error!"}, [&]() -> int {
        std::string error;
        const int device = gpuGetMaxGflopsDeviceId(error);
        if (device < 0 || !gpuDeviceInit(device, error)) {
            m_last_error = error;
            return TESSALINE_NO_DEVICE;
        }

        if (!m_device_params) {
            m_device_params = std::make_shared<DeviceParameters>();
            std::memset(m_device_params.get(), 0, sizeof(DeviceParameters));
        }
        setFieldComputationEdges(*m_device_params);
        m_device_params->MAX_FRAME_POINTS = static_cast<std::uint32_t>(m_max_frame_points);

        if (!m_portioner_params) m_portioner_params = std::make_shared<PortionerParameters>();
        computeBlockSizing(*m_portioner_params, m_resolution);

        // Destroying the former pool stops and joins its workers before the new stages exist.
        m_thread_pool.reset();
        m_thread_pool = std::make_shared<ThreadPool>(ENGINE_POOL_THREADS);
        m_step_callback = [](ProcessStepInfo& info) { printStepReport(info); };

        m_portioner = std::make_shared<Portioner>();
        m_portioner->setDeviceParams(m_device_params);
        m_portioner->setPortionerParams(m_portioner_params);
        m_portioner->setThreadPool(m_thread_pool);
        int result = m_portioner->init();
        if (result != 0) {
            m_last_error = m_portioner->getLastError();
            return result;
        }

        m_marching_cubes = std::make_shared<MarchingCubes>();
        m_marching_cubes->setDeviceParams(m_device_params);
        m_marching_cubes->setPortionerParams(m_portioner_params);
        m_marching_cubes->setThreadPool(m_thread_pool);
        result = m_marching_cubes->init();
        if (result != 0) {
            m_last_error = m_marching_cubes->getLastError();
            return result;
        }

        m_reconstructor = std::make_shared<Reconstructor>();
        m_reconstructor->setPortionerParameters(m_portioner_params);
        m_reconstructor->setDeviceParameters(m_device_params);
        result = m_reconstructor->init();
        if (result != 0) {
            m_last_error = m_reconstructor->getLastError();
            return result;
        }

        m_inited = true;
        m_last_error = "no error!";
        return 0;
    });
}

int Tessaline_OPT::deInit() {
    return runGuarded(m_last_error, {1, "[Tessaline_OPT] deInit try catch error!"}, [&]() -> int {
        if (!m_inited) return 0;
        // A stage that an earlier, half-finished deInit already released is passed over.
        if (m_portioner) {
            const int result = m_portioner->deInit();
            if (result != 0) {
                m_last_error = m_portioner->getLastError();
                return result;
            }
            m_portioner.reset();
        }
        if (m_marching_cubes) {
            const int result = m_marching_cubes->deInit();
            if (result != 0) {
                m_last_error = m_marching_cubes->getLastError();
                return result;
            }
            m_marching_cubes.reset();
        }
        if (m_reconstructor) {
            const int result = m_reconstructor->deInit();
            if (result != 0) {
                m_last_error = m_reconstructor->getLastError();
                return result;
            }
            m_reconstructor.reset();
        }
        m_thread_pool.reset();
        m_inited = false;
        m_last_error = "no error!";
        return 0;
    });
}

int Tessaline_OPT::setResolution(const float& resolution) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    if (!(resolution >= MIN_RESOLUTION && resolution <= MAX_RESOLUTION)) {  // NaN fails too
        m_last_error =
            "[Tessaline_OPT] setResolution resolution must be between 0.001 and 100000, the former one is kept!";
        return 1;
    }
    m_resolution = resolution;
    if (m_portioner) m_portioner->setResolution(m_resolution);
    if (m_marching_cubes) m_marching_cubes->setResolution(m_resolution);
    if (m_reconstructor) m_reconstructor->setResolution(m_resolution);
    computeBlockSizing(*m_portioner_params, m_resolution);
    return 0;
}

int Tessaline_OPT::setLaserInfo(const LaserInfo& info) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    if (info.laser_id < 0 || info.laser_id > 7) {
        m_last_error = "[Tessaline_OPT] setLaserInfo laser_id must be 0 to 7!";
        return 1;
    }
    DeviceParameters& params = *m_device_params;
    params.laser_word_a = info.laser_word_a;
    params.laser_word_b = info.laser_word_b;
    params.laser_min_edge[info.laser_id] = info.min_edge;
    std::memcpy(params.laser_block, info.laser_block, sizeof(params.laser_block));
    params.laser_word_c = info.laser_word_c;
    return 0;
}

int Tessaline_OPT::setOptimizedMarkers(MarkerInfos& markers) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    const std::size_t count = markers.ids.size();
    if (markers.xyz.size() < count || markers.nor.size() < count) {
        m_last_error = "[Tessaline_OPT] setOptimizedMarkers xyz and nor need one entry for each id!";
        return 1;
    }
    return runGuarded(m_last_error, {1, "[Tessaline_OPT] setOptimizedMarkers try catch error!"}, [&]() -> int {
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
}

int Tessaline_OPT::setProcessStepCallBack(std::function<int(ProcessStepInfo&)>& callback) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    std::function<void(ProcessStepInfo&)> wrapped;
    if (callback) {
        wrapped = [callback](ProcessStepInfo& info) { callback(info); };  // its result steers nothing
    }
    m_step_callback.swap(wrapped);
    return 0;
}

int Tessaline_OPT::setSimplifiedModel(const std::vector<Vec3f>& model) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    return runGuarded(m_last_error, {1, "[Tessaline_OPT] setSimplifiedModel try catch error!"}, [&]() -> int {
        const int result = m_portioner->setSimplifiedModel(model);
        if (result != 0) m_last_error = m_portioner->getLastError();
        return result;
    });
}

int Tessaline_OPT::getOptimizedMarkerErrors(std::shared_ptr<std::vector<OptedMarker>>& markers) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    markers = m_opted_markers;
    return 0;
}

int Tessaline_OPT::addScanFrame(const std::shared_ptr<FrameDataWithInfo>& frame) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    if (m_running.load()) {
        m_last_error = "[Tessaline_OPT] addScanFrame a run is in progress: frames are taken before process!";
        return 1;
    }
    if (!frame) {
        m_last_error = "[Tessaline_OPT] addScanFrame frame is null!";
        return 1;
    }
    if (frame->nor.size() != frame->xyz.size() || frame->w.size() != frame->xyz.size()) {
        m_last_error = "[Tessaline_OPT] addScanFrame nor and w must have as many entries as xyz!";
        return 1;
    }
    return runGuarded(m_last_error, {1, "[Tessaline_OPT] addScanFrame try catch error!"}, [&]() -> int {
        m_held_frames.push_back(frame);
        return 0;
    });
}

namespace {

bool listedScaleCode(std::int32_t word) {
    switch (word & 0xFF) {
        case 0:
        case 1:
        case 2:
        case 4:
        case 8:
        case 16:
        case 32:
        case 64:
            return true;
        default:
            return false;
    }
}

}  // namespace

void Tessaline_OPT::screenHeldFrames() {
    // Beyond this distance from the origin a position's finest grid index (an eighth of the resolution)
    // comes near the end of a 32-bit integer.
    const double limit = static_cast<double>(1u << 30) * (m_resolution / 8.0);
    std::uint64_t dropped = 0, recoded = 0;
    for (std::shared_ptr<FrameDataWithInfo>& frame : m_held_frames) {
        const FrameDataWithInfo& in = *frame;
        const auto usable = [&](std::size_t i) {
            const Vec3f& p = in.xyz[i];
            const Vec3f& n = in.nor[i];
            for (int k = 0; k < 3; ++k)
                if (!std::isfinite(p[k]) || !std::isfinite(n[k]) || std::fabs(p[k]) > limit) return false;
            return n[0] * n[0] + n[1] * n[1] + n[2] * n[2] > 1e-12f;
        };
        std::size_t bad = 0, unlisted = 0;
        for (std::size_t i = 0; i < in.xyz.size(); ++i) {
            if (!usable(i))
                ++bad;
            else if (!listedScaleCode(in.w[i]))
                ++unlisted;
        }
        if (bad == 0 && unlisted == 0) continue;
        auto copy = std::make_shared<FrameDataWithInfo>();
        copy->frame_info = in.frame_info;
        copy->marker_ids = in.marker_ids;
        copy->marker_xyz = in.marker_xyz;
        copy->marker_nor = in.marker_nor;
        copy->xyz.reserve(in.xyz.size() - bad);
        copy->nor.reserve(in.xyz.size() - bad);
        copy->w.reserve(in.xyz.size() - bad);
        for (std::size_t i = 0; i < in.xyz.size(); ++i) {
            if (!usable(i)) continue;
            copy->xyz.push_back(in.xyz[i]);
            copy->nor.push_back(in.nor[i]);
            // An unknown size wish becomes one cell a bin; the flags stay.
            copy->w.push_back(listedScaleCode(in.w[i]) ? in.w[i] : ((in.w[i] & ~0xFF) | 8));
        }
        dropped += bad;
        recoded += unlisted;
        frame = std::move(copy);
    }
    if (dropped > 0 || recoded > 0)
        std::printf(
            "addScanFrame: %llu points dropped (not finite, normal of length 0 or beyond the grid), %llu scale "
            "codes not 0-64 set to 8 \n",
            static_cast<unsigned long long>(dropped), static_cast<unsigned long long>(recoded));
}

int Tessaline_OPT::filterScanFrameByMarkers() {
    const std::size_t n = m_held_frames.size();
    std::size_t largest = 0;
    for (std::shared_ptr<FrameDataWithInfo>& frame : m_held_frames) {
        std::vector<std::int32_t>().swap(frame->marker_ids);
        std::vector<Vec3f>().swap(frame->marker_xyz);
        std::vector<Vec3f>().swap(frame->marker_nor);
        m_frame_queue.push_back(frame);
        if (frame->xyz.size() > largest) largest = frame->xyz.size();
        frame.reset();
    }
    m_max_frame_points = static_cast<std::int32_t>(largest);
    m_device_params->MAX_FRAME_POINTS = static_cast<std::uint32_t>(largest);
    std::vector<std::shared_ptr<FrameDataWithInfo>>().swap(m_held_frames);
    std::printf("filter frame by markers (%d / %d) \n", static_cast<int>(m_frame_queue.size()), static_cast<int>(n));
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

int Tessaline_OPT::process(std::shared_ptr<MultiMeshData>& mesh) {
    if (refuseBeforeInit(m_inited, m_last_error)) return 1;
    if (m_running.exchange(true)) {
        m_last_error = "[Tessaline_OPT] process a run is in progress already!";
        return 1;
    }
    struct RunningFlag {
        std::atomic<bool>& flag;
        ~RunningFlag() { flag.store(false); }
    } running{m_running};
    return runGuarded(m_last_error, {1, "[Tessaline_OPT] process try catch error!"}, [&]() -> int {
        // A stage that fails hands its own text up; its status is returned unchanged.
        const auto exitWith = [this](const std::string& stage_error, int status) {
            m_last_error = stage_error;
            return status;
        };

        TimeProfiler profiler;
        reportStep(STEP_PREPROCESS, 1, 1, 1);
        profiler.time_start("portioner");
        screenHeldFrames();
        std::uint64_t usable_points = 0;
        for (const auto& frame : m_held_frames) usable_points += frame->xyz.size();
        profiler.time_start("filterScanFrameByMarkers");
        int result = filterScanFrameByMarkers();
        if (result != 0) {
            m_last_error = "filterScanFrameByMarkers error";
            return result;
        }
        profiler.time_stop("filterScanFrameByMarkers", true);

        while (!m_frame_queue.empty()) {
            std::shared_ptr<FrameDataWithInfo> frame = m_frame_queue.front();
            m_frame_queue.pop_front();
            m_portioner->addScanFrameWithoutModel(frame);  // a refused frame just takes no part
        }

        result = m_portioner->processWithoutModel();
        if (result != 0 && usable_points == 0 && m_portioner->getLastError() == "no error!")
            return exitWith("[Tessaline_OPT] process no usable points: no frames, or every point was dropped!", result);
        if (result != 0) return exitWith(m_portioner->getLastError(), result);
        const int max_block_points = m_portioner->getMaxBlockPointsSize();

        auto hash_params = std::make_shared<HashParameters>(defaultHashParameters());
        auto octree = std::make_shared<HashOctree>();
        result = octree->init(hash_params);
        if (result != 0) return exitWith(octree->getLastError(), result);
        octree->setResolution(m_resolution);
        octree->setBlockSize(static_cast<std::int32_t>(m_portioner_params->block_size));
        m_marching_cubes->setHashOctree(octree);
        m_reconstructor->setHashOctree(octree);

        auto field_data_pool = std::make_shared<FieldDataPool>();
        if (!field_data_pool->init()) {
            m_last_error = "[Tessaline_OPT] process field_data_pool->init failed!";
            return TESSALINE_OUT_OF_MEMORY;
        }
        m_marching_cubes->setFieldDataPool(field_data_pool);
        m_reconstructor->setFieldDataPool(field_data_pool);

        result = m_marching_cubes->initDevice(static_cast<std::uint64_t>(max_block_points));
        if (result != 0) return exitWith(m_marching_cubes->getLastError(), result);
        profiler.time_stop("portioner", true);

        const int block_count = m_portioner->getPointCloudBlockCount();
        reportStep(STEP_FUSION, 2, 0, block_count);
        for (int i = 0; i < block_count; ++i) {
            reportStep(STEP_FUSION, 2, i, block_count);
            std::printf("==========================================\n");
            profiler.time_start("marching_cubes");
            std::shared_ptr<PointCloudBlock> block;
            if (m_portioner->takePointCloudBlock(block, i) != 0) continue;
            if (!block || !block->points || block->points->empty()) {
                std::printf("[Tessaline_OPT] process : point_cloud_block->points->size() <= 0!\n");
                continue;
            }
            // A block that fails is left out of the mesh; the run goes on.
            if (m_marching_cubes->process(block) == 0) profiler.time_stop("marching_cubes", true);
            block.reset();  // at most one block is held outside the Portioner's list
        }

        printCellRuleCounts(m_marching_cubes->cellRuleCounts());
        reportStep(STEP_MESH, 3, 1, 1);
        result = m_marching_cubes->deInitDevice();
        if (result != 0) return exitWith(m_marching_cubes->getLastError(), result);
        result = m_marching_cubes->deInit();
        if (result != 0) return exitWith(m_marching_cubes->getLastError(), result);
        result = m_portioner->deInit();
        if (result != 0) return exitWith(m_portioner->getLastError(), result);

        profiler.time_start("reconstructor");
        result = m_reconstructor->process(mesh);
        if (result != 0) return exitWith(m_reconstructor->getLastError(), result);
        profiler.time_stop("reconstructor", true);
        return 0;
    });
}

}  // namespace SurfaceReconstruction
