// The part as a field of simple solids joined by min/max, and its surface sampled shape by shape.
#include "Part.h"

#include <algorithm>
#include <cmath>

namespace tessaline_tools {

namespace {

constexpr double PI = 3.14159265358979323846;

// Block, hole, dome, wall and engraving: positions and sizes.
constexpr double BLOCK_HALF[3] = {30.0, 20.0, 6.0};  // centred at (0, 0, 6): top face at z = 12
constexpr double TOP = 12.0;
constexpr double HOLE_X = 17.0, HOLE_Y = -8.0, HOLE_R = 5.0;
constexpr double DOME_X = 17.0, DOME_Y = 8.0, DOME_R = 7.0;
constexpr double WALL_X = -14.0, WALL_HALF_T = 0.5, WALL_HALF_Y = 14.0, WALL_TOP = 28.0;  // 1 mm thick
constexpr double RING_X = 0.0, RING_Y = 0.0, RING_R = 5.0, RING_HALF_W = 0.4, RING_DEPTH = 0.5;

double box(const Point3& p, const Point3& c, const Point3& h) {
    double q[3], outside = 0.0, inside = -1e300;
    for (int k = 0; k < 3; ++k) {
        q[k] = std::fabs(p[k] - c[k]) - h[k];
        outside += std::max(q[k], 0.0) * std::max(q[k], 0.0);
        inside = std::max(inside, q[k]);
    }
    return std::sqrt(outside) + std::min(inside, 0.0);
}

// A box in two dimensions (for shapes of revolution and extrusions).
double box2(double a, double b, double ha, double hb) {
    const double qa = std::fabs(a) - ha, qb = std::fabs(b) - hb;
    const double oa = std::max(qa, 0.0), ob = std::max(qb, 0.0);
    return std::sqrt(oa * oa + ob * ob) + std::min(std::max(qa, qb), 0.0);
}

double blockField(const Point3& p) {
    return box(p, {0.0, 0.0, TOP / 2}, {BLOCK_HALF[0], BLOCK_HALF[1], BLOCK_HALF[2]});
}
// The hole: a cylinder reaching past both faces of the block.
double holeField(const Point3& p) {
    return box2(std::hypot(p[0] - HOLE_X, p[1] - HOLE_Y), p[2] - TOP / 2, HOLE_R, TOP / 2 + 2.0);
}
double domeField(const Point3& p) {
    const double dx = p[0] - DOME_X, dy = p[1] - DOME_Y, dz = p[2] - TOP;
    return std::sqrt(dx * dx + dy * dy + dz * dz) - DOME_R;
}
double wallField(const Point3& p) {
    return box(p, {WALL_X, 0.0, (TOP + WALL_TOP) / 2}, {WALL_HALF_T, WALL_HALF_Y, (WALL_TOP - TOP) / 2 + 0.5});
}
// The engraving: a ring-shaped groove cut into the top face.
double ringField(const Point3& p) {
    return box2(std::hypot(p[0] - RING_X, p[1] - RING_Y) - RING_R, p[2] - TOP, RING_HALF_W, RING_DEPTH);
}

// Evenly spaced points on a rectangle given by a corner and two edge vectors.
void sampleRectangle(const Point3& corner, const Point3& u, const Point3& v, double spacing, std::vector<Point3>& out) {
    const double lu = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
    const double lv = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    const int nu = std::max(1, static_cast<int>(std::ceil(lu / spacing)));
    const int nv = std::max(1, static_cast<int>(std::ceil(lv / spacing)));
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j) {
            const double a = (i + 0.5) / nu, b = (j + 0.5) / nv;
            out.push_back(
                {corner[0] + a * u[0] + b * v[0], corner[1] + a * u[1] + b * v[1], corner[2] + a * u[2] + b * v[2]});
        }
}

void sampleBoxFaces(const Point3& c, const Point3& h, double spacing, std::vector<Point3>& out) {
    for (int axis = 0; axis < 3; ++axis) {
        const int a = (axis + 1) % 3, b = (axis + 2) % 3;
        for (int side = -1; side <= 1; side += 2) {
            Point3 corner = c, u = {0, 0, 0}, v = {0, 0, 0};
            corner[axis] += side * h[axis];
            corner[a] -= h[a];
            corner[b] -= h[b];
            u[a] = 2 * h[a];
            v[b] = 2 * h[b];
            sampleRectangle(corner, u, v, spacing, out);
        }
    }
}

// A cylinder wall of radius r around the vertical axis through (x, y), from z0 to z1.
void sampleCylinder(double x, double y, double r, double z0, double z1, double spacing, std::vector<Point3>& out) {
    const int na = std::max(3, static_cast<int>(std::ceil(2 * PI * r / spacing)));
    const int nz = std::max(1, static_cast<int>(std::ceil((z1 - z0) / spacing)));
    for (int i = 0; i < na; ++i)
        for (int j = 0; j < nz; ++j) {
            const double angle = 2 * PI * (i + 0.5) / na;
            out.push_back({x + r * std::cos(angle), y + r * std::sin(angle), z0 + (z1 - z0) * (j + 0.5) / nz});
        }
}

// A flat ring (annulus) at height z.
void sampleAnnulus(double x, double y, double r0, double r1, double z, double spacing, std::vector<Point3>& out) {
    const int nr = std::max(1, static_cast<int>(std::ceil((r1 - r0) / spacing)));
    for (int j = 0; j < nr; ++j) {
        const double r = r0 + (r1 - r0) * (j + 0.5) / nr;
        const int na = std::max(3, static_cast<int>(std::ceil(2 * PI * r / spacing)));
        for (int i = 0; i < na; ++i) {
            const double angle = 2 * PI * (i + 0.5) / na;
            out.push_back({x + r * std::cos(angle), y + r * std::sin(angle), z});
        }
    }
}

}  // namespace

double Part::distance(const Point3& p) {
    const double solid = std::min({blockField(p), domeField(p), wallField(p)});
    return std::max({solid, -holeField(p), -ringField(p)});
}

Point3 Part::normal(const Point3& p) {
    const double h = 1e-4;
    Point3 n;
    for (int k = 0; k < 3; ++k) {
        Point3 a = p, b = p;
        a[k] += h;
        b[k] -= h;
        n[k] = distance(a) - distance(b);
    }
    const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (!(length > 0)) return {0.0, 0.0, 1.0};
    for (double& c : n) c /= length;
    return n;
}

bool Part::nearSmallFeature(const Point3& p) {
    const double margin = 2.0;
    return std::fabs(wallField(p)) < margin || std::fabs(ringField(p)) < margin ||
           (std::fabs(holeField(p)) < margin && p[2] > TOP - margin);
}

std::vector<std::array<float, 3>> Part::surfaceSamples(double spacing) {
    std::vector<Point3> candidates;
    sampleBoxFaces({0.0, 0.0, TOP / 2}, {BLOCK_HALF[0], BLOCK_HALF[1], BLOCK_HALF[2]}, spacing, candidates);
    sampleBoxFaces({WALL_X, 0.0, (TOP + WALL_TOP) / 2}, {WALL_HALF_T, WALL_HALF_Y, (WALL_TOP - TOP) / 2 + 0.5}, spacing,
                   candidates);
    sampleCylinder(HOLE_X, HOLE_Y, HOLE_R, 0.0, TOP, spacing, candidates);
    sampleCylinder(RING_X, RING_Y, RING_R - RING_HALF_W, TOP - RING_DEPTH, TOP, spacing, candidates);
    sampleCylinder(RING_X, RING_Y, RING_R + RING_HALF_W, TOP - RING_DEPTH, TOP, spacing, candidates);
    sampleAnnulus(RING_X, RING_Y, RING_R - RING_HALF_W, RING_R + RING_HALF_W, TOP - RING_DEPTH, spacing, candidates);
    // The dome: rings of latitude over the upper half sphere, each as dense as the spacing asks.
    const int nl = std::max(1, static_cast<int>(std::ceil(PI / 2 * DOME_R / spacing)));
    for (int j = 0; j < nl; ++j) {
        const double lat = PI / 2 * (j + 0.5) / nl;
        const double r = DOME_R * std::cos(lat);
        const int na = std::max(3, static_cast<int>(std::ceil(2 * PI * r / spacing)));
        for (int i = 0; i < na; ++i) {
            const double angle = 2 * PI * (i + 0.5) / na;
            candidates.push_back(
                {DOME_X + r * std::cos(angle), DOME_Y + r * std::sin(angle), TOP + DOME_R * std::sin(lat)});
        }
    }
    // Keep the pieces of the shapes that are the part's surface, leaving out the underside.
    std::vector<std::array<float, 3>> samples;
    for (const Point3& p : candidates) {
        if (std::fabs(distance(p)) > 1e-6 || p[2] < 1e-6) continue;
        samples.push_back({static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])});
    }
    return samples;
}

bool Part::raycast(const Point3& o, const Point3& d, double t_max, double& t) {
    // Sphere tracing: the field never exceeds the distance to the surface, so a step of its size
    // cannot pass through it.
    t = 0.0;
    for (int step = 0; step < 512 && t < t_max; ++step) {
        const Point3 p = {o[0] + t * d[0], o[1] + t * d[1], o[2] + t * d[2]};
        const double f = distance(p);
        if (f < 1e-6) return t > 0.0;
        t += f;
    }
    return false;
}

}  // namespace tessaline_tools
