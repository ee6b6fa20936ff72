// Tessaline: registered laser-scan frames in, one triangle mesh out.
// This header is the whole public surface of the engine: the records that cross its boundary, the handle
// class `Tessaline` and the free function `InitGPUCUDA`. Finishing the mesh (welding, normals, pieces,
// holes) and choosing a resolution for a scan are in "tessaline/TessalineMesh.h", a library of its own.
//
// Units: the library never converts a length. Every length (points, resolution, min_edge, the mesh) is in
// the unit of the resolution; its fixed thresholds (0.1 near the origin, the marker tolerances) are sized
// for millimetres, so frames should be in millimetres.
// Threads: one thread at a time drives an engine, and init, process and deInit stay on one thread (the
// device is made current for that thread alone). The step callback runs on that thread, inside process.
// Errors: no exception leaves the library; every operation returns a status (below) and, on a failure,
// leaves a text for getLastErrorMsg. Diagnostic lines go to standard output, printf-style, unless the
// application gives the engine a sink for them (setDiagnosticSink).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tessaline/TessalineVersion.h"  // TESSALINE_VERSION_MAJOR, _MINOR, _PATCH, _STRING, TESSALINE_BACKEND

#if defined(_WIN32)
#define TESSALINE_API __declspec(dllexport)
#else
#define TESSALINE_API __attribute__((visibility("default")))
#endif

namespace SurfaceReconstruction {

// A position or a normal: x, y, z. Positions in the unit of the resolution; normals need not be of unit
// length (the engine normalises them) but must not be of length 0.
using Vec3f = std::array<float, 3>;

// The per-frame record, embedded by value in FrameDataWithInfo. The engine copies it byte for byte into its
// staging buffers; only `laser_id` steers a run.
struct FrameInfo {
    std::uint8_t leading[96] = {};  // the application's own; never read by the library
    double rotation[9] = {};        // the frame's pose, column-major: row r, column c at index 3c + r
    double translation[3] = {};     // the frame's pose, unit of the resolution; the points are NOT moved by it
    // Which laser took the frame, 0 to 7; anything else is set to 0 in this record (through the shared
    // pointer) when process starts.
    std::int32_t laser_id = 0;
};

// One scan frame, already in the common coordinate system of the scan: the pose is not applied to it.
// The application allocates it and hands in a shared pointer; the engine keeps that pointer (not a copy)
// until process has taken the points, and then drops it. Points with a NaN or infinite coordinate or normal,
// a normal of length 0, or all coordinates nearer to zero than 0.1 are left out of a run (in a cleaned copy).
struct FrameDataWithInfo {
    std::vector<Vec3f> xyz;  // the points, unit of the resolution
    std::vector<Vec3f> nor;  // one normal a point, same order, pointing out of the scanned surface
    // One word a point, same order. Bits 0-7: the wished scale code of the point, the size of its cells:
    // 8 is one cell a resolution, 1, 2, 4 coarser (cell edge resolution x 8 / code), 16, 32, 64 finer; 0 no
    // wish; other values count as 8. Bits 8-15: flags, OR-ed into the mesh's words; flag 0x100 marks points
    // that a cell prefers over its others. Bits 16-31 do not reach the mesh.
    std::vector<std::int32_t> w;
    FrameInfo frame_info;
    std::vector<std::int32_t> marker_ids;  // the markers this frame saw; dropped when process starts
    std::vector<Vec3f> marker_xyz;         // one position a marker, frame coordinates
    std::vector<Vec3f> marker_nor;         // one normal a marker, frame coordinates
};

// Settings of one laser: `setLaserInfo` once for each laser that has them. Copied by setLaserInfo.
struct LaserInfo {
    std::uint32_t laser_word_a = 0;  // kept for the device; the engine assigns it no meaning
    std::uint32_t laser_word_b = 0;  // kept for the device; the engine assigns it no meaning
    std::int32_t laser_id = 0;       // 0 to 7: the laser these settings are for
    // The smallest cell edge (unit of the resolution) in which this laser's points count; 0 for any.
    float min_edge = 0.0f;
    std::uint32_t laser_block[4] = {};  // kept for the device
    std::uint32_t laser_word_c = 0;     // kept for the device
};

// The optimized markers of the whole scan, world coordinates. Copied by setOptimizedMarkers.
struct MarkerInfos {
    std::vector<std::int32_t> ids;  // its length is the marker count; the values are not read
    std::vector<Vec3f> xyz;         // at least one position an id
    std::vector<Vec3f> nor;         // at least one normal an id
};

// One optimized marker with its error statistics, as getOptimizedMarkerErrors hands them out.
struct OptedMarker {
    std::int32_t id = -1;  // index in the list given to setOptimizedMarkers
    Vec3f xyz = {0.0f, 0.0f, 0.0f};
    Vec3f nor = {0.0f, 0.0f, 0.0f};
    std::int32_t count = 0;  // frames measured against the marker
    float rms = 0.0f;        // errors of those frames, unit of the resolution
    float mean = 0.0f;
    float max = 0.0f;
};

// What the step callback receives, on the thread that called process; valid only during the call. A run
// reports three steps, with these names: 1 "点云预处理" (the frames screened and cut into blocks), 2
// "融合数据" (the blocks fused one by one: first a report with sub step 0 of the block count, then one before
// each block, sub steps 0 to count - 1), 3 "生成网格" (the mesh made).
struct ProcessStepInfo {
    std::wstring step_name;
    std::int32_t total_steps = 0;  // 3
    std::int32_t cur_step = 0;     // 1 to 3
    std::int32_t total_sub_steps = 0;
    std::int32_t cur_sub_step = 0;
};

// One triangle: x, y, z of the first, second and third vertex, unit of the resolution. Seen from its front
// the vertices run counter-clockwise; the front faces out of the scanned surface.
struct TriangleXYZ {
    float xyz[9];
};

// One 32-bit word for each vertex of the triangle at the same index. The vertex lies on an edge between two
// cells of a dual cube: bits 0-7 are the OR of those two cells' scale codes, bits 8-15 the OR of the flags
// of all eight cells of the cube, bits 16-31 the cube's quality word (four equal nibbles: 0x0000,
// 0x7777 or 0xffff).
struct TriangleW {
    std::uint32_t w[3];
};

// The result of a run: a triangle soup, every triangle with its own three vertices; `xyz` and `w` always
// have the same length. The same vertex appears in every triangle that uses it (weldMesh in
// "tessaline/TessalineMesh.h" joins them).
struct MultiMeshData {
    std::vector<TriangleXYZ> xyz;
    std::vector<TriangleW> w;
};

// A block of a run's grid, by its index on each axis: block (i, j, k) holds the positions whose offset
// from the run origin lies in [i, i + 1) block edges on x, [j, j + 1) on y, [k, k + 1) on z (block edge =
// block size x resolution).
struct BlockKey {
    std::int32_t x = 0, y = 0, z = 0;

    friend bool operator<(const BlockKey& a, const BlockKey& b) {
        if (a.x != b.x) return a.x < b.x;
        if (a.y != b.y) return a.y < b.y;
        return a.z < b.z;
    }
    friend bool operator==(const BlockKey& a, const BlockKey& b) { return a.x == b.x && a.y == b.y && a.z == b.z; }
    friend bool operator!=(const BlockKey& a, const BlockKey& b) { return !(a == b); }
};

// The triangles that a run makes for one block: those of the dual cubes whose lowest corner cell lies in
// the block (the block's inside and its seams towards its neighbours on the high side).
struct MeshPart {
    BlockKey block;
    MultiMeshData mesh;
};

class Tessaline_OPT;

// The start of the diagnostic line that names the frames a run left out by their markers, followed by
// " (count): f1 f2 ... \n".
inline constexpr const char* FRAMES_LEFT_OUT_BY_MARKERS = "filterScanFrameByMarkers: frames left out by their markers";

// Status codes of all operations.
enum : int {
    TESSALINE_OK = 0,
    TESSALINE_FAILURE = 1,                 // not initialised, refused input, caught exception
    TESSALINE_NO_DEVICE = 0x10101,         // 65793
    TESSALINE_PARTITION_DEVICE = 0x10102,  // 65794
    TESSALINE_DEVICE_COMPUTE = 0x10105,    // 65797
    TESSALINE_OUT_OF_MEMORY = 0x10201,     // 66049
    TESSALINE_OUTSIDE_CELL = 0x10203,      // 66051
};

// Where an engine's diagnostic lines go (setDiagnosticSink): each line as the library would print it, its
// newline included. `device_report` marks the device's failure reports, which go to standard error by
// default; every other line goes to standard output by default.
using DiagnosticSink = std::function<void(const std::string& text, bool device_report)>;

// A handle to one engine; copies share that engine (the last one to go releases it). One engine serves one
// run: init, the settings, the frames, process, then deInit; a further run starts again with init and the
// settings. Every operation but getLastErrorMsg refuses to work before init (status 1, "no init!").
class TESSALINE_API Tessaline {
public:
    Tessaline();
    Tessaline(const Tessaline& other);
    ~Tessaline();
    Tessaline& operator=(const Tessaline& other);

    // Selects the device (the host itself in a host build), makes it current for the calling thread, and
    // creates the stages and their worker threads. 0, 65793 when no device is usable, or 1.
    int init();
    // Releases the stages, their worker threads and all device memory. 0 also when not initialised.
    int deInit();

    // After init, before process: the edge of a cell of scale code 8, in the unit of the points (millimetres
    // for the engine's fixed thresholds). Cells range from 8 times it (code 1) down to an eighth (code 64).
    // Outside 0.001 to 100000, or not finite, it is refused and the former one (0.5 until one is set)
    // stays; the reason is then in getLastErrorMsg.
    void setResolution(float resolution);
    // After init, before process: the point of the application's coordinates that the run measures every
    // position from. Each position has it taken off in double precision before it becomes a float, the grid
    // of blocks starts at it (block (0, 0, 0) has its low corner there), and the mesh is moved back in double
    // precision. Without one, a run takes its own: 0 for a scan within 16384 resolutions of the origin,
    // otherwise a whole number of blocks near the median of the points. Fix it where meshes of different
    // runs must fit together (the parts of a scan run block by block, a live session). 1 when not finite.
    int setRunOrigin(const std::array<double, 3>& origin);
    // Goes back to the run's own origin (above).
    int clearRunOrigin();
    // The origin of the last run, or the fixed one when set; (0, 0, 0) before any.
    int getRunOrigin(std::array<double, 3>& origin);
    // After init: the edge of a block in resolutions, a power of two from 32 to 512; 0 restores the default,
    // 256 (128 below a resolution of 0.2). The default does not depend on the machine: the same scan is cut
    // into the same blocks everywhere. 1 for any other value; the former one stays.
    int setBlockSize(std::uint32_t cells);
    // The edge of a block in resolutions that the next run takes (with the resolution set now).
    std::uint32_t getBlockSize();
    // After init: the settings of the laser `info.laser_id` (copied). 0, or 1 when laser_id is not 0 to 7.
    int setLaserInfo(const LaserInfo& info);
    // After init: the optimized markers of the scan (copied). 1 when xyz or nor have fewer entries than ids.
    // With markers set, process leaves out the frames whose markers, placed by the frame's pose, stand out
    // from the optimized ones (an error of 0.5 or more, or far above the marker's spread), and the frames
    // near them that stand out by tighter limits; one diagnostic line, starting with
    // FRAMES_LEFT_OUT_BY_MARKERS, names them by their place in the order they were added (from 0). Without
    // markers every frame takes part.
    int setOptimizedMarkers(MarkerInfos& markers);
    // After init: the function told of each step of process (the callback is copied; what it returns
    // steers nothing). An empty function ends the next run with status 1. Without one, init installs a
    // report of one line a step on standard output. Taking a lambda or a temporary: the overload below.
    int setProcessStepCallBack(std::function<int(ProcessStepInfo&)>& callback);

    // After init, before process: holds a shared reference to the frame; nothing is copied or computed
    // until process, and a frame changed before then is used as it is then (changing it during process is
    // a data race). 1 for a null frame, or one whose nor or w lengths differ from xyz's.
    int addScanFrame_ALL(const std::shared_ptr<FrameDataWithInfo>& frame);
    // The same as addScanFrame_ALL.
    int addScanFrame_async(const std::shared_ptr<FrameDataWithInfo>& frame);

    // Fuses all held frames into one mesh and points `mesh` at it (a list it pointed to before is left as it
    // was); blocks until done, on the calling thread, calling the step callback between the stages. It
    // releases the held frames. 0, or a status code with getLastErrorMsg; 1 "no usable points" when every
    // point was dropped. A further run needs deInit, init and the settings again.
    int process(std::shared_ptr<MultiMeshData>& mesh);

    // After init, before process: the blocks whose triangles the next run makes (copied); an empty list: all
    // of them. The run computes these blocks and their neighbours on the high side, whose cells the seams
    // need, from the points that reach them (frames may hold more), and makes exactly the triangles that a
    // run of the whole scan makes for these blocks. Give the run origin (setRunOrigin) and keep the block
    // size when parts of several runs are to fit together.
    int setOwnedBlocks(const std::vector<BlockKey>& blocks);
    // As process, but the triangles come block by block: one part for each owned block that has any, in
    // the order of the keys. The parts of any split of a scan's blocks into runs, put together in the order
    // of their keys, are the triangles of process over the whole scan, bit for bit.
    int processParts(std::vector<MeshPart>& parts);

    // After init: shares the list that setOptimizedMarkers made (null before any). With markers set, process
    // measures every frame's markers against them (through the frame's pose) and fills in each marker's
    // count, mean, rms and max error; counts and errors stay 0 until then.
    int getOptimizedMarkerErrors(std::shared_ptr<std::vector<OptedMarker>>& markers);
    // The text of the last failure: "no error!" after a successful init or deInit, "no init!" before init.
    std::string getLastErrorMsg();

    // Sends the engine's diagnostic lines to `sink` instead of standard output (and the device's failure
    // reports instead of standard error), from its next operation on; an empty function sends them back.
    // Before or after init, not during a run (1 then). The sink is called on the thread of the engine's
    // operation, and for the few lines printed inside parallel loops on their worker threads; it must not
    // call into the engine, and what it throws is dropped. The lines of worker threads of two engines running
    // at the same moment may reach either engine's sink.
    int setDiagnosticSink(DiagnosticSink sink);
    // Asks the run in progress to stop: process ends at its next safe point, within about a second, with
    // status 1 and the last error "[Tessaline_OPT] process stopped: a stop was requested!". Safe from any
    // thread, also from the step callback; outside a run it does nothing. Always 0.
    int requestStop();

    // Convenience overloads, defined here and forwarding to the operations above.

    // A step callback given as any callable taking ProcessStepInfo& (a lambda, a temporary std::function,
    // a function pointer) and returning int or nothing; the callable is copied.
    template <class Callable,
              class = std::enable_if_t<std::is_invocable_v<Callable&, ProcessStepInfo&> &&
                                       !std::is_same_v<std::decay_t<Callable>, std::function<int(ProcessStepInfo&)>>>>
    int setProcessStepCallBack(Callable&& callback) {
        std::function<int(ProcessStepInfo&)> wrapped;
        if constexpr (std::is_invocable_r_v<int, Callable&, ProcessStepInfo&>) {
            wrapped = std::forward<Callable>(callback);
        } else {
            wrapped = [f = std::decay_t<Callable>(std::forward<Callable>(callback))](ProcessStepInfo& info) mutable {
                f(info);
                return 0;
            };
        }
        return setProcessStepCallBack(wrapped);
    }
    int setProcessStepCallBack(const std::function<int(ProcessStepInfo&)>& callback) {
        std::function<int(ProcessStepInfo&)> copy = callback;
        return setProcessStepCallBack(copy);
    }
    int setProcessStepCallBack(std::function<int(ProcessStepInfo&)>&& callback) {
        return setProcessStepCallBack(callback);
    }
    // A frame handed over whole (a temporary, or one moved in): the engine owns it from here on.
    int addScanFrame_ALL(FrameDataWithInfo&& frame) {
        return addScanFrame_ALL(std::make_shared<FrameDataWithInfo>(std::move(frame)));
    }
    // A mesh by reference: on success `mesh` holds the run's triangles; on a failure it stays as it was.
    int process(MultiMeshData& mesh) {
        auto result = std::make_shared<MultiMeshData>();
        const int status = process(result);
        if (status == 0 && result) mesh = std::move(*result);
        return status;
    }

private:
    std::shared_ptr<Tessaline_OPT> m_opt;
};

// Checks that a usable device exists and makes it current for the calling thread; needs no engine. 0 and
// the text "sucess", or 65793 and the last failure's text, after three tries 100 ms apart.
TESSALINE_API int InitGPUCUDA(std::string& message);

}  // namespace SurfaceReconstruction
