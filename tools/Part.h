// The built-in test part: a solid of simple shapes with a known surface, so that a scan of it can be
// judged exactly. A block with sharp edges and a hole through it, a dome, a thin wall standing on it
// and a shallow engraved ring on its top face. It stands on the table (z = 0); lengths in millimetres.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace tessaline_tools {

using Point3 = std::array<double, 3>;

class Part {
public:
    // Signed distance bound: negative inside, exact on the faces and on the outside of unions; near
    // concave edges |distance| may fall short of the true distance (never exceeds it).
    static double distance(const Point3& p);
    // Outward unit normal from the field's gradient.
    static Point3 normal(const Point3& p);
    // True near the small features (thin wall, engraving, the hole's rim): where finer cells are wished.
    static bool nearSmallFeature(const Point3& p);
    // Axis-aligned bounds of the solid.
    static Point3 lower() { return {-30.0, -20.0, 0.0}; }
    static Point3 upper() { return {30.0, 20.0, 28.0}; }

    // Points spread evenly over the surface that a scanner can reach (everything but the underside on
    // the table), about one a `spacing` x `spacing` square; deterministic.
    static std::vector<std::array<float, 3>> surfaceSamples(double spacing);

    // First hit of the ray o + t d (d of unit length) with 0 < t < t_max; false when it misses.
    static bool raycast(const Point3& o, const Point3& d, double t_max, double& t);
};

}  // namespace tessaline_tools
