// PLY point cloud reading and writing.
#include "PointCloudIO.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <initializer_list>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "OutputFile.h"
#include "PlyReader.h"

namespace tessaline_tools {

using SurfaceReconstruction::FrameDataWithInfo;
using SurfaceReconstruction::MarkerInfos;

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

// Where the vertex properties a point cloud uses are: -1 where the file has none.
struct PointColumns {
    int xyz[3] = {-1, -1, -1};
    int normal[3] = {-1, -1, -1};
    int word = -1;
    int colour[3] = {-1, -1, -1};
    std::vector<int> columns;  // the ones present, in the order the values reach readPoints
    int at_normal = -1, at_word = -1, at_colour = -1;
};

// A colour channel as a byte: integers of one byte as they are, of two bytes scaled down, floats from 0 to 1.
std::uint8_t colourByte(double value, const PlyProperty& property) {
    if (!std::isfinite(value)) return 0;
    if (property.kind == 'f')
        value *= 255.0;
    else if (property.size == 2)
        value /= 257.0;
    return static_cast<std::uint8_t>(std::min(255.0, std::max(0.0, std::round(value))));
}

// One record of the vertex element as a point: false for a point without finite coordinates or (where the
// file has normals) a normal of some length, which is left out.
struct PointDecoder {
    const PointColumns& c;
    float scale;
    int scale_code;
    bool normals, words, coloured;
    const PlyProperty* channel[3] = {};

    PointDecoder(const PlyElement& vertex, const PointColumns& columns, float scale_, int scale_code_, bool colours)
        : c(columns),
          scale(scale_),
          scale_code(scale_code_),
          normals(columns.at_normal >= 0),
          words(columns.at_word >= 0),
          coloured(columns.at_colour >= 0 && colours) {
        for (int k = 0; coloured && k < 3; ++k) channel[k] = &vertex.properties[static_cast<std::size_t>(c.colour[k])];
    }

    bool operator()(const double* p, SurfaceReconstruction::Vec3f& xyz, SurfaceReconstruction::Vec3f& nor,
                    std::int32_t& w, Colour* colour) const {
        bool usable = std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
        double length = 0.0;
        if (normals) {
            const double* q = p + c.at_normal;
            length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
            usable = usable && length > 0 && std::isfinite(q[0]) && std::isfinite(q[1]) && std::isfinite(q[2]);
        }
        if (!usable) return false;
        xyz = {toFloat(p[0] * scale), toFloat(p[1] * scale), toFloat(p[2] * scale)};
        if (normals) {
            const double* q = p + c.at_normal;
            nor = {toFloat(q[0] / length), toFloat(q[1] / length), toFloat(q[2] / length)};
        } else {
            nor = {0.0f, 0.0f, 0.0f};
        }
        const double word = words ? p[c.at_word] : scale_code;
        w = std::isfinite(word) && std::fabs(word) < 2147483648.0 ? static_cast<std::int32_t>(word) : 0;
        if (coloured)
            for (int k = 0; k < 3; ++k) (*colour)[k] = colourByte(p[c.at_colour + k], *channel[k]);
        return true;
    }
};

// Where a record's fields lie when the coordinates and normals are floats and the word a value of four
// bytes (the binary point clouds that scanners write), for reading without a double for every value.
struct FourByteFields {
    std::size_t xyz[3] = {0, 0, 0}, normal[3] = {0, 0, 0}, word = 0;
    char word_kind = 'i';
    bool normals = false, words = false;
};

// The fields' places, or false where a coordinate or normal is not a float or the word not of four bytes.
bool fourByteFields(const PlyElement& vertex, const PointColumns& c, FourByteFields& f) {
    const auto property = [&](int column) -> const PlyProperty& {
        return vertex.properties[static_cast<std::size_t>(column)];
    };
    const auto isFloat = [&](int column) { return property(column).kind == 'f' && property(column).size == 4; };
    for (int k = 0; k < 3; ++k) {
        if (!isFloat(c.xyz[k])) return false;
        f.xyz[k] = property(c.xyz[k]).offset;
    }
    f.normals = c.at_normal >= 0;
    for (int k = 0; k < 3 && f.normals; ++k) {
        if (!isFloat(c.normal[k])) return false;
        f.normal[k] = property(c.normal[k]).offset;
    }
    f.words = c.at_word >= 0;
    if (f.words) {
        if (property(c.word).size != 4) return false;
        f.word = property(c.word).offset;
        f.word_kind = property(c.word).kind;
    }
    return true;
}

double floatAt(const char* bytes) {
    float value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

// PointDecoder's reading of `count` records from `data` into the points from `first` on, with the same
// arithmetic on the same doubles: the same points. True where one is left out (marked as readPoints does).
bool decodeFourByteRecords(const char* data, std::size_t record_bytes, std::size_t count, std::size_t first,
                           const FourByteFields& f, float scale, int scale_code, FrameDataWithInfo& frame) {
    bool dropped = false;
    for (std::size_t r = 0; r < count; ++r) {
        const char* record = data + r * record_bytes;
        const double p[3] = {floatAt(record + f.xyz[0]), floatAt(record + f.xyz[1]), floatAt(record + f.xyz[2])};
        bool usable = std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
        double q[3] = {0.0, 0.0, 0.0}, length = 0.0;
        if (f.normals) {
            for (int k = 0; k < 3; ++k) q[k] = floatAt(record + f.normal[k]);
            length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
            usable = usable && length > 0 && std::isfinite(q[0]) && std::isfinite(q[1]) && std::isfinite(q[2]);
        }
        const std::size_t i = first + r;
        if (!usable) {
            frame.xyz[i][0] = std::nanf("");  // marks the point to leave out
            dropped = true;
            continue;
        }
        frame.xyz[i] = {toFloat(p[0] * scale), toFloat(p[1] * scale), toFloat(p[2] * scale)};
        if (f.normals)
            frame.nor[i] = {toFloat(q[0] / length), toFloat(q[1] / length), toFloat(q[2] / length)};
        else
            frame.nor[i] = {0.0f, 0.0f, 0.0f};
        const double word = f.words ? decodeFour(record + f.word, f.word_kind) : scale_code;
        frame.w[i] = std::isfinite(word) && std::fabs(word) < 2147483648.0 ? static_cast<std::int32_t>(word) : 0;
    }
    return dropped;
}

// Records of a large piece are decoded on all cores, a few thousand a chunk.
constexpr std::size_t DECODE_CHUNK = 4096;
// From so many points on, the frame's arrays are sized (their pages zeroed) on two threads, one of them
// beside the reading of the file's first piece.
constexpr std::size_t SIZED_BESIDE = std::size_t(1) << 16;

// The points of the vertex element into `frame`, each into its place (on all cores for a large file); points
// the decoder leaves out are then left out and counted.
void readPoints(PlyReader& ply, const PlyElement& vertex, const PointColumns& c, float scale, int scale_code,
                FrameDataWithInfo& frame, std::vector<Colour>* colours, PointCloudReadInfo& info) {
    const std::size_t n = static_cast<std::size_t>(vertex.count);
    const PointDecoder decode(vertex, c, scale, scale_code, colours != nullptr);
    // The arrays are allocated, backed by huge pages where large, then zeroed: a few page faults, not one
    // every 4 KB. One array at a time, the next not yet taken, so that two threads can share the zeroing.
    std::atomic<int> next_array(0);
    const int arrays = decode.coloured ? 4 : 3;
    const auto size = [&] {
        const auto sizeOne = [n](auto& array) {
            array.reserve(n);
            adviseHugePages(array.data(), n * sizeof(array[0]));
            array.resize(n);
        };
        for (int k; (k = next_array.fetch_add(1)) < arrays;) {
            if (k == 0) sizeOne(frame.xyz);
            if (k == 1) sizeOne(frame.nor);
            if (k == 2) sizeOne(frame.w);
            if (k == 3) sizeOne(*colours);
        }
    };
    // From SIZED_BESIDE points on, a thread of its own starts on the arrays while the first piece is read,
    // and this one takes those left once it is read; all are sized before the first point is stored (and,
    // should the reading fail, as the thread's future is destroyed).
    std::future<void> sizing;
    if (n >= SIZED_BESIDE) {
        try {
            sizing = std::async(std::launch::async, size);
        } catch (const std::system_error&) {  // no thread to be had: sized here
        }
    }
    if (!sizing.valid()) size();
    const auto sized = [&] {
        size();
        if (sizing.valid()) sizing.get();
    };
    std::atomic<bool> any_dropped(false);
    FourByteFields fields;
    const bool four_bytes = !decode.coloured && fourByteFields(vertex, c, fields);
    const bool read =
        four_bytes && ply.readLittleEndianPieces(vertex, [&](long first, std::size_t count, const char* data) {
            sized();
            const std::int64_t chunks = static_cast<std::int64_t>((count + DECODE_CHUNK - 1) / DECODE_CHUNK);
            bool dropped = false;
#pragma omp parallel for schedule(static) reduction(|| : dropped) if (chunks > 1)
            for (std::int64_t k = 0; k < chunks; ++k) {
                const std::size_t from = static_cast<std::size_t>(k) * DECODE_CHUNK;
                dropped =
                    decodeFourByteRecords(data + from * vertex.record_bytes, vertex.record_bytes,
                                          std::min(DECODE_CHUNK, count - from), static_cast<std::size_t>(first) + from,
                                          fields, scale, scale_code, frame) ||
                    dropped;
            }
            if (dropped) any_dropped.store(true, std::memory_order_relaxed);
        });
    if (!read)
        ply.readScalarPieces(
            vertex, c.columns, [&](long, long) { sized(); },
            [&](long record, const double* p) {
                const std::size_t i = static_cast<std::size_t>(record);
                if (!decode(p, frame.xyz[i], frame.nor[i], frame.w[i], decode.coloured ? &(*colours)[i] : nullptr)) {
                    frame.xyz[i][0] = std::nanf("");  // marks the point to leave out
                    any_dropped.store(true, std::memory_order_relaxed);
                }
            },
            [](long, long) {});
    sized();
    if (!any_dropped.load()) return;
    // Scaled coordinates of a usable point are finite or infinite, never NaN: the mark is unambiguous.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (std::isnan(frame.xyz[i][0])) continue;
        frame.xyz[kept] = frame.xyz[i];
        frame.nor[kept] = frame.nor[i];
        frame.w[kept] = frame.w[i];
        if (decode.coloured) (*colours)[kept] = (*colours)[i];
        ++kept;
    }
    info.dropped += n - kept;
    frame.xyz.resize(kept);
    frame.nor.resize(kept);
    frame.w.resize(kept);
    if (decode.coloured) colours->resize(kept);
}

// As readPoints, a piece of the file at a time: of the points it keeps, in order, those `keep` takes stay.
void readPointsWithin(PlyReader& ply, const PlyElement& vertex, const PointColumns& c, float scale, int scale_code,
                      FrameDataWithInfo& frame, std::vector<Colour>* colours, PointCloudReadInfo& info,
                      const PointFilter& keep) {
    const PointDecoder decode(vertex, c, scale, scale_code, colours != nullptr);
    std::vector<SurfaceReconstruction::Vec3f> xyz, nor;
    std::vector<std::int32_t> w;
    std::vector<Colour> colour;
    std::vector<char> usable;
    std::size_t index = 0;  // of the next usable point in the file
    long base = 0;          // the piece's first record
    ply.readScalarPieces(
        vertex, c.columns,
        [&](long first, long count) {
            base = first;
            const std::size_t n = static_cast<std::size_t>(count);
            xyz.resize(n);
            nor.resize(n);
            w.resize(n);
            usable.resize(n);
            if (decode.coloured) colour.resize(n);
        },
        [&](long record, const double* p) {
            const std::size_t i = static_cast<std::size_t>(record - base);
            usable[i] = decode(p, xyz[i], nor[i], w[i], decode.coloured ? &colour[i] : nullptr) ? 1 : 0;
        },
        [&](long, long count) {
            for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
                if (!usable[i]) {
                    ++info.dropped;
                    continue;
                }
                if (!keep(xyz[i], index++)) continue;
                frame.xyz.push_back(xyz[i]);
                frame.nor.push_back(nor[i]);
                frame.w.push_back(w[i]);
                if (decode.coloured) colours->push_back(colour[i]);
            }
        });
}

// The first of `names` that the element has as a scalar property, or -1.
int firstColumn(const PlyElement& element, std::initializer_list<const char*> names, const std::string& path) {
    for (const char* name : names) {
        const int column = scalarColumn(element, name, path);
        if (column >= 0) return column;
    }
    return -1;
}

PointColumns pointColumns(const PlyElement& vertex, const std::string& path) {
    PointColumns c;
    const char* axes[3] = {"x", "y", "z"};
    for (int k = 0; k < 3; ++k) c.xyz[k] = scalarColumn(vertex, axes[k], path);
    if (c.xyz[0] < 0 || c.xyz[1] < 0 || c.xyz[2] < 0) throw std::runtime_error(path + ": no x, y, z properties");
    c.normal[0] = firstColumn(vertex, {"nx", "normal_x"}, path);  // PCL's names too
    c.normal[1] = firstColumn(vertex, {"ny", "normal_y"}, path);
    c.normal[2] = firstColumn(vertex, {"nz", "normal_z"}, path);
    c.word = scalarColumn(vertex, "w", path);
    c.colour[0] = firstColumn(vertex, {"red", "r", "diffuse_red"}, path);
    c.colour[1] = firstColumn(vertex, {"green", "g", "diffuse_green"}, path);
    c.colour[2] = firstColumn(vertex, {"blue", "b", "diffuse_blue"}, path);
    c.columns.assign(c.xyz, c.xyz + 3);
    if (c.normal[0] >= 0 && c.normal[1] >= 0 && c.normal[2] >= 0) {
        c.at_normal = static_cast<int>(c.columns.size());
        c.columns.insert(c.columns.end(), c.normal, c.normal + 3);
    }
    if (c.word >= 0) {
        c.at_word = static_cast<int>(c.columns.size());
        c.columns.push_back(c.word);
    }
    if (c.colour[0] >= 0 && c.colour[1] >= 0 && c.colour[2] >= 0) {
        c.at_colour = static_cast<int>(c.columns.size());
        c.columns.insert(c.columns.end(), c.colour, c.colour + 3);
    }
    return c;
}

}  // namespace

namespace {

std::shared_ptr<FrameDataWithInfo> readPly(const std::string& path, float scale, int scale_code,
                                           PointCloudReadInfo& info, FrameExtras* extras, const PointFilter* keep) {
    PlyReader ply(path);
    const PlyElement* vertex = ply.find("vertex");
    if (vertex == nullptr) throw std::runtime_error(path + ": no vertex element");
    const PointColumns columns = pointColumns(*vertex, path);
    if (columns.at_normal < 0 && extras == nullptr)
        throw std::runtime_error(path + ": no normals (nx, ny, nz or normal_x, normal_y, normal_z)");
    info.words_from_file = columns.at_word >= 0;
    if (const PlyElement* face = ply.find("face")) info.faces = face->count;
    if (extras != nullptr) {
        extras->source = path;
        extras->normals = columns.at_normal >= 0;
    }

    auto frame = std::make_shared<FrameDataWithInfo>();
    for (const PlyElement& element : ply.elements()) {
        if (&element == vertex) {
            std::vector<Colour>* colours = extras ? &extras->colours : nullptr;
            if (keep != nullptr)
                readPointsWithin(ply, *vertex, columns, scale, scale_code, *frame, colours, info, *keep);
            else
                readPoints(ply, *vertex, columns, scale, scale_code, *frame, colours, info);
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
            if (extras != nullptr) {
                extras->sensor = true;
                for (int k = 0; k < 3; ++k) extras->sensor_position[k] = frame->frame_info.translation[k];
            }
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

}  // namespace

std::shared_ptr<FrameDataWithInfo> readPlyPointCloud(const std::string& path, float scale, int scale_code,
                                                     PointCloudReadInfo& info, FrameExtras* extras) {
    return readPly(path, scale, scale_code, info, extras, nullptr);
}

std::shared_ptr<FrameDataWithInfo> readPlyPointCloudWithin(const std::string& path, float scale, int scale_code,
                                                           PointCloudReadInfo& info, FrameExtras* extras,
                                                           const PointFilter& keep) {
    return readPly(path, scale, scale_code, info, extras, &keep);
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

MarkerInfos readOptimizedMarkers(const std::string& path, float scale) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot open the file");
    MarkerInfos markers;
    std::string line;
    long number = 0;
    while (std::getline(in, line)) {
        ++number;
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') continue;
        double value[7];
        const char* at = line.c_str();
        for (int k = 0; k < 7; ++k) {
            char* end = nullptr;
            value[k] = std::strtod(at, &end);
            if (end == at || !std::isfinite(value[k]))
                throw std::runtime_error(path + ": line " + std::to_string(number) +
                                         ": a marker is 'id x y z nx ny nz', seven numbers");
            at = end;
        }
        while (*at == ' ' || *at == '\t' || *at == '\r') ++at;
        if (*at != '\0')
            throw std::runtime_error(path + ": line " + std::to_string(number) +
                                     ": more than the seven numbers of a marker (id x y z nx ny nz)");
        markers.ids.push_back(identifier(value[0], path, "a marker id"));
        markers.xyz.push_back({toFloat(value[1] * scale), toFloat(value[2] * scale), toFloat(value[3] * scale)});
        markers.nor.push_back({toFloat(value[4]), toFloat(value[5]), toFloat(value[6])});
    }
    if (in.bad()) throw std::runtime_error(path + ": cannot read the file");
    return markers;
}

void writeOptimizedMarkers(const std::string& path, const MarkerInfos& markers) {
    OutputFile output(path);
    FILE* file = std::fopen(output.temporaryPath().c_str(), "w");
    if (file == nullptr) throw std::runtime_error(path + ": cannot write the file");
    std::fprintf(file, "# id x y z nx ny nz (millimetres)\n");
    for (std::size_t m = 0; m < markers.ids.size(); ++m)
        std::fprintf(file, "%d %.6f %.6f %.6f %.6f %.6f %.6f\n", markers.ids[m], markers.xyz[m][0], markers.xyz[m][1],
                     markers.xyz[m][2], markers.nor[m][0], markers.nor[m][1], markers.nor[m][2]);
    if (std::fclose(file) != 0) throw std::runtime_error(path + ": cannot write the file");
    output.commit();
}

}  // namespace tessaline_tools
