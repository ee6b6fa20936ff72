// The program's pieces for the package's distributed runs (tessaline._core.tools): its readers, the order
// in which it reads its inputs, the global choices a run makes over the whole scan (the run origin, the
// frames its markers leave out), runs of chosen blocks over the files that reach them, and the finishing
// steps and writer of `tessaline reconstruct`. Each is a plain function of files and numbers, so that a
// task on any worker computes what one machine would.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "MeshIO.h"
#include "PlyReader.h"
#include "PointCloudIO.h"
#include "Reconstruction.h"
#include "ScanFiles.h"
#include "ScanFormats.h"
#include "tessaline/Tessaline.h"
#include "tessaline/TessalineMesh.h"

namespace py = pybind11;
using namespace SurfaceReconstruction;

namespace {

using tessaline_tools::Origin;
using tessaline_tools::ScanUnit;

// A unit as Python holds it: (input, path, range_set).
using UnitTuple = std::tuple<std::size_t, std::string, bool>;

ScanUnit unitOf(const UnitTuple& t) { return ScanUnit{std::get<0>(t), std::get<1>(t), std::get<2>(t)}; }

// How the program reads every unit of a run: --units, --scale-code and the geo-referenced origin.
struct ReadSettings {
    float to_mm = 1.0f;
    int scale_code = 8;          // the word of points whose file has none
    bool explicit_code = false;  // --scale-code given: every point's wish replaced, its flags kept
    Origin origin = {0.0, 0.0, 0.0};
    // The folder of the normals estimated for the frames that came without them ("": none estimated).
    std::string normals_dir;
};

ReadSettings readSettings(float to_mm, int scale_code, bool explicit_code, const Origin& origin,
                          const std::string& normals_dir) {
    ReadSettings s;
    s.to_mm = to_mm;
    s.scale_code = scale_code;
    s.explicit_code = explicit_code;
    s.origin = origin;
    s.normals_dir = normals_dir;
    return s;
}

constexpr char NORMALS_MAGIC[8] = {'T', 'S', 'L', 'N', 'O', 'R', 'M', '1'};

// The file of a unit's estimated normals in the run's normals folder: named by the unit (FNV-1a of its
// input's place, path and range flag), so that every task finds it from the unit alone.
std::string normalsPath(const ScanUnit& unit, const std::string& folder) {
    std::uint64_t hash = 1469598103934665603ull;
    const std::string key = std::to_string(unit.input) + "|" + unit.path + "|" + (unit.range_set ? "1" : "0");
    for (const unsigned char c : key) hash = (hash ^ c) * 1099511628211ull;
    char name[64];
    std::snprintf(name, sizeof(name), "normals_%016llx.bin", static_cast<unsigned long long>(hash));
    return folder + "/" + name;
}

// Writes the normals of the frames of `scan` that came without them (a count and the normals a frame, 0 for
// the others), whole or not at all.
void writeNormals(const ScanUnit& unit, const std::string& folder, const tessaline_tools::ScanInput& scan) {
    const std::string path = normalsPath(unit, folder);
    const std::string temporary = path + ".tmp" + std::to_string(getpid());
    std::ofstream out(temporary, std::ios::binary);
    const std::uint64_t frames = scan.frames.size();
    out.write(NORMALS_MAGIC, 8);
    out.write(reinterpret_cast<const char*>(&frames), sizeof(frames));
    for (std::size_t f = 0; f < scan.frames.size(); ++f) {
        const std::uint64_t n = scan.extras[f].normals ? 0 : scan.frames[f]->nor.size();
        out.write(reinterpret_cast<const char*>(&n), sizeof(n));
        out.write(reinterpret_cast<const char*>(scan.frames[f]->nor.data()), static_cast<std::streamsize>(n * 12));
    }
    out.close();
    if (!out || std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        throw std::runtime_error(path + ": cannot write the normals of " + unit.path);
    }
}

// Puts the estimated normals of a unit (writeNormals) into the frames that came without them.
void readNormals(const ScanUnit& unit, const std::string& folder, tessaline_tools::ScanInput& scan) {
    const std::string path = normalsPath(unit, folder);
    std::ifstream in(path, std::ios::binary);
    char magic[8];
    std::uint64_t frames = 0;
    in.read(magic, 8);
    in.read(reinterpret_cast<char*>(&frames), sizeof(frames));
    if (!in || std::string(magic, 8) != std::string(NORMALS_MAGIC, 8) || frames != scan.frames.size())
        throw std::runtime_error(path + ": not the estimated normals of " + unit.path);
    for (std::size_t f = 0; f < scan.frames.size(); ++f) {
        std::uint64_t n = 0;
        in.read(reinterpret_cast<char*>(&n), sizeof(n));
        if (!in || (n != 0 && n != scan.frames[f]->xyz.size()) || (n == 0) != scan.extras[f].normals)
            throw std::runtime_error(path + ": the estimated normals do not match the frames of " + unit.path);
        if (n == 0) continue;
        scan.frames[f]->nor.resize(n);
        in.read(reinterpret_cast<char*>(scan.frames[f]->nor.data()), static_cast<std::streamsize>(n * 12));
        if (!in) throw std::runtime_error(path + ": cut short");
        scan.extras[f].normals = true;
    }
}

// The frames of one unit, as the program has them before its run.
tessaline_tools::ScanInput readUnit(const ScanUnit& unit, const ReadSettings& settings) {
    tessaline_tools::ScanReadOptions options;
    options.scale = settings.to_mm;
    options.scale_code = settings.scale_code;
    options.origin = settings.origin;
    tessaline_tools::ScanInput scan;
    tessaline_tools::ScanReadNotes notes;
    tessaline_tools::readScanUnit(unit, options, scan, notes);
    if (settings.explicit_code)
        for (auto& frame : scan.frames)
            for (auto& w : frame->w) w = (w & ~0xFF) | settings.scale_code;
    if (!settings.normals_dir.empty() && scan.missingNormals()) readNormals(unit, settings.normals_dir, scan);
    return scan;
}

bool finite(const Vec3f& p) { return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]); }

// Puts the estimated normals of a one-frame unit read in part (`kept`: the places of the points kept among
// the `seen` points its reader keeps) into its frame, the file read a piece at a time.
void readNormalsAt(const ScanUnit& unit, const std::string& folder, const std::vector<std::size_t>& kept,
                   std::size_t seen, tessaline_tools::ScanInput& scan) {
    const std::string path = normalsPath(unit, folder);
    std::ifstream in(path, std::ios::binary);
    char magic[8];
    std::uint64_t frames = 0, n = 0;
    in.read(magic, 8);
    in.read(reinterpret_cast<char*>(&frames), sizeof(frames));
    in.read(reinterpret_cast<char*>(&n), sizeof(n));
    if (!in || std::string(magic, 8) != std::string(NORMALS_MAGIC, 8) || frames != 1 || n != seen)
        throw std::runtime_error(path + ": not the estimated normals of " + unit.path);
    FrameDataWithInfo& frame = *scan.frames[0];
    std::vector<Vec3f> piece(std::size_t(1) << 16);
    std::size_t first = 0, filled = 0;  // the places [first, first + filled) in `piece`
    for (std::size_t i = 0; i < kept.size(); ++i) {
        while (kept[i] >= first + filled) {
            first += filled;
            filled = std::min<std::size_t>(piece.size(), seen - first);
            in.read(reinterpret_cast<char*>(piece.data()), static_cast<std::streamsize>(filled * 12));
            if (!in) throw std::runtime_error(path + ": cut short");
        }
        frame.nor[i] = piece[kept[i] - first];
    }
    scan.extras[0].normals = true;
}

// The frames of one unit with only the points `within` takes (finite ones, in the run's coordinates), as
// readUnit has them and cut to those. A PLY file is read a piece at a time, so that one larger than a
// worker's memory can feed a task; the other formats (and .conf scan lists) are read whole, then cut.
template <class Within>
tessaline_tools::ScanInput readUnitWithin(const ScanUnit& unit, const ReadSettings& settings, Within within) {
    if (unit.range_set || tessaline_tools::scanFormatOf(unit.path) != tessaline_tools::ScanFormat::Ply) {
        tessaline_tools::ScanInput scan = readUnit(unit, settings);
        for (std::size_t f = 0; f < scan.frames.size(); ++f) {
            FrameDataWithInfo& frame = *scan.frames[f];
            auto& colours = scan.extras[f].colours;
            const bool coloured = colours.size() == frame.xyz.size();
            std::size_t kept = 0;
            for (std::size_t i = 0; i < frame.xyz.size(); ++i) {
                if (!finite(frame.xyz[i]) || !within(frame.xyz[i])) continue;
                frame.xyz[kept] = frame.xyz[i];
                frame.nor[kept] = frame.nor[i];
                frame.w[kept] = frame.w[i];
                if (coloured) colours[kept] = colours[i];
                ++kept;
            }
            frame.xyz.resize(kept);
            frame.nor.resize(kept);
            frame.w.resize(kept);
            if (coloured) colours.resize(kept);
        }
        return scan;
    }
    tessaline_tools::refuseIrregularFile(unit.path);
    const Origin& o = settings.origin;
    const bool shifted = o[0] != 0.0 || o[1] != 0.0 || o[2] != 0.0;
    std::vector<std::size_t> kept;
    std::size_t seen = 0;
    tessaline_tools::PointCloudReadInfo info;
    tessaline_tools::FrameExtras extras;
    auto frame = tessaline_tools::readPlyPointCloudWithin(
        unit.path, settings.to_mm, settings.scale_code, info, &extras, [&](Vec3f& p, std::size_t index) {
            ++seen;
            if (shifted)  // as the reader takes the run's origin off
                for (int k = 0; k < 3; ++k) p[k] = static_cast<float>(static_cast<double>(p[k]) - o[k]);
            if (!finite(p) || !within(p)) return false;
            kept.push_back(index);
            return true;
        });
    if (shifted)
        for (int k = 0; k < 3; ++k) extras.sensor_position[k] -= o[k];
    if (settings.explicit_code)
        for (auto& w : frame->w) w = (w & ~0xFF) | settings.scale_code;
    tessaline_tools::ScanInput scan;
    scan.add(std::move(frame), std::move(extras));
    if (!settings.normals_dir.empty() && scan.missingNormals())
        readNormalsAt(unit, settings.normals_dir, kept, seen, scan);
    return scan;
}

// The first pass: what the plan needs of each frame of a unit. Its point count (all points, as the engine
// counts them for its origin's sample), the box of its finite points, whether it came with normals and
// colours, its pose and its markers.
// A numpy array of `values`, shaped (values / width, width) where width > 1.
template <typename T>
py::array_t<T> arrayOf(const std::vector<T>& values, std::size_t width = 1) {
    if (width == 1) return py::array_t<T>(static_cast<py::ssize_t>(values.size()), values.data());
    return py::array_t<T>({static_cast<py::ssize_t>(values.size() / width), static_cast<py::ssize_t>(width)},
                          values.data());
}

// What the plan needs of each frame of a batch of units, as a few arrays over all their frames in order
// (a worker then makes a handful of objects a batch, not some thirty a file, whose scattered leftovers
// kept the workers' heaps growing with the files): each unit's frame count; each frame's point count,
// finite points, box, points and usable points by code as chooseScaleCodes sees them, normals and colours
// given or not, scanner position known or not; and the markers: each frame's count, then the markers of
// all frames together, with each frame's pose.
py::dict measureUnits(const std::vector<UnitTuple>& units, float to_mm, int scale_code, bool explicit_code,
                      const Origin& origin, const std::string& normals_dir) {
    std::vector<std::int64_t> frames, counts, finite_counts, seen, codes, marker_counts;
    std::vector<double> lo, hi, rotation, translation;
    std::vector<std::uint8_t> normals, colours, sensors;
    std::vector<std::int32_t> marker_ids;
    std::vector<float> marker_xyz, marker_nor;
    {
        py::gil_scoped_release release;
        const ReadSettings settings = readSettings(to_mm, scale_code, explicit_code, origin, normals_dir);
        for (const UnitTuple& unit : units) {
            const tessaline_tools::ScanInput scan = readUnit(unitOf(unit), settings);
            frames.push_back(static_cast<std::int64_t>(scan.frames.size()));
            for (std::size_t f = 0; f < scan.frames.size(); ++f) {
                const FrameDataWithInfo& frame = *scan.frames[f];
                counts.push_back(static_cast<std::int64_t>(frame.xyz.size()));
                std::int64_t finite_points = 0;
                float a[3] = {INFINITY, INFINITY, INFINITY}, b[3] = {-INFINITY, -INFINITY, -INFINITY};
                for (const Vec3f& p : frame.xyz) {
                    if (!finite(p)) continue;
                    ++finite_points;
                    for (int k = 0; k < 3; ++k) {
                        a[k] = std::min(a[k], p[k]);
                        b[k] = std::max(b[k], p[k]);
                    }
                }
                finite_counts.push_back(finite_points);
                lo.insert(lo.end(), a, a + 3);
                hi.insert(hi.end(), b, b + 3);
                std::size_t coded[7];
                seen.push_back(static_cast<std::int64_t>(spacingPointsOf(frame, coded)));
                for (std::size_t c : coded) codes.push_back(static_cast<std::int64_t>(c));
                const tessaline_tools::FrameExtras& extras = scan.extras[f];
                normals.push_back(extras.normals ? 1 : 0);
                colours.push_back(!extras.colours.empty() && extras.colours.size() == frame.xyz.size() ? 1 : 0);
                sensors.push_back(extras.sensor ? 1 : 0);
                marker_counts.push_back(static_cast<std::int64_t>(frame.marker_ids.size()));
                marker_ids.insert(marker_ids.end(), frame.marker_ids.begin(), frame.marker_ids.end());
                for (const Vec3f& m : frame.marker_xyz) marker_xyz.insert(marker_xyz.end(), m.begin(), m.end());
                for (const Vec3f& m : frame.marker_nor) marker_nor.insert(marker_nor.end(), m.begin(), m.end());
                rotation.insert(rotation.end(), frame.frame_info.rotation, frame.frame_info.rotation + 9);
                translation.insert(translation.end(), frame.frame_info.translation, frame.frame_info.translation + 3);
            }
        }
    }
    py::dict out;
    out["frames"] = arrayOf(frames);
    out["counts"] = arrayOf(counts);
    out["finite"] = arrayOf(finite_counts);
    out["lo"] = arrayOf(lo, 3);
    out["hi"] = arrayOf(hi, 3);
    out["seen"] = arrayOf(seen);
    out["codes"] = arrayOf(codes, 7);
    out["normals"] = arrayOf(normals).attr("astype")("bool");
    out["colours"] = arrayOf(colours).attr("astype")("bool");
    out["sensors"] = arrayOf(sensors).attr("astype")("bool");
    out["marker_counts"] = arrayOf(marker_counts);
    out["marker_ids"] = arrayOf(marker_ids);
    out["marker_xyz"] = arrayOf(marker_xyz, 3);
    out["marker_nor"] = arrayOf(marker_nor, 3);
    out["rotation"] = arrayOf(rotation, 9);
    out["translation"] = arrayOf(translation, 3);
    return out;
}

py::array_t<float> pointArray(const std::vector<Vec3f>& points) {
    py::array_t<float> out({static_cast<py::ssize_t>(points.size()), py::ssize_t(3)});
    if (!points.empty()) std::copy(points[0].data(), points[0].data() + 3 * points.size(), out.mutable_data());
    return out;
}

std::vector<Vec3f> pointsOf(const py::array_t<float, py::array::c_style | py::array::forcecast>& a) {
    std::vector<Vec3f> points(a.ndim() == 2 ? static_cast<std::size_t>(a.shape(0)) : 0);
    if (!points.empty()) std::copy(a.data(), a.data() + 3 * points.size(), points[0].data());
    return points;
}

// Resolution auto, the samples of a batch of units (in the run's order): the grid's (every `grid_step`-th
// point of all the run's points, where usable) and the measured points (every `stride`-th usable point);
// `seen_first` and `usable_first` are the places of the first unit's first point among them. With the
// samples, the k nearest squared distances of the batch's measured points among the usable points of the
// batch's own units: a first answer, whose k-th bounds how far the rest of the scan needs searching.
std::tuple<py::array_t<float>, py::array_t<float>, py::array_t<float>> spacingSamplesUnits(
    const std::vector<UnitTuple>& units, float to_mm, int scale_code, bool explicit_code, const Origin& origin,
    const std::string& normals_dir, std::uint64_t seen_first, std::uint64_t usable_first, std::uint64_t grid_step,
    std::uint64_t stride, std::size_t k) {
    std::vector<Vec3f> grid_sample, measured;
    std::vector<float> squared;
    int status = 0;
    {
        py::gil_scoped_release release;
        std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
        const ReadSettings settings = readSettings(to_mm, scale_code, explicit_code, origin, normals_dir);
        for (const UnitTuple& unit : units) {
            tessaline_tools::ScanInput scan = readUnit(unitOf(unit), settings);
            for (const auto& frame : scan.frames) {
                std::size_t coded[7];
                const std::size_t seen = spacingPointsOf(*frame, coded);
                spacingSamplesOf(*frame, seen_first, usable_first, grid_step, stride, grid_sample, measured);
                seen_first += seen;
                for (const std::size_t c : coded) usable_first += c;
                frames.push_back(frame);
            }
        }
        if (k > 0) status = nearestSquaredDistances(frames, measured, k, squared);
    }
    if (status != 0)
        throw std::runtime_error("measuring the point spacing failed with status " + std::to_string(status));
    py::array_t<float> out({static_cast<py::ssize_t>(measured.size()), static_cast<py::ssize_t>(k)});
    std::copy(squared.begin(), squared.end(), out.mutable_data());
    return {pointArray(grid_sample), pointArray(measured), out};
}

// Resolution auto: the k nearest squared distances of each query among the usable points of a batch of
// units (the plan keeps the k smallest over all batches).
py::array_t<float> nearestUnits(const std::vector<UnitTuple>& units, float to_mm, int scale_code, bool explicit_code,
                                const Origin& origin, const std::string& normals_dir,
                                py::array_t<float, py::array::c_style | py::array::forcecast> q, std::size_t k) {
    const std::vector<Vec3f> queries = pointsOf(q);
    std::vector<float> squared;
    int status = 0;
    {
        py::gil_scoped_release release;
        std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
        const ReadSettings settings = readSettings(to_mm, scale_code, explicit_code, origin, normals_dir);
        for (const UnitTuple& unit : units) {
            const tessaline_tools::ScanInput scan = readUnit(unitOf(unit), settings);
            frames.insert(frames.end(), scan.frames.begin(), scan.frames.end());
        }
        status = nearestSquaredDistances(frames, queries, k, squared);
    }
    if (status != 0)
        throw std::runtime_error("measuring the point spacing failed with status " + std::to_string(status));
    py::array_t<float> out({static_cast<py::ssize_t>(queries.size()), static_cast<py::ssize_t>(k)});
    std::copy(squared.begin(), squared.end(), out.mutable_data());
    return out;
}

// The engine's sample for its own run origin, of one unit: the finite points whose index among all points
// of the run (frame after frame, `first` the index of this unit's first point) is a multiple of `stride`.
py::array_t<double> sampleUnit(const UnitTuple& unit, float to_mm, int scale_code, bool explicit_code,
                               const Origin& origin, const std::string& normals_dir, std::uint64_t first,
                               std::uint64_t stride) {
    std::vector<double> sample;
    {
        py::gil_scoped_release release;
        const tessaline_tools::ScanInput scan =
            readUnit(unitOf(unit), readSettings(to_mm, scale_code, explicit_code, origin, normals_dir));
        std::uint64_t index = first;
        for (const auto& frame : scan.frames)
            for (const Vec3f& p : frame->xyz) {
                if (index++ % stride != 0 || !finite(p)) continue;
                for (int k = 0; k < 3; ++k) sample.push_back(static_cast<double>(p[k]));
            }
    }
    py::array_t<double> out({static_cast<py::ssize_t>(sample.size() / 3), py::ssize_t(3)});
    std::copy(sample.begin(), sample.end(), out.mutable_data());
    return out;
}

// The engine's own run origin from its sample (Tessaline::setRunOrigin: 0 within 16384 resolutions of the
// origin, otherwise a whole number of blocks near the median), computed as the engine computes it.
Origin chooseRunOrigin(py::array_t<double, py::array::c_style | py::array::forcecast> sample, float resolution,
                       std::uint32_t block_size) {
    Origin origin = {0.0, 0.0, 0.0};
    const auto n = static_cast<std::size_t>(sample.ndim() == 2 ? sample.shape(0) : 0);
    if (n == 0) return origin;
    const double near = 16384.0 * static_cast<double>(resolution);
    const double block = static_cast<double>(block_size) * static_cast<double>(resolution);
    const double grid = static_cast<double>(1u << 30) * (static_cast<double>(resolution) / 8.0);
    for (int k = 0; k < 3; ++k) {
        std::vector<double> v(n);
        for (std::size_t i = 0; i < n; ++i) v[i] = sample.data()[3 * i + static_cast<std::size_t>(k)];
        std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(n / 2), v.end());
        const double middle = v[n / 2];
        if (std::fabs(middle) <= near || std::fabs(middle) > grid) continue;
        origin[static_cast<std::size_t>(k)] = std::round(middle / block) * block;
    }
    return origin;
}

// The block edge in resolutions that the engine takes by default at `resolution`.
std::uint32_t engineBlockSize(float resolution) {
    Tessaline engine;
    engine.setDiagnosticSink([](const std::string&, bool) {});
    if (engine.init() != 0) throw std::runtime_error("the engine cannot start: " + engine.getLastErrorMsg());
    engine.setResolution(resolution);
    const std::string error = engine.getLastErrorMsg();
    const std::uint32_t size = engine.getBlockSize();
    engine.deInit();
    if (error != "no error!") throw std::runtime_error("resolution refused: " + error);
    return size;
}

// The frames (places in the run's order) that the optimized markers leave out. The engine's filter reads a
// frame's pose and markers alone, never its points: it is run here on frames of one point each, restricted
// to the block of that point, and its line naming the frames is read.
std::vector<std::size_t> framesLeftOutByMarkers(const std::string& markers_file, float to_mm, const py::list& frames) {
    MarkerInfos markers = tessaline_tools::readOptimizedMarkers(markers_file, to_mm);
    std::vector<std::shared_ptr<FrameDataWithInfo>> held;
    for (const py::handle item : frames) {
        auto frame = std::make_shared<FrameDataWithInfo>();
        frame->xyz = {Vec3f{1.0f, 1.0f, 1.0f}};
        frame->nor = {Vec3f{0.0f, 0.0f, 1.0f}};
        frame->w = {8};
        if (!item.is_none()) {
            const py::dict m = py::reinterpret_borrow<py::dict>(item);
            const auto ids = m["ids"].cast<py::array_t<std::int32_t, py::array::forcecast>>();
            const auto xyz = m["xyz"].cast<py::array_t<float, py::array::c_style | py::array::forcecast>>();
            const auto nor = m["nor"].cast<py::array_t<float, py::array::c_style | py::array::forcecast>>();
            const auto rotation = m["rotation"].cast<py::array_t<double, py::array::forcecast>>();
            const auto translation = m["translation"].cast<py::array_t<double, py::array::forcecast>>();
            frame->marker_ids.assign(ids.data(), ids.data() + ids.size());
            for (py::ssize_t i = 0; i < xyz.shape(0); ++i)
                frame->marker_xyz.push_back({xyz.at(i, 0), xyz.at(i, 1), xyz.at(i, 2)});
            for (py::ssize_t i = 0; i < nor.shape(0); ++i)
                frame->marker_nor.push_back({nor.at(i, 0), nor.at(i, 1), nor.at(i, 2)});
            std::copy(rotation.data(), rotation.data() + 9, frame->frame_info.rotation);
            std::copy(translation.data(), translation.data() + 3, frame->frame_info.translation);
        }
        held.push_back(std::move(frame));
    }
    std::vector<std::size_t> left_out;
    bool named = false;
    std::string error;
    int status = 0;
    {
        py::gil_scoped_release release;
        Tessaline engine;
        engine.setDiagnosticSink([&](const std::string& line, bool) {
            if (tessaline_tools::noteFramesLeftOut(line, left_out)) named = true;
        });
        status = engine.init();
        if (status == 0) status = engine.setRunOrigin({0.0, 0.0, 0.0});
        if (status == 0) status = engine.setOwnedBlocks({BlockKey{0, 0, 0}});
        if (status == 0) status = engine.setOptimizedMarkers(markers);
        for (const auto& frame : held)
            if (status == 0) status = engine.addScanFrame_ALL(frame);
        std::vector<MeshPart> parts;
        if (status == 0) status = engine.processParts(parts);
        error = engine.getLastErrorMsg();
        engine.deInit();
    }
    // Every frame left out ends the run without points; the line has named them by then.
    if (status != 0 && !named)
        throw std::runtime_error(markers_file +
                                 ": measuring the frames against the optimized markers failed: " + error);
    return left_out;
}

std::int32_t gridIndex(float value, float cell) {
    float q = value / cell;
    if (q < 0.0f) q = q - 1.0f;
    if (!(q > -2147483648.0f && q < 2147483648.0f)) return q > 0.0f ? INT32_MAX : INT32_MIN;
    return static_cast<std::int32_t>(q);
}

// A position relative to the run origin, as the engine takes it (double precision, then one rounding).
float relative(float v, double origin) {
    return origin == 0.0 ? v : static_cast<float>(static_cast<double>(v) - origin);
}

// The blocks whose region, widened by `reach`, meets the box [lo, hi] of each frame: every block that a
// run could give triangles, a few to spare. Sorted by key.
py::array_t<std::int32_t> candidateBlocks(py::array_t<double, py::array::c_style | py::array::forcecast> lo,
                                          py::array_t<double, py::array::c_style | py::array::forcecast> hi,
                                          const Origin& origin, float block_res, float reach) {
    std::vector<BlockKey> keys;
    const auto n = lo.ndim() == 2 ? lo.shape(0) : 0;
    for (py::ssize_t f = 0; f < n; ++f) {
        std::int32_t a[3], b[3];
        bool box = true;
        for (int k = 0; k < 3; ++k) {
            const float l = static_cast<float>(lo.at(f, k)), h = static_cast<float>(hi.at(f, k));
            if (!(l <= h)) box = false;
            a[k] = gridIndex(relative(l, origin[static_cast<std::size_t>(k)]) - reach, block_res);
            b[k] = gridIndex(relative(h, origin[static_cast<std::size_t>(k)]) + reach, block_res);
        }
        if (!box) continue;
        for (std::int32_t x = a[0]; x <= b[0]; ++x)
            for (std::int32_t y = a[1]; y <= b[1]; ++y)
                for (std::int32_t z = a[2]; z <= b[2]; ++z) keys.push_back(BlockKey{x, y, z});
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    py::array_t<std::int32_t> out({static_cast<py::ssize_t>(keys.size()), py::ssize_t(3)});
    for (std::size_t i = 0; i < keys.size(); ++i) {
        out.mutable_data()[3 * i] = keys[i].x;
        out.mutable_data()[3 * i + 1] = keys[i].y;
        out.mutable_data()[3 * i + 2] = keys[i].z;
    }
    return out;
}

// The keys of the blocks whose region, widened by `reach`, meets each frame's box: (F, 6), lowest x, y, z
// then highest; a frame without a finite point gets an empty range (lowest above highest).
py::array_t<std::int32_t> frameBlockRanges(py::array_t<double, py::array::c_style | py::array::forcecast> lo,
                                           py::array_t<double, py::array::c_style | py::array::forcecast> hi,
                                           const Origin& origin, float block_res, float reach) {
    const auto n = lo.ndim() == 2 ? lo.shape(0) : 0;
    py::array_t<std::int32_t> out({n, py::ssize_t(6)});
    auto r = out.mutable_unchecked<2>();
    for (py::ssize_t f = 0; f < n; ++f)
        for (int k = 0; k < 3; ++k) {
            const float l = static_cast<float>(lo.at(f, k)), h = static_cast<float>(hi.at(f, k));
            const bool box = l <= h;
            r(f, k) = box ? gridIndex(relative(l, origin[static_cast<std::size_t>(k)]) - reach, block_res) : 1;
            r(f, 3 + k) = box ? gridIndex(relative(h, origin[static_cast<std::size_t>(k)]) + reach, block_res) : 0;
        }
    return out;
}

struct KeyHash {
    std::size_t operator()(const BlockKey& k) const {
        return (static_cast<std::size_t>(static_cast<std::uint32_t>(k.x)) * 73856093u) ^
               (static_cast<std::size_t>(static_cast<std::uint32_t>(k.y)) * 19349663u) ^
               (static_cast<std::size_t>(static_cast<std::uint32_t>(k.z)) * 83492791u);
    }
};

constexpr char PART_MAGIC[8] = {'T', 'S', 'L', 'P', 'A', 'R', 'T', '1'};

std::string partName(const BlockKey& k) {
    char name[96];
    std::snprintf(name, sizeof(name), "part_%d_%d_%d.bin", k.x, k.y, k.z);
    return name;
}

// Writes one block's triangles whole or not at all: into a temporary file, renamed into place, so that a
// task run again after its worker died finds either nothing or the same complete part.
void writePart(const std::string& folder, const MeshPart& part) {
    const std::string path = folder + "/" + partName(part.block);
    const std::string temporary = path + ".tmp" + std::to_string(getpid());
    std::ofstream out(temporary, std::ios::binary);
    const std::int32_t key[3] = {part.block.x, part.block.y, part.block.z};
    const std::uint64_t n = part.mesh.xyz.size();
    out.write(PART_MAGIC, 8);
    out.write(reinterpret_cast<const char*>(key), sizeof(key));
    out.write(reinterpret_cast<const char*>(&n), sizeof(n));
    out.write(reinterpret_cast<const char*>(part.mesh.xyz.data()),
              static_cast<std::streamsize>(n * sizeof(TriangleXYZ)));
    out.write(reinterpret_cast<const char*>(part.mesh.w.data()), static_cast<std::streamsize>(n * sizeof(TriangleW)));
    out.close();
    if (!out || std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        throw std::runtime_error(path + ": cannot write the mesh part");
    }
}

// Appends the triangles of a part file to `soup`.
void readPart(const std::string& path, MultiMeshData& soup) {
    std::ifstream in(path, std::ios::binary);
    char magic[8];
    std::int32_t key[3];
    std::uint64_t n = 0;
    in.read(magic, 8);
    in.read(reinterpret_cast<char*>(key), sizeof(key));
    in.read(reinterpret_cast<char*>(&n), sizeof(n));
    if (!in || std::string(magic, 8) != std::string(PART_MAGIC, 8))
        throw std::runtime_error(path + ": not a mesh part of this run");
    in.seekg(0, std::ios::end);
    const std::uint64_t size = static_cast<std::uint64_t>(in.tellg());
    if (size != 8 + sizeof(key) + sizeof(n) + n * (sizeof(TriangleXYZ) + sizeof(TriangleW)))
        throw std::runtime_error(path + ": a mesh part of the wrong size (cut short?)");
    in.seekg(8 + sizeof(key) + sizeof(n));
    const std::size_t at = soup.xyz.size();
    soup.xyz.resize(at + n);
    soup.w.resize(at + n);
    in.read(reinterpret_cast<char*>(soup.xyz.data() + at), static_cast<std::streamsize>(n * sizeof(TriangleXYZ)));
    in.read(reinterpret_cast<char*>(soup.w.data() + at), static_cast<std::streamsize>(n * sizeof(TriangleW)));
    if (!in) throw std::runtime_error(path + ": cannot read the mesh part");
}

// One tile: the owned blocks' triangles from the units that may reach them, each frame's points that reach
// the blocks the run computes (the owned ones and their neighbours on the high side) within `reach`, in the
// run's frame order; frames that the plan left out (`skip`: per unit, the places of its frames) stay out.
// The parts go to `folder`, one file a block with triangles; returns their keys and triangle counts.
std::vector<std::pair<std::array<std::int32_t, 3>, std::size_t>> runTile(
    const std::vector<UnitTuple>& units, const std::vector<std::vector<std::size_t>>& skip, float to_mm, int scale_code,
    bool explicit_code, const Origin& geo_origin, const std::string& normals_dir, float resolution,
    const Origin& run_origin, std::uint32_t block_size,
    py::array_t<std::int32_t, py::array::c_style | py::array::forcecast> owned, float reach, const std::string& folder,
    const py::object& codes) {
    // Resolution auto: (grid origin, 1 / grid edge, c_max, margin): the codes are set from the points that
    // reach the blocks within reach + margin, before those within reach go to the engine.
    bool automatic = !codes.is_none();
    ScaleCodeGrid code_grid;
    int finest_tenth = 8;
    float margin = 0.0f;
    if (automatic) {
        const auto t = codes.cast<std::tuple<Origin, double, int, float>>();
        for (int k = 0; k < 3; ++k) code_grid.origin[k] = std::get<0>(t)[static_cast<std::size_t>(k)];
        code_grid.per_edge = std::get<1>(t);
        finest_tenth = std::get<2>(t);
        margin = std::get<3>(t);
    }
    std::vector<BlockKey> blocks;
    for (py::ssize_t i = 0; i < owned.shape(0); ++i) blocks.push_back({owned.at(i, 0), owned.at(i, 1), owned.at(i, 2)});
    std::vector<std::pair<std::array<std::int32_t, 3>, std::size_t>> written;
    py::gil_scoped_release release;
    std::unordered_set<BlockKey, KeyHash> computed;
    for (const BlockKey& b : blocks)
        for (int d = 0; d < 8; ++d)
            computed.insert(BlockKey{b.x + (d & 1), b.y + ((d >> 1) & 1), b.z + ((d >> 2) & 1)});
    const float block_res = static_cast<float>(block_size) * resolution;
    const auto reaches = [&](const Vec3f& p, float within) {
        std::int32_t lo[3], hi[3];
        for (int k = 0; k < 3; ++k) {
            const float r = relative(p[static_cast<std::size_t>(k)], run_origin[static_cast<std::size_t>(k)]);
            lo[k] = gridIndex(r - within, block_res);
            hi[k] = gridIndex(r + within, block_res);
        }
        for (std::int32_t x = lo[0]; x <= hi[0]; ++x)
            for (std::int32_t y = lo[1]; y <= hi[1]; ++y)
                for (std::int32_t z = lo[2]; z <= hi[2]; ++z)
                    if (computed.count(BlockKey{x, y, z}) != 0) return true;
        return false;
    };

    Tessaline engine;
    engine.setDiagnosticSink([](const std::string&, bool) {});
    int status = engine.init();
    if (status != 0) throw std::runtime_error("the engine cannot start: " + engine.getLastErrorMsg());
    engine.setResolution(resolution);
    if (engine.getLastErrorMsg() != "no error!") status = 1;
    if (status == 0) status = engine.setRunOrigin(run_origin);
    if (status == 0) status = engine.setBlockSize(block_size);
    if (status == 0) status = engine.setOwnedBlocks(blocks);
    const ReadSettings settings = readSettings(to_mm, scale_code, explicit_code, geo_origin, normals_dir);
    // The frames as the tile keeps them, in the run's order; with auto, also the frames left out, whose points
    // count for the density around the others.
    std::vector<std::shared_ptr<FrameDataWithInfo>> kept_frames;
    std::vector<bool> taking_part;
    const float keep_within = automatic ? reach + margin : reach;
    for (std::size_t u = 0; u < units.size() && status == 0; ++u) {
        tessaline_tools::ScanInput scan =
            readUnitWithin(unitOf(units[u]), settings, [&](const Vec3f& p) { return reaches(p, keep_within); });
        const std::vector<std::size_t>& left_out = skip[u];
        for (std::size_t f = 0; f < scan.frames.size(); ++f) {
            const bool takes_part = std::find(left_out.begin(), left_out.end(), f) == left_out.end();
            if (!takes_part && !automatic) continue;
            const FrameDataWithInfo& in = *scan.frames[f];
            auto kept = std::make_shared<FrameDataWithInfo>();
            kept->frame_info = in.frame_info;
            for (std::size_t i = 0; i < in.xyz.size(); ++i) {
                if (!finite(in.xyz[i]) || !reaches(in.xyz[i], keep_within)) continue;
                kept->xyz.push_back(in.xyz[i]);
                kept->nor.push_back(in.nor[i]);
                kept->w.push_back(in.w[i]);
            }
            scan.frames[f].reset();
            if (!automatic) {
                if (!kept->xyz.empty()) status = engine.addScanFrame_ALL(kept);
                if (status != 0) break;
                continue;
            }
            kept_frames.push_back(std::move(kept));
            taking_part.push_back(takes_part);
        }
    }
    if (automatic && status == 0) {
        if (chooseScaleCodesWithin(kept_frames, code_grid, resolution, finest_tenth) != 0)
            throw std::runtime_error("choosing the cell sizes from the points failed");
        for (std::size_t f = 0; f < kept_frames.size() && status == 0; ++f) {
            const FrameDataWithInfo& in = *kept_frames[f];
            if (!taking_part[f]) continue;
            auto inner = std::make_shared<FrameDataWithInfo>();
            inner->frame_info = in.frame_info;
            for (std::size_t i = 0; i < in.xyz.size(); ++i) {
                if (!reaches(in.xyz[i], reach)) continue;
                inner->xyz.push_back(in.xyz[i]);
                inner->nor.push_back(in.nor[i]);
                inner->w.push_back(in.w[i]);
            }
            kept_frames[f].reset();
            if (!inner->xyz.empty()) status = engine.addScanFrame_ALL(inner);
        }
    }
    std::vector<MeshPart> parts;
    if (status == 0) status = engine.processParts(parts);
    if (status != 0) {
        const std::string error = engine.getLastErrorMsg();
        engine.deInit();
        throw std::runtime_error("the run of its blocks failed with status " + std::to_string(status) + ": " + error);
    }
    engine.deInit();
    for (const MeshPart& part : parts) {
        writePart(folder, part);
        written.push_back({{part.block.x, part.block.y, part.block.z}, part.mesh.xyz.size()});
    }
    return written;
}

// Normals for frames that came without them, as estimateNormals makes them over the whole scan: the passes
// that measure its grid and reach (each over one unit), and the task that makes one unit's normals.

// Calls `visit` with every finite point of a unit, frame after frame, and its place among them.
template <class Visit>
void forFinite(const tessaline_tools::ScanInput& scan, Visit visit) {
    std::uint64_t index = 0;
    for (const auto& frame : scan.frames)
        for (const Vec3f& p : frame->xyz)
            if (finite(p)) visit(p, index++);
}

// The guess's sample of one unit: its finite points whose place among all finite points (`first` that of
// its first) is a multiple of `step`.
py::array_t<float> normalGuessSampleUnit(const UnitTuple& unit, float to_mm, int scale_code, bool explicit_code,
                                         const Origin& origin, std::uint64_t first, std::uint64_t step) {
    std::vector<Vec3f> sample;
    {
        py::gil_scoped_release release;
        const auto scan = readUnit(unitOf(unit), readSettings(to_mm, scale_code, explicit_code, origin, ""));
        forFinite(scan, [&](const Vec3f& p, std::uint64_t i) {
            if ((first + i) % step == 0) sample.push_back(p);
        });
    }
    return pointArray(sample);
}

std::vector<Vec3f> finitePoints(const tessaline_tools::ScanInput& scan) {
    std::vector<Vec3f> points;
    forFinite(scan, [&](const Vec3f& p, std::uint64_t) { points.push_back(p); });
    return points;
}

// The cells (codes, ascending) that the first sort puts a unit's finite points into, and how many each.
std::pair<py::array_t<std::uint64_t>, py::array_t<std::int64_t>> normalCellCountsUnit(
    const UnitTuple& unit, float to_mm, int scale_code, bool explicit_code, const Origin& origin,
    const Origin& grid_origin, double edge) {
    std::vector<std::uint64_t> codes;
    {
        py::gil_scoped_release release;
        const auto scan = readUnit(unitOf(unit), readSettings(to_mm, scale_code, explicit_code, origin, ""));
        normalCellCodes(finitePoints(scan), grid_origin, edge, codes);
        std::sort(codes.begin(), codes.end());
    }
    std::vector<std::uint64_t> cells;
    std::vector<std::int64_t> counts;
    for (std::size_t i = 0; i < codes.size(); ++i) {
        if (i == 0 || codes[i] != codes[i - 1]) {
            cells.push_back(codes[i]);
            counts.push_back(0);
        }
        ++counts.back();
    }
    return {py::array_t<std::uint64_t>(static_cast<py::ssize_t>(cells.size()), cells.data()),
            py::array_t<std::int64_t>(static_cast<py::ssize_t>(counts.size()), counts.data())};
}

// The points of a unit that the reach is measured on: for each query, the `ordinal`-th of its finite points
// (in their order) in the cell of code `code`.
py::array_t<float> normalPickUnit(const UnitTuple& unit, float to_mm, int scale_code, bool explicit_code,
                                  const Origin& origin, const Origin& grid_origin, double edge,
                                  const std::vector<std::uint64_t>& codes, const std::vector<std::int64_t>& ordinals) {
    std::vector<Vec3f> picked(codes.size(), Vec3f{NAN, NAN, NAN});
    {
        py::gil_scoped_release release;
        const auto scan = readUnit(unitOf(unit), readSettings(to_mm, scale_code, explicit_code, origin, ""));
        const std::vector<Vec3f> points = finitePoints(scan);
        std::vector<std::uint64_t> cell;
        normalCellCodes(points, grid_origin, edge, cell);
        // The queries by (code, ordinal), and the points seen so far of each cell asked for.
        std::vector<std::size_t> order(codes.size());
        for (std::size_t q = 0; q < order.size(); ++q) order[q] = q;
        std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
            return codes[a] != codes[b] ? codes[a] < codes[b] : ordinals[a] < ordinals[b];
        });
        std::vector<std::uint64_t> asked;
        for (const std::size_t q : order)
            if (asked.empty() || asked.back() != codes[q]) asked.push_back(codes[q]);
        std::vector<std::int64_t> seen(asked.size(), 0);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const auto it = std::lower_bound(asked.begin(), asked.end(), cell[i]);
            if (it == asked.end() || *it != cell[i]) continue;
            const std::int64_t ordinal = seen[static_cast<std::size_t>(it - asked.begin())]++;
            // The queries of this cell and ordinal (usually none or one).
            const auto first = std::lower_bound(order.begin(), order.end(), std::make_pair(cell[i], ordinal),
                                                [&](std::size_t q, const std::pair<std::uint64_t, std::int64_t>& key) {
                                                    return std::make_pair(codes[q], ordinals[q]) < key;
                                                });
            for (auto at = first; at != order.end() && codes[*at] == cell[i] && ordinals[*at] == ordinal; ++at)
                picked[*at] = points[i];
        }
    }
    for (const Vec3f& p : picked)
        if (!finite(p)) throw std::runtime_error(std::get<1>(unit) + ": a point of the reach's sample is missing");
    return pointArray(picked);
}

// For each query, the `count` smallest squared distances to the finite points of a batch of units in the
// cells that the reach's search looks at.
py::array_t<float> normalReachUnits(const std::vector<UnitTuple>& units, float to_mm, int scale_code,
                                    bool explicit_code, const Origin& origin,
                                    py::array_t<float, py::array::c_style | py::array::forcecast> q,
                                    const Origin& grid_origin, double edge, int count) {
    const std::vector<Vec3f> queries = pointsOf(q);
    std::vector<float> squared;
    int status = 0;
    {
        py::gil_scoped_release release;
        std::vector<Vec3f> points;
        for (const UnitTuple& unit : units) {
            const auto scan = readUnit(unitOf(unit), readSettings(to_mm, scale_code, explicit_code, origin, ""));
            forFinite(scan, [&](const Vec3f& p, std::uint64_t) { points.push_back(p); });
        }
        status = normalReachDistances(points, queries, grid_origin, edge, count, squared);
    }
    if (status != 0)
        throw std::runtime_error("measuring the normals' reach failed with status " + std::to_string(status));
    py::array_t<float> out({static_cast<py::ssize_t>(queries.size()), static_cast<py::ssize_t>(count)});
    std::copy(squared.begin(), squared.end(), out.mutable_data());
    return out;
}

// The normals of the frames of `units[target]` that came without them, from its points and the finite points
// of the other units within the box [lo, hi] (the unit's box widened by the reach), all in the run's order;
// written to `folder`. `sensor` (millimetres, the geo-referenced origin taken off) for frames whose files do
// not say where their scanner stood, when given. Returns (points estimated, faced toward the scanner).
std::pair<std::size_t, std::size_t> makeNormalsUnit(const std::vector<UnitTuple>& units, std::size_t target,
                                                    float to_mm, int scale_code, bool explicit_code,
                                                    const Origin& origin,
                                                    const std::tuple<Origin, double, double, double>& grid_figures,
                                                    const Origin& lo, const Origin& hi, bool sensor_given,
                                                    const Origin& sensor, const std::string& folder) {
    py::gil_scoped_release release;
    NormalGrid grid;
    grid.origin = std::get<0>(grid_figures);
    grid.first_edge = std::get<1>(grid_figures);
    grid.edge = std::get<2>(grid_figures);
    grid.reach = std::get<3>(grid_figures);
    const ReadSettings settings = readSettings(to_mm, scale_code, explicit_code, origin, "");
    tessaline_tools::ScanInput own;
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
    std::vector<FrameNormalSource> sources;
    for (std::size_t u = 0; u < units.size(); ++u) {
        if (u == target) {
            own = readUnit(unitOf(units[u]), settings);
            for (std::size_t f = 0; f < own.frames.size(); ++f) {
                const tessaline_tools::FrameExtras& extras = own.extras[f];
                FrameNormalSource source;
                source.estimate = !extras.normals;
                source.sensor_known = extras.sensor || sensor_given;
                if (source.sensor_known) source.sensor = extras.sensor ? extras.sensor_position : sensor;
                if (source.estimate && !source.sensor_known)
                    throw std::runtime_error(extras.source + ": points without normals and no scanner position");
                frames.push_back(own.frames[f]);
                sources.push_back(source);
            }
            continue;
        }
        const auto inside_box = [&](const Vec3f& p) {
            for (int k = 0; k < 3; ++k)
                if (!(p[k] >= lo[static_cast<std::size_t>(k)] && p[k] <= hi[static_cast<std::size_t>(k)])) return false;
            return true;
        };
        const tessaline_tools::ScanInput scan = readUnitWithin(unitOf(units[u]), settings, inside_box);
        auto near = std::make_shared<FrameDataWithInfo>();
        for (const auto& frame : scan.frames)
            for (const Vec3f& p : frame->xyz) {
                bool inside = finite(p);
                for (int k = 0; k < 3 && inside; ++k) inside = p[k] >= lo[k] && p[k] <= hi[k];
                if (!inside) continue;
                near->xyz.push_back(p);
                near->nor.push_back(Vec3f{0.0f, 0.0f, 0.0f});
                near->w.push_back(8);
            }
        if (near->xyz.empty()) continue;
        FrameNormalSource source;
        source.estimate = false;
        frames.push_back(std::move(near));
        sources.push_back(source);
    }
    NormalEstimate estimate;
    const int status = estimateNormalsWithin(frames, sources, grid, estimate);
    if (status != 0)
        throw std::runtime_error(std::get<1>(units[target]) + ": estimating the normals failed with status " +
                                 std::to_string(status));
    writeNormals(unitOf(units[target]), folder, own);
    return {estimate.points, estimate.toward_sensor};
}

[[noreturn]] void meshFailure(const std::string& what, int status) {
    std::string text = what + " failed with status " + std::to_string(status);
    if (status == TESSALINE_OUT_OF_MEMORY) text += ": memory ran out; lower the resolution or raise the memory limit";
    throw std::runtime_error(text);
}

// The last step, as `tessaline reconstruct` finishes its soup: the parts in key order (`parts`, sorted by
// the caller) welded at a ten-thousandth of the resolution one after another (MeshWelder: the weld of the
// whole soup, without holding it), small pieces removed, small holes filled, the
// vertices coloured from the coloured points of `coloured` units (read again, in the run's order), scaled
// to the input's unit and written with the geo-referenced origin added back. Returns the mesh's figures;
// an empty mesh is not written.
py::dict mergeParts(const std::vector<std::string>& parts, float resolution, std::size_t min_piece,
                    std::size_t fill_holes, const std::vector<UnitTuple>& coloured, float to_mm, int scale_code,
                    bool explicit_code, const Origin& geo_origin, const std::string& normals_dir,
                    const std::string& output) {
    MeshStatistics statistics;
    std::size_t degenerate = 0, removed = 0, filled = 0;
    {
        py::gil_scoped_release release;
        IndexedMesh mesh;
        {
            // A part at a time: read, welded onto those before it, dropped (its room kept for the next).
            MeshWelder welder(resolution * 1e-4f);
            MultiMeshData part;
            for (const std::string& path : parts) {
                part.xyz.clear();
                part.w.clear();
                readPart(path, part);
                const int status = welder.add(part);
                if (status != 0) meshFailure("welding the mesh (" + path + ")", status);
            }
            part = MultiMeshData();
            const int status = welder.finish(mesh, &degenerate);
            if (status != 0) meshFailure("welding the mesh", status);
        }
        int status = removeSmallPieces(mesh, min_piece, &removed);
        if (status == 0) status = fillSmallHoles(mesh, fill_holes, &filled);
        if (status == 0) status = describeMesh(mesh, statistics);
        if (status != 0) meshFailure("finishing the mesh", status);
        if (!coloured.empty() && statistics.triangles > 0) {
            std::vector<Vec3f> points;
            std::vector<Rgb> colours;
            const ReadSettings settings = readSettings(to_mm, scale_code, explicit_code, geo_origin, normals_dir);
            for (const UnitTuple& unit : coloured) {
                const tessaline_tools::ScanInput scan = readUnit(unitOf(unit), settings);
                for (std::size_t f = 0; f < scan.frames.size(); ++f) {
                    const auto& c = scan.extras[f].colours;
                    if (c.size() != scan.frames[f]->xyz.size()) continue;
                    points.insert(points.end(), scan.frames[f]->xyz.begin(), scan.frames[f]->xyz.end());
                    colours.insert(colours.end(), c.begin(), c.end());
                }
            }
            status = colourVertices(mesh, points, colours, resolution);
            if (status != 0) meshFailure("colouring the mesh", status);
        }
        if (statistics.triangles > 0) {
            tessaline_tools::scaleMesh(mesh, 1.0f / to_mm);
            const bool shifted = geo_origin[0] != 0.0 || geo_origin[1] != 0.0 || geo_origin[2] != 0.0;
            Origin in_unit;
            for (int k = 0; k < 3; ++k)
                in_unit[static_cast<std::size_t>(k)] = geo_origin[static_cast<std::size_t>(k)] / to_mm;
            tessaline_tools::writeMesh(output, mesh, shifted ? &in_unit : nullptr);
        }
    }
    py::dict out;
    out["triangles"] = statistics.triangles;
    out["vertices"] = statistics.vertices;
    out["boundary_edges"] = statistics.boundary_edges;
    out["pieces"] = statistics.pieces;
    out["degenerate_dropped"] = degenerate;
    out["triangles_removed"] = removed;
    out["holes_filled"] = filled;
    return out;
}

}  // namespace

void bindTools(py::module_& core) {
    py::module_ m = core.def_submodule(
        "tools",
        "The program's readers, input order, global choices, runs of chosen blocks and finishing steps, "
        "for tessaline.distributed.");
    m.def("unit_to_millimetres", &tessaline_tools::unitToMillimetres, py::arg("unit"));
    m.def(
        "scan_units",
        [](const std::vector<std::string>& inputs, const std::string& output) {
            std::vector<UnitTuple> out;
            for (const ScanUnit& u : tessaline_tools::scanUnits(inputs, output))
                out.emplace_back(u.input, u.path, u.range_set);
            return out;
        },
        py::arg("inputs"), py::arg("output") = "",
        "The units of the inputs in the program's reading order: (input, path, range_set) for each .conf scan list "
        "and each point file (folders in name order, `output` left out).");
    m.def(
        "scan_origin",
        [](const std::vector<UnitTuple>& units, float to_mm) {
            std::vector<ScanUnit> list;
            for (const UnitTuple& u : units) list.push_back(unitOf(u));
            return tessaline_tools::scanOrigin(list, to_mm);
        },
        py::arg("units"), py::arg("to_mm"), "The geo-referenced origin of a run (its first LAS file's), mm.");
    m.def("markers_file_for", &tessaline_tools::markersFileFor, py::arg("inputs"), py::arg("given") = "");
    m.def("measure_units", &measureUnits, py::arg("units"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("normals_dir"));
    m.def("sample_unit", &sampleUnit, py::arg("unit"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("normals_dir"), py::arg("first"), py::arg("stride"));
    m.def("choose_run_origin", &chooseRunOrigin, py::arg("sample"), py::arg("resolution"), py::arg("block_size"));
    m.def("engine_block_size", &engineBlockSize, py::arg("resolution"));
    m.def("frames_left_out_by_markers", &framesLeftOutByMarkers, py::arg("markers_file"), py::arg("to_mm"),
          py::arg("frames"));
    m.def("candidate_blocks", &candidateBlocks, py::arg("lo"), py::arg("hi"), py::arg("origin"), py::arg("block_res"),
          py::arg("reach"));
    m.def("frame_block_ranges", &frameBlockRanges, py::arg("lo"), py::arg("hi"), py::arg("origin"),
          py::arg("block_res"), py::arg("reach"));
    m.def("part_name", [](std::int32_t x, std::int32_t y, std::int32_t z) { return partName(BlockKey{x, y, z}); });
    m.def("run_tile", &runTile, py::arg("units"), py::arg("skip"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("geo_origin"), py::arg("normals_dir"), py::arg("resolution"),
          py::arg("run_origin"), py::arg("block_size"), py::arg("owned"), py::arg("reach"), py::arg("folder"),
          py::arg("codes") = py::none());
    m.def("spacing_samples_units", &spacingSamplesUnits, py::arg("units"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("normals_dir"), py::arg("seen_first"),
          py::arg("usable_first"), py::arg("grid_step"), py::arg("stride"), py::arg("k"));
    m.def("nearest_units", &nearestUnits, py::arg("units"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("normals_dir"), py::arg("queries"), py::arg("k"));
    m.def("normal_neighbours", [] { return NormalOptions().neighbours; });
    m.def("normal_guess_step", &normalGuessStep, py::arg("finite_points"));
    m.def("normal_reach_step", &normalReachStep, py::arg("finite_points"));
    m.def(
        "normal_first_edge",
        [](py::array_t<float, py::array::c_style | py::array::forcecast> sample, std::size_t n, double extent) {
            const double guess = normalGuessFromSample(pointsOf(sample), n, NormalOptions().neighbours);
            // As estimateNormals sorts first: cells of 1.5 guesses.
            return normalCellEdge(1.5 * guess, extent);
        },
        py::arg("sample"), py::arg("finite_points"), py::arg("extent"));
    m.def(
        "normal_grid",
        [](const std::vector<double>& kth, double extent, const Origin& origin, double first_edge) {
            NormalGrid grid;
            grid.origin = origin;
            grid.first_edge = first_edge;
            normalGridFromDistances(kth, extent, NormalOptions(), grid);
            return std::make_pair(grid.edge, grid.reach);
        },
        py::arg("kth"), py::arg("extent"), py::arg("origin"), py::arg("first_edge"));
    m.def("normal_guess_sample_unit", &normalGuessSampleUnit, py::arg("unit"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("first"), py::arg("step"));
    m.def("normal_cell_counts_unit", &normalCellCountsUnit, py::arg("unit"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("grid_origin"), py::arg("edge"));
    m.def("normal_pick_unit", &normalPickUnit, py::arg("unit"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("grid_origin"), py::arg("edge"), py::arg("codes"),
          py::arg("ordinals"));
    m.def("normal_reach_units", &normalReachUnits, py::arg("units"), py::arg("to_mm"), py::arg("scale_code"),
          py::arg("explicit_code"), py::arg("origin"), py::arg("queries"), py::arg("grid_origin"), py::arg("edge"),
          py::arg("count"));
    m.def("make_normals_unit", &makeNormalsUnit, py::arg("units"), py::arg("target"), py::arg("to_mm"),
          py::arg("scale_code"), py::arg("explicit_code"), py::arg("origin"), py::arg("grid"), py::arg("lo"),
          py::arg("hi"), py::arg("sensor_given"), py::arg("sensor"), py::arg("folder"));
    m.def("spacing_grid_step", &spacingGridStep, py::arg("points_seen"));
    m.def(
        "spacing_measure_stride", [](std::size_t usable) { return spacingMeasureStride(usable); }, py::arg("usable"));
    m.def(
        "spacing_grid",
        [](py::array_t<float, py::array::c_style | py::array::forcecast> sample, std::size_t seen) {
            ScaleCodeGrid grid;
            if (spacingGridFromSample(pointsOf(sample), seen, grid) != 0)
                throw std::runtime_error("the spacing grid cannot be made");
            return std::make_pair(Origin{grid.origin[0], grid.origin[1], grid.origin[2]}, grid.per_edge);
        },
        py::arg("sample"), py::arg("points_seen"));
    m.def(
        "scale_code_choice",
        [](py::array_t<float, py::array::c_style | py::array::forcecast> squared, std::size_t k,
           const std::array<std::size_t, 7>& codes) {
            std::vector<float> flat(squared.data(), squared.data() + squared.size());
            std::size_t counted[7];
            std::copy(codes.begin(), codes.end(), counted);
            ScaleCodeChoice choice;
            if (scaleCodeChoiceFromNeighbours(flat, k, counted, choice) != 0)
                throw std::runtime_error("the point spacing cannot be measured");
            py::dict out;
            out["resolution"] = choice.resolution;
            out["scale_code"] = choice.spacing.scale_code;
            out["median"] = choice.spacing.median;
            out["density"] = choice.spacing.density;
            return out;
        },
        py::arg("squared"), py::arg("k"), py::arg("codes"));
    m.def("merge_parts", &mergeParts, py::arg("parts"), py::arg("resolution"), py::arg("min_piece"),
          py::arg("fill_holes"), py::arg("coloured"), py::arg("to_mm"), py::arg("scale_code"), py::arg("explicit_code"),
          py::arg("geo_origin"), py::arg("normals_dir"), py::arg("output"));
    m.def(
        "read_points",
        [](const std::string& path, float to_mm) {
            const tessaline_tools::ScanInput scan =
                readUnit(ScanUnit{0, path, false}, readSettings(to_mm, 8, false, Origin{0.0, 0.0, 0.0}, ""));
            py::list frames;
            for (std::size_t f = 0; f < scan.frames.size(); ++f) {
                const auto& fr = *scan.frames[f];
                const auto n = static_cast<py::ssize_t>(fr.xyz.size());
                py::dict d;
                d["points"] = py::array_t<float>({n, py::ssize_t(3)}, reinterpret_cast<const float*>(fr.xyz.data()));
                d["normals"] = scan.extras[f].normals
                                   ? py::object(py::array_t<float>({n, py::ssize_t(3)},
                                                                   reinterpret_cast<const float*>(fr.nor.data())))
                                   : py::object(py::none());
                frames.append(d);
            }
            return frames;
        },
        py::arg("path"), py::arg("to_mm") = 1.0f,
        "The frames of one point file as the program reads it: [{'points', 'normals' (None without)}].");
    m.def(
        "read_points_within",
        [](const std::string& path, float to_mm, const Origin& lo, const Origin& hi) {
            std::vector<Vec3f> points, normals;
            {
                py::gil_scoped_release release;
                const auto scan =
                    readUnitWithin(ScanUnit{0, path, false}, readSettings(to_mm, 8, false, Origin{0.0, 0.0, 0.0}, ""),
                                   [&](const Vec3f& p) {
                                       for (std::size_t k = 0; k < 3; ++k)
                                           if (!(p[k] >= lo[k] && p[k] <= hi[k])) return false;
                                       return true;
                                   });
                for (const auto& frame : scan.frames) {
                    points.insert(points.end(), frame->xyz.begin(), frame->xyz.end());
                    normals.insert(normals.end(), frame->nor.begin(), frame->nor.end());
                }
            }
            return std::make_pair(pointArray(points), pointArray(normals));
        },
        py::arg("path"), py::arg("to_mm"), py::arg("lo"), py::arg("hi"),
        "The points (and normals) of one point file within the box [lo, hi], as a tile reads them.");
}
