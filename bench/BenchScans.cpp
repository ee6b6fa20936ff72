// The benchmark's made-up scans: floor, patches, and frames gathered into large ones.
#include "BenchScans.h"

#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>

namespace bench {

using SurfaceReconstruction::FrameDataWithInfo;
using SurfaceReconstruction::Vec3f;
using tessaline_tools::Frames;
using tessaline_tools::P3;
using tessaline_tools::Triangle;

namespace {

constexpr double PI = 3.14159265358979323846;

// Uniform numbers in [0, 1) from the 64-bit Mersenne twister, whose output the standard fixes: the
// same on every platform (the standard's distributions are not).
class Uniform {
public:
    explicit Uniform(std::uint64_t seed) : m_random(seed) {}
    double operator()() { return static_cast<double>(m_random() >> 11) * (1.0 / 9007199254740992.0); }
    double operator()(double lo, double hi) { return lo + (hi - lo) * (*this)(); }

private:
    std::mt19937_64 m_random;
};

std::shared_ptr<FrameDataWithInfo> newFrame(const Vec3f& position, std::size_t reserve) {
    auto frame = std::make_shared<FrameDataWithInfo>();
    frame->xyz.reserve(reserve);
    frame->nor.reserve(reserve);
    frame->w.reserve(reserve);
    for (int k = 0; k < 3; ++k) frame->frame_info.rotation[4 * k] = 1.0;
    for (int k = 0; k < 3; ++k) frame->frame_info.translation[k] = position[k];
    return frame;
}

constexpr double FLOOR_SIZE = 10000.0;  // mm
constexpr int FLOOR_COLUMNS = 2000, FLOOR_ROWS = 1500, FLOOR_STRIP_ROWS = 10;

// One patch: centre, two edge directions and the normal.
struct Patch {
    double centre[3], u[3], v[3], n[3];
};
constexpr int PATCHES = 200, PATCH_COLUMNS = 125, PATCH_ROWS = 120;
constexpr double PATCH_SIZE = 20.0, PATCH_AREA = 5000.0, PATCH_HEIGHT = 1000.0;

std::vector<Patch> patches() {
    Uniform random(20);
    std::vector<Patch> result(PATCHES);
    for (Patch& p : result) {
        p.centre[0] = random(PATCH_SIZE, PATCH_AREA - PATCH_SIZE);
        p.centre[1] = random(PATCH_SIZE, PATCH_AREA - PATCH_SIZE);
        p.centre[2] = random(0.0, PATCH_HEIGHT);
        const double tilt = random(0.0, PI / 6), turn = random(0.0, 2 * PI);
        const double n[3] = {std::sin(tilt) * std::cos(turn), std::sin(tilt) * std::sin(turn), std::cos(tilt)};
        // u: the x axis made perpendicular to n; v = n x u.
        double u[3] = {1.0 - n[0] * n[0], -n[0] * n[1], -n[0] * n[2]};
        const double length = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
        for (double& c : u) c /= length;
        const double v[3] = {n[1] * u[2] - n[2] * u[1], n[2] * u[0] - n[0] * u[2], n[0] * u[1] - n[1] * u[0]};
        for (int k = 0; k < 3; ++k) {
            p.n[k] = n[k];
            p.u[k] = u[k];
            p.v[k] = v[k];
        }
    }
    return result;
}

P3 patchPoint(const Patch& p, double a, double b) {
    P3 q;
    for (int k = 0; k < 3; ++k) q[k] = static_cast<float>(p.centre[k] + a * p.u[k] + b * p.v[k]);
    return q;
}

}  // namespace

Frames floorScan() {
    Uniform random(10);
    const double dx = FLOOR_SIZE / FLOOR_COLUMNS, dy = FLOOR_SIZE / FLOOR_ROWS;
    Frames frames;
    for (int strip = 0; strip < FLOOR_ROWS / FLOOR_STRIP_ROWS; ++strip) {
        const double y0 = strip * FLOOR_STRIP_ROWS * dy;
        auto frame =
            newFrame({static_cast<float>(FLOOR_SIZE / 2), static_cast<float>(y0 + FLOOR_STRIP_ROWS * dy / 2), 300.0f},
                     static_cast<std::size_t>(FLOOR_COLUMNS) * FLOOR_STRIP_ROWS);
        // Back and forth: even strips run along +x, odd ones along -x; the laser line spans the strip.
        for (int c = 0; c < FLOOR_COLUMNS; ++c) {
            const int column = strip % 2 == 0 ? c : FLOOR_COLUMNS - 1 - c;
            for (int r = 0; r < FLOOR_STRIP_ROWS; ++r) {
                const double x = (column + 0.5 + random(-0.3, 0.3)) * dx;
                const double y = y0 + (r + 0.5 + random(-0.3, 0.3)) * dy;
                frame->xyz.push_back({static_cast<float>(x), static_cast<float>(y), 0.0f});
                frame->nor.push_back({0.0f, 0.0f, 1.0f});
                frame->w.push_back(8);
            }
        }
        frames.push_back(frame);
    }
    return frames;
}

std::vector<Triangle> floorSurface() {
    const float s = static_cast<float>(FLOOR_SIZE);
    return {Triangle{P3{0, 0, 0}, P3{s, 0, 0}, P3{s, s, 0}}, Triangle{P3{0, 0, 0}, P3{s, s, 0}, P3{0, s, 0}}};
}

Frames patchesScan() {
    Uniform random(21);
    const double du = PATCH_SIZE / PATCH_COLUMNS, dv = PATCH_SIZE / PATCH_ROWS;
    Frames frames;
    for (const Patch& p : patches()) {
        const P3 centre = patchPoint(p, 0, 0);
        auto frame =
            newFrame({centre[0], centre[1], centre[2] + 150.0f}, static_cast<std::size_t>(PATCH_COLUMNS) * PATCH_ROWS);
        const Vec3f normal = {static_cast<float>(p.n[0]), static_cast<float>(p.n[1]), static_cast<float>(p.n[2])};
        for (int r = 0; r < PATCH_ROWS; ++r)
            for (int c = 0; c < PATCH_COLUMNS; ++c) {
                const double a = (c + 0.5 + random(-0.3, 0.3)) * du - PATCH_SIZE / 2;
                const double b = (r + 0.5 + random(-0.3, 0.3)) * dv - PATCH_SIZE / 2;
                frame->xyz.push_back(patchPoint(p, a, b));
                frame->nor.push_back(normal);
                frame->w.push_back(8);
            }
        frames.push_back(frame);
    }
    return frames;
}

std::vector<Triangle> patchesSurface() {
    std::vector<Triangle> triangles;
    const double h = PATCH_SIZE / 2;
    for (const Patch& p : patches()) {
        const P3 a = patchPoint(p, -h, -h), b = patchPoint(p, h, -h), c = patchPoint(p, h, h), d = patchPoint(p, -h, h);
        triangles.push_back({a, b, c});
        triangles.push_back({a, c, d});
    }
    return triangles;
}

Frames gatherFrames(const Frames& frames, int laser, int count, std::size_t size) {
    Frames result;
    std::shared_ptr<FrameDataWithInfo> gathering;
    int gathered = 0;
    for (const auto& frame : frames) {
        if (gathered == count || frame->frame_info.laser_id != laser || frame->xyz.empty()) {
            result.push_back(frame);
            continue;
        }
        std::size_t taken = 0;
        while (taken < frame->xyz.size() && gathered < count) {
            if (!gathering) {
                gathering = std::make_shared<FrameDataWithInfo>();
                gathering->frame_info = frame->frame_info;
                gathering->marker_ids = frame->marker_ids;
                gathering->marker_xyz = frame->marker_xyz;
                gathering->marker_nor = frame->marker_nor;
                gathering->xyz.reserve(size);
                gathering->nor.reserve(size);
                gathering->w.reserve(size);
                result.push_back(gathering);
            }
            const std::size_t n = std::min(frame->xyz.size() - taken, size - gathering->xyz.size());
            const auto from = static_cast<std::ptrdiff_t>(taken), to = static_cast<std::ptrdiff_t>(taken + n);
            gathering->xyz.insert(gathering->xyz.end(), frame->xyz.begin() + from, frame->xyz.begin() + to);
            gathering->nor.insert(gathering->nor.end(), frame->nor.begin() + from, frame->nor.begin() + to);
            gathering->w.insert(gathering->w.end(), frame->w.begin() + from, frame->w.begin() + to);
            taken += n;
            if (gathering->xyz.size() == size) {
                gathering.reset();
                ++gathered;
            }
        }
        if (taken > 0 && taken < frame->xyz.size()) {
            auto rest = std::make_shared<FrameDataWithInfo>(*frame);
            const auto from = static_cast<std::ptrdiff_t>(taken);
            rest->xyz.erase(rest->xyz.begin(), rest->xyz.begin() + from);
            rest->nor.erase(rest->nor.begin(), rest->nor.begin() + from);
            rest->w.erase(rest->w.begin(), rest->w.begin() + from);
            result.push_back(rest);
        }
    }
    if (gathered < count) throw std::runtime_error("too few points of one laser to gather into large frames");
    return result;
}

}  // namespace bench
