// PLY point cloud reading and writing.
#include "PointCloudIO.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "OutputFile.h"
#include "PlyReader.h"

namespace tessaline_tools {

using SurfaceReconstruction::FrameDataWithInfo;

namespace {

int scalarColumn(const PlyElement& element, const char* name, const std::string& path) {
    const int column = element.find(name);
    if (column >= 0 && element.properties[static_cast<std::size_t>(column)].list)
        throw std::runtime_error(path + ": the " + element.name + " property " + name + " is a list");
    return column;
}

float toFloat(double value) { return static_cast<float>(value); }

// A number that names something (a laser, a marker): a whole number that an int holds, or the file is refused.
std::int32_t identifier(double value, const std::string& path, const char* what) {
    if (!(value >= -2147483648.0 && value <= 2147483647.0) || value != std::floor(value)) {
        char text[64];
        std::snprintf(text, sizeof(text), "%.17g", value);
        throw std::runtime_error(path + ": " + what + " " + text + " is not a whole number in the range of an int");
    }
    return static_cast<std::int32_t>(value);
}

// The points of the vertex element into `frame`, each into its place (on all cores for a large file); points
// without finite coordinates or a normal of some length are then left out and counted.
void readPoints(PlyReader& ply, const PlyElement& vertex, const std::vector<int>& columns, float scale, int scale_code,
                FrameDataWithInfo& frame, PointCloudReadInfo& info) {
    const std::size_t n = static_cast<std::size_t>(vertex.count);
    frame.xyz.resize(n);
    frame.nor.resize(n);
    frame.w.resize(n);
    const bool words = columns.size() == 7;
    std::atomic<bool> any_dropped(false);
    ply.readScalars(vertex, columns, [&](long record, const double* p) {
        const std::size_t i = static_cast<std::size_t>(record);
        const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
        bool usable = length > 0;
        for (int k = 0; k < 6; ++k) usable = usable && std::isfinite(p[k]);
        if (!usable) {
            frame.xyz[i][0] = std::nanf("");  // marks the point to leave out
            any_dropped.store(true, std::memory_order_relaxed);
            return;
        }
        frame.xyz[i] = {toFloat(p[0] * scale), toFloat(p[1] * scale), toFloat(p[2] * scale)};
        frame.nor[i] = {toFloat(p[3] / length), toFloat(p[4] / length), toFloat(p[5] / length)};
        const double word = words ? p[6] : scale_code;
        frame.w[i] = std::isfinite(word) && std::fabs(word) < 2147483648.0 ? static_cast<std::int32_t>(word) : 0;
    });
    if (!any_dropped.load()) return;
    // Scaled coordinates of a usable point are finite or infinite, never NaN: the mark is unambiguous.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (std::isnan(frame.xyz[i][0])) continue;
        frame.xyz[kept] = frame.xyz[i];
        frame.nor[kept] = frame.nor[i];
        frame.w[kept] = frame.w[i];
        ++kept;
    }
    info.dropped += n - kept;
    frame.xyz.resize(kept);
    frame.nor.resize(kept);
    frame.w.resize(kept);
}

}  // namespace

std::shared_ptr<FrameDataWithInfo> readPlyPointCloud(const std::string& path, float scale, int scale_code,
                                                     PointCloudReadInfo& info) {
    PlyReader ply(path);
    const PlyElement* vertex = ply.find("vertex");
    if (vertex == nullptr) throw std::runtime_error(path + ": no vertex element");
    std::vector<int> columns(7);
    const char* names[7] = {"x", "y", "z", "nx", "ny", "nz", "w"};
    const char* pcl_names[3] = {"normal_x", "normal_y", "normal_z"};  // as PCL writes them
    for (int k = 0; k < 7; ++k) {
        columns[k] = scalarColumn(*vertex, names[k], path);
        if (k >= 3 && k < 6 && columns[k] < 0) columns[k] = scalarColumn(*vertex, pcl_names[k - 3], path);
    }
    if (columns[0] < 0 || columns[1] < 0 || columns[2] < 0) throw std::runtime_error(path + ": no x, y, z properties");
    if (columns[3] < 0 || columns[4] < 0 || columns[5] < 0)
        throw std::runtime_error(path + ": no normals (nx, ny, nz or normal_x, normal_y, normal_z)");
    info.words_from_file = columns[6] >= 0;
    if (const PlyElement* face = ply.find("face")) info.faces = face->count;
    if (!info.words_from_file) columns.pop_back();

    auto frame = std::make_shared<FrameDataWithInfo>();
    for (const PlyElement& element : ply.elements()) {
        if (&element == vertex) {
            readPoints(ply, *vertex, columns, scale, scale_code, *frame, info);
        } else if (element.name == "pose" && element.count == 1) {
            const char* pose_names[13] = {"r0", "r1", "r2", "r3", "r4", "r5",      "r6",
                                          "r7", "r8", "tx", "ty", "tz", "laser_id"};
            std::vector<int> pose_columns(13);
            for (int k = 0; k < 13; ++k) {
                pose_columns[k] = scalarColumn(element, pose_names[k], path);
                if (pose_columns[k] < 0) throw std::runtime_error(path + ": the pose has no " + pose_names[k]);
            }
            ply.readScalars(element, pose_columns, [&](long, const double* value) {
                for (int k = 0; k < 9; ++k) frame->frame_info.rotation[k] = value[k];
                for (int k = 0; k < 3; ++k) frame->frame_info.translation[k] = value[9 + k] * scale;
                frame->frame_info.laser_id = identifier(value[12], path, "the pose's laser_id");
            });
        } else if (element.name == "marker") {
            const char* marker_names[7] = {"id", "x", "y", "z", "nx", "ny", "nz"};
            std::vector<int> marker_columns(7);
            for (int k = 0; k < 7; ++k) {
                marker_columns[k] = scalarColumn(element, marker_names[k], path);
                if (marker_columns[k] < 0) throw std::runtime_error(path + ": the markers have no " + marker_names[k]);
            }
            const std::size_t markers = static_cast<std::size_t>(element.count);
            frame->marker_ids.resize(markers);
            frame->marker_xyz.resize(markers);
            frame->marker_nor.resize(markers);
            ply.readScalars(element, marker_columns, [&](long m, const double* value) {
                const std::size_t i = static_cast<std::size_t>(m);
                frame->marker_ids[i] = identifier(value[0], path, "a marker id");
                frame->marker_xyz[i] = {toFloat(value[1] * scale), toFloat(value[2] * scale),
                                        toFloat(value[3] * scale)};
                frame->marker_nor[i] = {toFloat(value[4]), toFloat(value[5]), toFloat(value[6])};
            });
        }
    }
    return frame;
}

void writePlyPointCloud(const std::string& path, const FrameDataWithInfo& frame) {
    OutputFile file(path);
    {
        std::ofstream out(file.temporaryPath(), std::ios::binary);
        if (!out) throw std::runtime_error(path + ": cannot write the file");
        out << "ply\nformat binary_little_endian 1.0\ncomment a scan frame of tessaline\n"
            << "element vertex " << frame.xyz.size()
            << "\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\nproperty float ny\n"
               "property float nz\nproperty int w\n"
            << "element pose 1\n";
        for (int k = 0; k < 9; ++k) out << "property double r" << k << "\n";
        out << "property double tx\nproperty double ty\nproperty double tz\nproperty int laser_id\n"
            << "element marker " << frame.marker_ids.size()
            << "\nproperty int id\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\n"
               "property float ny\nproperty float nz\nend_header\n";
        const auto put = [&out](const void* bytes, std::size_t size) {
            out.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
        };
        for (std::size_t i = 0; i < frame.xyz.size(); ++i) {
            put(frame.xyz[i].data(), 12);
            put(frame.nor[i].data(), 12);
            put(&frame.w[i], 4);
        }
        put(frame.frame_info.rotation, sizeof(frame.frame_info.rotation));
        put(frame.frame_info.translation, sizeof(frame.frame_info.translation));
        put(&frame.frame_info.laser_id, 4);
        for (std::size_t m = 0; m < frame.marker_ids.size(); ++m) {
            put(&frame.marker_ids[m], 4);
            put(frame.marker_xyz[m].data(), 12);
            put(frame.marker_nor[m].data(), 12);
        }
        if (!out.flush()) throw std::runtime_error(path + ": cannot write the file");
    }
    file.commit();
}

void writePlyPoints(const std::string& path, const std::vector<std::shared_ptr<FrameDataWithInfo>>& frames) {
    std::size_t count = 0;
    for (const auto& frame : frames) count += frame->xyz.size();
    OutputFile file(path);
    std::FILE* out = std::fopen(file.temporaryPath().c_str(), "wb");
    if (out == nullptr) throw std::runtime_error(path + ": cannot write the file");
    const std::string header =
        "ply\nformat binary_little_endian 1.0\ncomment the points of all frames\nelement vertex " +
        std::to_string(count) +
        "\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\n"
        "property float ny\nproperty float nz\nend_header\n";
    bool good = std::fwrite(header.data(), 1, header.size(), out) == header.size();
    // Points go out a megabyte at a time; the last, partly filled buffer is written after the loop.
    std::vector<char> buffer;
    buffer.reserve(1 << 20);
    const auto flush = [&] {
        good = good && std::fwrite(buffer.data(), 1, buffer.size(), out) == buffer.size();
        buffer.clear();
    };
    for (const auto& frame : frames) {
        for (std::size_t i = 0; i < frame->xyz.size(); ++i) {
            if (buffer.size() + 24 > buffer.capacity()) flush();
            const char* xyz = reinterpret_cast<const char*>(frame->xyz[i].data());
            const char* nor = reinterpret_cast<const char*>(frame->nor[i].data());
            buffer.insert(buffer.end(), xyz, xyz + 12);
            buffer.insert(buffer.end(), nor, nor + 12);
        }
    }
    flush();
    good = std::fclose(out) == 0 && good;
    if (!good) throw std::runtime_error(path + ": cannot write the file");
    file.commit();
}

}  // namespace tessaline_tools
