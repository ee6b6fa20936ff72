// Range scan reader: vertices and the range grid of a PLY range image; normals from the triangles of
// neighbouring grid pixels, which face the scanner (local +z).
#include "RangeScan.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "InOrder.h"
#include "PlyReader.h"

namespace tessaline_tools {

using SurfaceReconstruction::FrameDataWithInfo;
using SurfaceReconstruction::Vec3f;

namespace {

struct Mat3 {
    double m[3][3];
    void apply(const double in[3], double out[3]) const {
        for (int r = 0; r < 3; ++r) out[r] = m[r][0] * in[0] + m[r][1] * in[1] + m[r][2] * in[2];
    }
};

// Rotation of the conjugate of q = (qx, qy, qz, qw): the transpose of R(q).
Mat3 rotationOfConjugate(const double q[4]) {
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const double x = -q[0] / n, y = -q[1] / n, z = -q[2] / n, w = q[3] / n;
    Mat3 r;
    r.m[0][0] = 1 - 2 * (y * y + z * z);
    r.m[0][1] = 2 * (x * y - z * w);
    r.m[0][2] = 2 * (x * z + y * w);
    r.m[1][0] = 2 * (x * y + z * w);
    r.m[1][1] = 1 - 2 * (x * x + z * z);
    r.m[1][2] = 2 * (y * z - x * w);
    r.m[2][0] = 2 * (x * z - y * w);
    r.m[2][1] = 2 * (y * z + x * w);
    r.m[2][2] = 1 - 2 * (x * x + y * y);
    return r;
}

void accumulateTriangle(std::vector<double>& normals, const std::vector<float>& xyz, long a, long b, long c) {
    double u[3], v[3];
    for (int k = 0; k < 3; ++k) {
        u[k] = xyz[3 * b + k] - xyz[3 * a + k];
        v[k] = xyz[3 * c + k] - xyz[3 * a + k];
    }
    double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    if (n[2] < 0) {  // face the scanner whatever the winding of the grid
        for (double& value : n) value = -value;
    }
    for (long vertex : {a, b, c})
        for (int k = 0; k < 3; ++k) normals[3 * vertex + k] += n[k];
}

}  // namespace

std::shared_ptr<FrameDataWithInfo> readRangeImage(const std::string& ply_path, const double t[3], const double q[4],
                                                  const RangeScanOptions& options) {
    PlyReader ply(ply_path);
    const PlyElement* vertex = ply.find("vertex");
    if (vertex == nullptr) throw std::runtime_error(ply_path + ": no vertex element");
    const int x = vertex->find("x"), y = vertex->find("y"), z = vertex->find("z");
    if (x < 0 || y < 0 || z < 0) throw std::runtime_error(ply_path + ": no x, y, z properties");
    const long vertices = vertex->count;
    const long cols = ply.objInfo("num_cols", 0), rows = ply.objInfo("num_rows", 0);
    const PlyElement* grid = ply.find("range_grid");

    std::vector<float> local(static_cast<std::size_t>(vertices) * 3);
    ply.readScalars(*vertex, {x, y, z}, [&](long i, const double* p) {
        for (int k = 0; k < 3; ++k) local[static_cast<std::size_t>(3 * i + k)] = static_cast<float>(p[k]);
    });
    std::vector<long> pixel;  // vertex index of each grid pixel, -1 where none
    // The grid is used when it follows the vertices and matches the image size named in the header.
    // rows x cols is compared without forming the product, which a damaged header could overflow.
    if (grid != nullptr && grid > vertex && rows > 0 && cols > 0 && rows <= grid->count / cols &&
        grid->count == rows * cols && !grid->properties.empty() && grid->properties[0].list) {
        pixel.assign(static_cast<std::size_t>(grid->count), -1);
        ply.readRecords(*grid, [&](long i, const PlyRecord& record) {
            const std::vector<double>& entries = record.lists[0];
            if (!entries.empty() && entries[0] >= 0 && entries[0] < static_cast<double>(vertices))
                pixel[static_cast<std::size_t>(i)] = static_cast<long>(entries[0]);
        });
    }

    std::vector<double> normals(local.size(), 0.0);
    if (!pixel.empty()) {
        const auto at = [&](long r, long c) { return pixel[static_cast<std::size_t>(r * cols + c)]; };
        for (long r = 0; r + 1 < rows; ++r) {
            for (long c = 0; c + 1 < cols; ++c) {
                const long p00 = at(r, c), p01 = at(r, c + 1), p10 = at(r + 1, c), p11 = at(r + 1, c + 1);
                if (p00 >= 0 && p01 >= 0 && p10 >= 0) accumulateTriangle(normals, local, p00, p01, p10);
                if (p10 >= 0 && p01 >= 0 && p11 >= 0) accumulateTriangle(normals, local, p10, p01, p11);
            }
        }
    }

    const Mat3 rotation = rotationOfConjugate(q);
    auto frame = std::make_shared<FrameDataWithInfo>();
    frame->xyz.reserve(static_cast<std::size_t>(vertices));
    frame->nor.reserve(static_cast<std::size_t>(vertices));
    frame->w.assign(static_cast<std::size_t>(vertices), options.scale_code);
    for (long i = 0; i < vertices; ++i) {
        const double p_local[3] = {local[3 * i], local[3 * i + 1], local[3 * i + 2]};
        double n_local[3] = {normals[3 * i], normals[3 * i + 1], normals[3 * i + 2]};
        const double length = std::sqrt(n_local[0] * n_local[0] + n_local[1] * n_local[1] + n_local[2] * n_local[2]);
        if (length > 0) {
            for (double& value : n_local) value /= length;
        } else {
            n_local[0] = 0;
            n_local[1] = 0;
            n_local[2] = 1;  // towards the scanner
        }
        double p[3], n[3];
        rotation.apply(p_local, p);
        rotation.apply(n_local, n);
        frame->xyz.push_back({static_cast<float>((p[0] + t[0]) * options.scale),
                              static_cast<float>((p[1] + t[1]) * options.scale),
                              static_cast<float>((p[2] + t[2]) * options.scale)});
        frame->nor.push_back({static_cast<float>(n[0]), static_cast<float>(n[1]), static_cast<float>(n[2])});
    }
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) frame->frame_info.rotation[3 * c + r] = rotation.m[r][c];
    for (int k = 0; k < 3; ++k) frame->frame_info.translation[k] = t[k] * options.scale;
    return frame;
}

std::vector<std::shared_ptr<FrameDataWithInfo>> readRangeScanSet(const std::string& conf_path,
                                                                 const RangeScanOptions& options) {
    refuseIrregularFile(conf_path);
    std::ifstream conf(conf_path);
    if (!conf) throw std::runtime_error("cannot open scan list " + conf_path);
    const std::size_t slash = conf_path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? std::string(".") : conf_path.substr(0, slash);
    // A scan named by an absolute path is read there, any other from the list's folder.
    const auto scanPath = [&folder](const std::string& file) { return file[0] == '/' ? file : folder + "/" + file; };
    // The list first, then the range images on all cores, each into its place.
    struct Scan {
        std::string file;
        double t[3], q[4];
    };
    std::vector<Scan> scans;
    std::string line;
    while (std::getline(conf, line)) {
        std::istringstream words(line);
        std::string kind;
        Scan scan;
        if (!(words >> kind) || kind != "bmesh") continue;
        if (!(words >> scan.file >> scan.t[0] >> scan.t[1] >> scan.t[2] >> scan.q[0] >> scan.q[1] >> scan.q[2] >>
              scan.q[3]))
            throw std::runtime_error("bad bmesh line in " + conf_path + ": " + line);
        const double* q = scan.q;
        const double q_length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
        bool finite = std::isfinite(q_length);
        for (double v : scan.t) finite = finite && std::isfinite(v);
        if (!finite || q_length < 1e-9)
            throw std::runtime_error("bad bmesh line in " + conf_path +
                                     " (the pose is not finite or the rotation has length 0): " + line);
        scans.push_back(scan);
    }
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames(scans.size());
    forEachInOrder(scans.size(), [&](std::size_t i) {
        frames[i] = readRangeImage(scanPath(scans[i].file), scans[i].t, scans[i].q, options);
    });
    return frames;
}

}  // namespace tessaline_tools
