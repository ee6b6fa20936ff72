// The engine behind the exported handle: owns the stages, the settings, the frames and the last error,
// and runs the pipeline of a run.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/CellRecords.h"
#include "common/Parameters.h"
#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

class Portioner;
class MarchingCubes;
class Reconstructor;
class ThreadPool;
class TimeProfiler;
struct TestAccess;

// Workers of the engine's pool.
constexpr unsigned short ENGINE_POOL_THREADS = 12;
// The resolutions a run accepts, millimetres; setResolution keeps the former one outside them.
constexpr float MIN_RESOLUTION = 0.001f;
constexpr float MAX_RESOLUTION = 100000.0f;
// What MAX_FRAME_POINTS starts from in a first run.
constexpr std::int32_t DEFAULT_MAX_FRAME_POINTS = 30000;

// Step names of a run, as the step callback receives them.
extern const wchar_t* const STEP_PREPROCESS;  // "点云预处理"
extern const wchar_t* const STEP_FUSION;      // "融合数据"
extern const wchar_t* const STEP_MESH;        // "生成网格"

// A run of at least this many usable points that gives no triangle says why.
constexpr std::uint64_t EMPTY_MESH_NOTICE_POINTS = 1000;
// A scan that reaches farther than this many resolutions from the origin is measured from a run origin.
constexpr double RUN_ORIGIN_NEAR_RESOLUTIONS = 16384.0;
constexpr std::uint64_t RUN_ORIGIN_SAMPLES = 4096;

// Why a run of `points` usable points gave no triangle, from the cells' rule counts.
std::string emptyMeshReason(const CellRuleCounts& counts, std::uint64_t points, float resolution);

// The step report that init installs: one line on standard output.
int printStepReport(ProcessStepInfo& info);

class Tessaline_OPT {
public:
    Tessaline_OPT() = default;
    ~Tessaline_OPT();
    Tessaline_OPT(const Tessaline_OPT&) = delete;
    Tessaline_OPT& operator=(const Tessaline_OPT&) = delete;

    int init();
    int deInit();

    int setResolution(const float& resolution);
    int setRunOrigin(const std::array<double, 3>& origin);
    int clearRunOrigin();
    int getRunOrigin(std::array<double, 3>& origin);
    int setBlockSize(std::uint32_t cells);
    std::uint32_t getBlockSize();
    int setLaserInfo(const LaserInfo& info);
    int setOptimizedMarkers(MarkerInfos& markers);
    int setProcessStepCallBack(std::function<int(ProcessStepInfo&)>& callback);
    int addScanFrame(const std::shared_ptr<FrameDataWithInfo>& frame);
    int process(std::shared_ptr<MultiMeshData>& mesh);
    int setOwnedBlocks(const std::vector<BlockKey>& blocks);
    int processParts(std::vector<MeshPart>& parts);
    int getOptimizedMarkerErrors(std::shared_ptr<std::vector<OptedMarker>>& markers);
    std::string getLastErrorMsg() const;
    int setDiagnosticSink(DiagnosticSink sink);
    int requestStop();

    bool isInited() const { return m_inited; }

private:
    friend struct TestAccess;  // the tests reach the stages and the steps of a run below

    // Blocks from a known point list instead of the frames; no exported operation leads here.
    int setSimplifiedModel(const std::vector<Vec3f>& model);

    // The step of a run that moves the held frames to the work queue: all of them, or with optimized markers
    // set those that the markers do not reject. 0, or 1 when the marker filter fails.
    int filterScanFrameByMarkers();
    // That step with markers set: MarkerFilter measures the frames against them, fills in the statistics of
    // the shared list and keeps back the frames that stand out, which one diagnostic line names.
    int filterByOptimizedMarkers();
    // The stages of a run, from the held frames to the mesh; `last_error` takes the text of a failure.
    // `parts` null: the whole mesh into `mesh`; otherwise the owned blocks' parts into `parts`.
    int runStages(std::shared_ptr<MultiMeshData>& mesh, std::vector<MeshPart>* parts, std::string& last_error);
    // The steps of runStages that follow the frames' screening, in order. Those returning a status return
    // 0, or a failed stage's status unchanged with the stage's own text in `last_error`.
    // The queued frames into the Portioner's blocks.
    int portionFrames(std::uint64_t usable_points, std::string& last_error);
    // The octree, the field store and the arrays of the largest block.
    int prepareFusion(TimeProfiler& profiler, std::string& last_error);
    // The blocks that a run left out: how many, their points, and the status and text of the one it names.
    struct LeftOutBlocks {
        int blocks = 0;
        int status = 0;
        std::uint64_t points = 0;
        std::string first;
    };
    // Each block's cells and fields; a block that fails is left out and noted.
    LeftOutBlocks fuseBlocks(TimeProfiler& profiler, int block_count);
    void noteLeftOut(LeftOutBlocks& left_out, int index, const float centre[3], std::size_t points, int status) const;
    // The fusion's and the Portioner's device memory and state given back.
    int endFusion(std::string& last_error);
    void toApplicationCoordinates(std::vector<MeshPart>& parts) const;
    // The text and status of a run that left blocks out.
    int reportLeftOut(const LeftOutBlocks& left_out, int block_count, std::string& last_error) const;
    // process and processParts: the guards around runStages.
    int runGuardedStages(const char* operation, std::shared_ptr<MultiMeshData>& mesh, std::vector<MeshPart>* parts);
    // Replaces every held frame that has points the run cannot use by a copy without them (the
    // application's frame stays as it is); prints what it dropped and changed.
    void screenHeldFrames();
    void chooseRunOrigin();
    bool hasRunOrigin() const;

    void reportStep(const wchar_t* name, int cur_step, int cur_sub_step, int total_sub_steps);

    // What holds the engine: nothing, a run, or another operation that changes it.
    enum Holder : int { HELD_BY_NONE = 0, HELD_BY_RUN = 1, HELD_BY_CALL = 2 };
    // Runs body(error) as the only operation that changes the engine, `error` starting as the last
    // error and becoming it afterwards. While a run or another such operation holds the engine the call
    // is refused with status 1 and a text naming `operation` and the holder.
    template <class Body>
    int exclusively(Holder holder, const char* operation, Body&& body);
    void setLastError(const std::string& text);

    bool m_inited = false;
    std::atomic<int> m_holder{HELD_BY_NONE};
    // Where this engine's diagnostic lines go (null: the standard streams); read by each operation as it begins.
    std::shared_ptr<const DiagnosticSink> m_diagnostic_sink;
    std::mutex m_sink_lock;
    // Asked from any thread; the run in progress looks at it at its safe points and clears it as it begins.
    std::atomic<bool> m_stop_requested{false};
    // The stages of a run end with it: the next run needs deInit and init first.
    bool m_stages_spent = false;
    mutable std::mutex m_error_lock;  // the last error is read from any thread, also during a run
    std::string m_last_error = "no error!";
    float m_resolution = 0.5f;
    // Where the run's positions are measured from: 0 for a scan near the origin, otherwise a point of
    // the block grid near the scan's centre, so that far coordinates keep the precision of near ones.
    double m_run_origin[3] = {0.0, 0.0, 0.0};
    // The origin the application fixed (setRunOrigin); without one a run chooses its own.
    bool m_origin_fixed = false;
    double m_fixed_origin[3] = {0.0, 0.0, 0.0};
    // The block edge the application asked for, in resolutions; 0 for the default.
    std::uint32_t m_block_size_setting = 0;
    // The blocks whose triangles the next run makes; empty: all.
    std::vector<BlockKey> m_owned_blocks;
    std::shared_ptr<DeviceParameters> m_device_params;
    std::shared_ptr<PortionerParameters> m_portioner_params;
    std::vector<std::shared_ptr<FrameDataWithInfo>> m_held_frames;
    std::deque<std::shared_ptr<FrameDataWithInfo>> m_frame_queue;
    std::shared_ptr<std::vector<OptedMarker>> m_opted_markers;
    std::int32_t m_max_frame_points = DEFAULT_MAX_FRAME_POINTS;
    std::shared_ptr<Portioner> m_portioner;
    std::shared_ptr<MarchingCubes> m_marching_cubes;
    std::shared_ptr<Reconstructor> m_reconstructor;
    std::shared_ptr<ThreadPool> m_thread_pool;
    std::function<void(ProcessStepInfo&)> m_step_callback;
};

}  // namespace SurfaceReconstruction
