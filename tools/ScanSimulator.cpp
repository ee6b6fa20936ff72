// The scanner: a laser projector with a camera beside it on a path of poses around the part.
#include "ScanSimulator.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "InOrder.h"
#include "Part.h"

namespace tessaline_tools {

using SurfaceReconstruction::FrameDataWithInfo;
using SurfaceReconstruction::MarkerInfos;
using SurfaceReconstruction::Vec3f;

namespace {

constexpr double PI = 3.14159265358979323846;
constexpr double STANDOFF = 150.0;        // scanner to the point it aims at, millimetres
constexpr double CAMERA_BASELINE = 70.0;  // camera beside the projector, along the scanner's up axis
constexpr double FAN_HALF_ANGLE = 0.38;   // radians: a line about 120 mm long at the standoff
constexpr int FRAMES_A_TURN = 90;
constexpr double MAX_RANGE = 400.0;

Point3 add(const Point3& a, const Point3& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
Point3 sub(const Point3& a, const Point3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Point3 mul(const Point3& a, double s) { return {a[0] * s, a[1] * s, a[2] * s}; }
double dot(const Point3& a, const Point3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
Point3 cross(const Point3& a, const Point3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Point3 unit(const Point3& a) { return mul(a, 1.0 / std::sqrt(dot(a, a))); }

// A pose: the scanner's axes in world coordinates (right, up, forward) and its position.
struct Pose {
    Point3 axis[3];
    Point3 origin;
    Point3 toWorld(const Point3& local) const {
        return add(origin, add(add(mul(axis[0], local[0]), mul(axis[1], local[1])), mul(axis[2], local[2])));
    }
    Point3 toLocal(const Point3& world) const {
        const Point3 d = sub(world, origin);
        return {dot(axis[0], d), dot(axis[1], d), dot(axis[2], d)};
    }
};

// Markers on the table around the part: two rings, facing up.
std::vector<Point3> markerPositions() {
    std::vector<Point3> markers;
    for (int ring = 0; ring < 2; ++ring) {
        const int count = ring == 0 ? 16 : 22;
        const double radius = ring == 0 ? 45.0 : 62.0;
        for (int i = 0; i < count; ++i) {
            const double angle = 2 * PI * (i + 0.25 * ring) / count;
            markers.push_back({radius * std::cos(angle), radius * std::sin(angle), 0.0});
        }
    }
    return markers;
}

// The path: one turn around the part every FRAMES_A_TURN frames, each turn at another height, the
// hand never quite steady.
Pose poseOf(std::size_t frame, std::mt19937_64& random) {
    static const double ELEVATIONS[] = {22.0, 45.0, 70.0, 30.0, 58.0, 15.0};
    std::normal_distribution<double> wobble(0.0, 1.0);
    const std::size_t turn = frame / FRAMES_A_TURN;
    const double azimuth =
        2 * PI * static_cast<double>(frame % FRAMES_A_TURN) / FRAMES_A_TURN + 0.7 * static_cast<double>(turn);
    const double elevation = (ELEVATIONS[turn % 6] + 3.0 * wobble(random)) * PI / 180.0;
    const Point3 target = {6.0 * wobble(random), 5.0 * wobble(random), 10.0 + 2.0 * wobble(random)};
    const double range = STANDOFF + 5.0 * wobble(random);
    const Point3 towards = {std::cos(elevation) * std::cos(azimuth), std::cos(elevation) * std::sin(azimuth),
                            std::sin(elevation)};
    Pose pose;
    pose.origin = add(target, mul(towards, range));
    pose.axis[2] = unit(sub(target, pose.origin));
    const double roll = (wobble(random) * 15.0 + static_cast<double>(frame % 7) * 25.0) * PI / 180.0;
    const Point3 right0 = unit(cross(pose.axis[2], {0.0, 0.0, 1.0}));
    const Point3 up0 = cross(right0, pose.axis[2]);
    pose.axis[0] = add(mul(right0, std::cos(roll)), mul(up0, std::sin(roll)));
    pose.axis[1] = cross(pose.axis[2], pose.axis[0]);  // right-handed: right x up = forward
    return pose;
}

// The frame's pose turned and shifted a little, as a registration error would leave it.
Pose misregister(const Pose& pose, double degrees, double shift) {
    const double a = degrees * PI / 180.0, c = std::cos(a), s = std::sin(a);
    const auto turn = [&](const Point3& v) { return Point3{c * v[0] - s * v[1], s * v[0] + c * v[1], v[2]}; };
    Pose wrong;
    for (int k = 0; k < 3; ++k) wrong.axis[k] = turn(pose.axis[k]);
    wrong.origin = add(turn(pose.origin), {shift, 0.0, 0.0});
    return wrong;
}

// A number in [0, 1) from the next 53 bits of the stream, the same with every standard library.
double unitDraw(std::mt19937_64& random) { return static_cast<double>(random() >> 11) * 0x1.0p-53; }

bool visibleFrom(const Point3& p, const Point3& n, const Point3& eye) {
    const Point3 to_eye = sub(eye, p);
    const double length = std::sqrt(dot(to_eye, to_eye));
    const Point3 d = mul(to_eye, 1.0 / length);
    if (dot(d, n) < 0.1) return false;
    double t;
    return !Part::raycast(add(p, mul(n, 1e-3)), d, length, t);
}

std::shared_ptr<FrameDataWithInfo> makeFrame(std::size_t index, const ScanSimulation& s,
                                             const std::vector<Point3>& markers) {
    std::mt19937_64 random(s.seed * 0x9E3779B97F4A7C15ull + index * 0xBF58476D1CE4E5B9ull + 1);
    const Pose pose = poseOf(index, random);
    std::normal_distribution<double> gauss(0.0, 1.0);
    auto frame = std::make_shared<FrameDataWithInfo>();
    const int laser = static_cast<int>(index % 2);
    frame->frame_info.laser_id = laser;
    // Laser 0 projects seven parallel lines, laser 1 three lines that cross at the centre.
    const int lines = laser == 0 ? 7 : 3;
    const Point3 camera = pose.toWorld({0.0, CAMERA_BASELINE, 0.0});
    for (int line = 0; line < lines; ++line) {
        for (int ray = 0; ray < s.rays_per_line; ++ray) {
            const double along = std::tan(FAN_HALF_ANGLE * (2.0 * (ray + 0.5) / s.rays_per_line - 1.0));
            Point3 local;
            if (laser == 0) {
                local = {along, std::tan((line - 3) * 0.045), 1.0};
            } else {
                const double angle = PI * line / lines;
                local = {along * std::cos(angle), along * std::sin(angle), 1.0};
            }
            const Point3 d = unit(sub(pose.toWorld(local), pose.origin));
            double t;
            if (!Part::raycast(pose.origin, d, MAX_RANGE, t)) continue;
            const Point3 hit = add(pose.origin, mul(d, t));
            const Point3 n = Part::normal(hit);
            const double incidence = -dot(n, d);
            if (incidence < 0.15 || !visibleFrom(hit, n, camera)) continue;
            const double range_error = s.noise / std::max(incidence, 0.3) * gauss(random);
            const Point3 p = add(hit, mul(d, range_error));
            Point3 measured_n = unit(add(n, {0.02 * gauss(random), 0.02 * gauss(random), 0.02 * gauss(random)}));
            const bool feature = Part::nearSmallFeature(hit);
            frame->xyz.push_back({static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])});
            frame->nor.push_back({static_cast<float>(measured_n[0]), static_cast<float>(measured_n[1]),
                                  static_cast<float>(measured_n[2])});
            frame->w.push_back(feature ? (16 | FEATURE_FLAG) : 8);
        }
    }
    // Markers the camera sees, measured in the scanner's coordinates.
    for (std::size_t m = 0; m < markers.size(); ++m) {
        const Point3 to_scanner = sub(pose.origin, markers[m]);
        const double distance = std::sqrt(dot(to_scanner, to_scanner));
        if (to_scanner[2] < 0.35 * distance || -dot(unit(to_scanner), pose.axis[2]) < std::cos(0.45)) continue;
        double t;
        if (Part::raycast(markers[m], mul(to_scanner, 1.0 / distance), distance, t))
            continue;  // the part is in the way
        // Anywhere within a small ball: a marker's centre is found to within a bound. With a normal
        // error in each axis instead, the marker filter's limits (mean + 2.57 and 2.06 rms) caught
        // the tail of a few of the 30 or so markers of half the frames, and the run left them out.
        Point3 offset;
        do {
            for (double& o : offset) o = 2.0 * unitDraw(random) - 1.0;
        } while (dot(offset, offset) > 1.0);
        const Point3 noisy = add(markers[m], mul(offset, s.marker_noise));
        const Point3 local = pose.toLocal(noisy);
        const Point3 normal_local = {pose.axis[0][2], pose.axis[1][2], pose.axis[2][2]};
        frame->marker_ids.push_back(static_cast<std::int32_t>(m));
        frame->marker_xyz.push_back(
            {static_cast<float>(local[0]), static_cast<float>(local[1]), static_cast<float>(local[2])});
        frame->marker_nor.push_back({static_cast<float>(normal_local[0]), static_cast<float>(normal_local[1]),
                                     static_cast<float>(normal_local[2])});
    }
    // The registered frame: points in world coordinates under the frame's pose, which is wrong for a
    // misregistered frame (its points then move with it).
    Pose registered = pose;
    if (std::find(s.misregistered.begin(), s.misregistered.end(), index) != s.misregistered.end()) {
        registered = misregister(pose, s.misregistration_degrees, s.misregistration_shift);
        for (std::size_t i = 0; i < frame->xyz.size(); ++i) {
            const auto& v = frame->xyz[i];
            const auto& nv = frame->nor[i];
            const Point3 p = registered.toWorld(pose.toLocal({v[0], v[1], v[2]}));
            const Point3 n =
                sub(registered.toWorld(pose.toLocal(add(pose.origin, {nv[0], nv[1], nv[2]}))), registered.origin);
            frame->xyz[i] = {static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])};
            frame->nor[i] = {static_cast<float>(n[0]), static_cast<float>(n[1]), static_cast<float>(n[2])};
        }
    }
    for (int c = 0; c < 3; ++c)
        for (int r = 0; r < 3; ++r) frame->frame_info.rotation[3 * c + r] = registered.axis[c][r];
    for (int k = 0; k < 3; ++k) frame->frame_info.translation[k] = registered.origin[k];
    return frame;
}

}  // namespace

std::vector<std::size_t> spreadMisregisteredFrames(std::size_t count, std::size_t target_points) {
    // About 1,850 points a frame: the frames the scan will have, before it is made.
    const std::size_t frames = std::max<std::size_t>(target_points / 1850, 1);
    std::vector<std::size_t> chosen;
    for (std::size_t k = 0; k < count && k < frames; ++k) chosen.push_back((k + 1) * frames / (count + 1));
    chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
    return chosen;
}

MarkerInfos simulatedMarkers() {
    MarkerInfos infos;
    const std::vector<Point3> markers = markerPositions();
    for (std::size_t m = 0; m < markers.size(); ++m) {
        infos.ids.push_back(static_cast<std::int32_t>(m));
        infos.xyz.push_back(
            {static_cast<float>(markers[m][0]), static_cast<float>(markers[m][1]), static_cast<float>(markers[m][2])});
        infos.nor.push_back({0.0f, 0.0f, 1.0f});
    }
    return infos;
}

std::vector<std::shared_ptr<FrameDataWithInfo>> simulateScan(const ScanSimulation& settings,
                                                             const std::function<void(std::size_t)>& progress) {
    const std::vector<Point3> markers = markerPositions();
    std::vector<std::shared_ptr<FrameDataWithInfo>> frames;
    std::size_t points = 0;
    const std::size_t batch = 32;
    while (points < settings.target_points) {
        // Frames are independent (each has its own random stream), so a batch is made in parallel and
        // the scan is cut at the same frame whatever the thread count.
        std::vector<std::shared_ptr<FrameDataWithInfo>> made(batch);
        const std::size_t first = frames.size();
        // A frame that cannot be made (no memory for it) fails the scan once the batch's team has ended.
        forEachInOrder(batch, [&](std::size_t i) { made[i] = makeFrame(first + i, settings, markers); });
        for (auto& frame : made) {
            if (points >= settings.target_points) break;
            points += frame->xyz.size();
            frames.push_back(std::move(frame));
        }
        if (progress) progress(points);
    }
    return frames;
}

}  // namespace tessaline_tools
