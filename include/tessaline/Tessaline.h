// Tessaline: registered laser-scan frames in, one triangle mesh out.
// This header is the whole public surface of the library: the records that cross its boundary,
// the handle class `Tessaline` and the free function `InitGPUCUDA`.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#if defined(_WIN32)
#define TESSALINE_API __declspec(dllexport)
#else
#define TESSALINE_API __attribute__((visibility("default")))
#endif

#define TESSALINE_VERSION_MAJOR 0
#define TESSALINE_VERSION_MINOR 1
#define TESSALINE_VERSION_PATCH 0
#define TESSALINE_VERSION_STRING "0.1.0"

namespace SurfaceReconstruction {

// A position or a normal: x, y, z.
using Vec3f = std::array<float, 3>;

// The per-frame record. It is copied byte for byte into the library's staging buffers.
struct FrameInfo {
    std::uint8_t leading[96] = {};  // the application's own; never read by the library
    double rotation[9] = {};        // column-major: row r, column c at index 3c + r
    double translation[3] = {};
    std::int32_t laser_id = 0;  // 0 to 7; anything else is set to 0 when the frame is used
};

// One scan frame, already in the common coordinate system of the scan.
// `nor` and `w` must have exactly as many entries as `xyz`.
struct FrameDataWithInfo {
    std::vector<Vec3f> xyz;
    std::vector<Vec3f> nor;
    // Bits 0-7: the wished scale code of the point (0, 1, 2, 4, 8, 16, 32, 64);
    // bits 8 and up: flags, OR-ed upward into the mesh words.
    std::vector<std::int32_t> w;
    FrameInfo frame_info;
    std::vector<std::int32_t> marker_ids;
    std::vector<Vec3f> marker_xyz;
    std::vector<Vec3f> marker_nor;
};

// Settings of one laser; `setLaserInfo` once for each laser fills the per-laser `min_edge` values.
struct LaserInfo {
    std::uint32_t laser_word_a = 0;
    std::uint32_t laser_word_b = 0;
    std::int32_t laser_id = 0;  // 0 to 7
    float min_edge = 0.0f;      // a point of this laser counts in a cell of at least this edge
    std::uint32_t laser_block[4] = {};
    std::uint32_t laser_word_c = 0;
};

// The optimized markers of the whole scan.
struct MarkerInfos {
    std::vector<std::int32_t> ids;  // its length is the marker count; values are not read
    std::vector<Vec3f> xyz;
    std::vector<Vec3f> nor;
};

// One optimized marker with its error statistics.
struct OptedMarker {
    std::int32_t id = -1;  // index in the list
    Vec3f xyz = {0.0f, 0.0f, 0.0f};
    Vec3f nor = {0.0f, 0.0f, 0.0f};
    std::int32_t count = 0;
    float rms = 0.0f;
    float mean = 0.0f;
    float max = 0.0f;
};

// What the step callback receives; valid only during the call.
struct ProcessStepInfo {
    std::wstring step_name;
    std::int32_t total_steps = 0;
    std::int32_t cur_step = 0;
    std::int32_t total_sub_steps = 0;
    std::int32_t cur_sub_step = 0;
};

// One triangle: x, y, z of the first, second and third vertex.
struct TriangleXYZ {
    float xyz[9];
};

// One 32-bit word for each vertex of the triangle at the same index.
struct TriangleW {
    std::uint32_t w[3];
};

// The result of a run: a triangle soup; `xyz` and `w` always have the same length.
struct MultiMeshData {
    std::vector<TriangleXYZ> xyz;
    std::vector<TriangleW> w;
};

class Tessaline_OPT;

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

// A handle to one engine; copies share that engine. One thread at a time drives it.
class TESSALINE_API Tessaline {
public:
    Tessaline();
    Tessaline(const Tessaline& other);
    ~Tessaline();
    Tessaline& operator=(const Tessaline& other);

    int init();
    int deInit();

    void setResolution(float resolution);
    int setLaserInfo(const LaserInfo& info);
    int setOptimizedMarkers(MarkerInfos& markers);
    int setProcessStepCallBack(std::function<int(ProcessStepInfo&)>& callback);

    int addScanFrame_ALL(const std::shared_ptr<FrameDataWithInfo>& frame);
    int addScanFrame_async(const std::shared_ptr<FrameDataWithInfo>& frame);

    int process(std::shared_ptr<MultiMeshData>& mesh);

    int getOptimizedMarkerErrors(std::shared_ptr<std::vector<OptedMarker>>& markers);
    std::string getLastErrorMsg();

private:
    std::shared_ptr<Tessaline_OPT> m_opt;
};

// Checks that a usable device exists and makes it current for the calling thread.
// 0 and "sucess", or 65793 and the last failure's text, after three tries.
TESSALINE_API int InitGPUCUDA(std::string& message);

}  // namespace SurfaceReconstruction
