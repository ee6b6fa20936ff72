// PTX scans (Leica and other terrestrial scanners): a frame a scan, its points moved into the world by the
// scan's transform, normals from the triangles of neighbouring grid pixels, turned to face the scanner.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "FrameBuilder.h"
#include "ScanFormats.h"
#include "TextLines.h"

namespace tessaline_tools {

namespace {

// The shortest line of a grid point: "0 0 0 0" and its line end.
constexpr std::uint64_t MIN_POINT_LINE = 8;
// A triangle whose longest edge is more than this many times its shortest spans a jump in depth (a near
// object before a far wall) rather than a surface; it gives no normal. Grazing surfaces up to about 87
// degrees from the beam keep theirs.
constexpr float MAX_EDGE_RATIO = 20.0f;

// The next header line that is not blank, holding exactly `count` numbers.
void headerLine(TextLines& text, std::size_t count, const char* what, double* values) {
    std::string line;
    do {
        if (!text.nextLine(line))
            throw std::runtime_error(text.path() + ": the file ends in a scan's header, before " + what);
    } while (line.find_first_not_of(" \t\r,") == std::string::npos);
    line += '\n';
    const std::size_t found = parseLine(text, line.c_str(), text.lineNumber(), values, count);
    if (found != count)
        text.fail(text.lineNumber(), std::to_string(found) + " values where " + what + " has " + std::to_string(count));
}

// The scan's size: a whole number from 1 up.
long gridSize(TextLines& text, const char* what) {
    double value = 0;
    headerLine(text, 1, what, &value);
    if (!(value >= 1 && value <= 2147483647.0) || value != std::floor(value))
        text.fail(text.lineNumber(), std::string(what) + " must be a whole number from 1 up");
    return static_cast<long>(value);
}

using V3 = std::array<float, 3>;

V3 sub(const V3& a, const V3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
float dot(const V3& a, const V3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// The area-weighted normal of triangle a b c turned to face the scanner at (0, 0, 0), or zero for a
// triangle that spans a jump in depth.
V3 triangleNormal(const V3& a, const V3& b, const V3& c) {
    const V3 u = sub(b, a), v = sub(c, a), w = sub(c, b);
    const float lengths[3] = {dot(u, u), dot(v, v), dot(w, w)};
    const float shortest = std::min({lengths[0], lengths[1], lengths[2]});
    const float longest = std::max({lengths[0], lengths[1], lengths[2]});
    if (!(longest <= MAX_EDGE_RATIO * MAX_EDGE_RATIO * shortest)) return {0.0f, 0.0f, 0.0f};
    V3 n = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    if (dot(n, a) > 0)
        for (float& x : n) x = -x;
    return n;
}

// Normals of a grid stored column after column (pixel (c, r) at c * rows + r; `valid` marks the pixels
// with a point; positions relative to the scanner): the sum over the pixel's triangles, two a square of
// four neighbouring pixels; a pixel in no triangle gets the direction towards the scanner.
std::vector<V3> gridNormals(const std::vector<V3>& p, const std::vector<std::uint8_t>& valid, long columns, long rows) {
    const std::int64_t squares = static_cast<std::int64_t>(columns - 1) * (rows - 1);
    // Square (c, r) has corners a = (c, r), b = (c, r + 1), d = (c + 1, r), e = (c + 1, r + 1) and the
    // triangles a b d and b e d.
    std::vector<V3> triangles(static_cast<std::size_t>(2 * std::max<std::int64_t>(squares, 0)));
    const auto at = [rows](long c, long r) { return static_cast<std::size_t>(c) * rows + r; };
    const auto square = [rows](long c, long r) { return 2 * (static_cast<std::size_t>(c) * (rows - 1) + r); };
#pragma omp parallel for schedule(static)
    for (std::int64_t s = 0; s < squares; ++s) {
        const long c = static_cast<long>(s / (rows - 1)), r = static_cast<long>(s % (rows - 1));
        const std::size_t a = at(c, r), b = at(c, r + 1), d = at(c + 1, r), e = at(c + 1, r + 1);
        V3* out = &triangles[square(c, r)];
        out[0] = valid[a] && valid[b] && valid[d] ? triangleNormal(p[a], p[b], p[d]) : V3{0, 0, 0};
        out[1] = valid[b] && valid[e] && valid[d] ? triangleNormal(p[b], p[e], p[d]) : V3{0, 0, 0};
    }
    std::vector<V3> normals(p.size());
    const std::int64_t pixels = static_cast<std::int64_t>(p.size());
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < pixels; ++i) {
        const long c = static_cast<long>(i / rows), r = static_cast<long>(i % rows);
        V3 n = {0.0f, 0.0f, 0.0f};
        const auto add = [&](long sc, long sr, int t) {
            if (sc < 0 || sr < 0 || sc >= columns - 1 || sr >= rows - 1) return;
            const V3& m = triangles[square(sc, sr) + static_cast<std::size_t>(t)];
            for (int k = 0; k < 3; ++k) n[k] += m[k];
        };
        // The pixel is a of square (c, r), b of (c, r - 1), d of (c - 1, r), e of (c - 1, r - 1).
        add(c, r, 0);
        add(c, r - 1, 0);
        add(c, r - 1, 1);
        add(c - 1, r, 0);
        add(c - 1, r, 1);
        add(c - 1, r - 1, 1);
        if (n[0] == 0.0f && n[1] == 0.0f && n[2] == 0.0f) n = sub(V3{0.0f, 0.0f, 0.0f}, p[static_cast<std::size_t>(i)]);
        normals[static_cast<std::size_t>(i)] = n;
    }
    return normals;
}

}  // namespace

void readPtx(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes) {
    TextLines text(path);
    std::string line;
    for (int scan = 0;; ++scan) {
        // Blank lines between scans are passed over; the end of the file after a whole scan ends it.
        bool more = false;
        while (text.nextLine(line)) {
            if (line.find_first_not_of(" \t\r,") != std::string::npos) {
                more = true;
                break;
            }
        }
        if (!more) {
            if (scan == 0) throw std::runtime_error(path + ": no scan in the PTX file");
            return;
        }
        line += '\n';
        double value = 0;
        if (parseLine(text, line.c_str(), text.lineNumber(), &value, 1) != 1 ||
            !(value >= 1 && value <= 2147483647.0) || value != std::floor(value))
            text.fail(text.lineNumber(), "a scan starts with its number of columns, a whole number from 1 up");
        const long columns = static_cast<long>(value);
        const long rows = gridSize(text, "the number of rows");
        double position[3], axes[9], matrix[16];
        headerLine(text, 3, "the scanner's position", position);
        for (int k = 0; k < 3; ++k) headerLine(text, 3, "a scanner axis", axes + 3 * k);
        for (int k = 0; k < 4; ++k) headerLine(text, 4, "a row of the transform", matrix + 4 * k);
        for (double m : matrix)
            if (!std::isfinite(m)) text.fail(text.lineNumber(), "the transform holds a number that is not finite");
        for (double s : position)
            if (!std::isfinite(s)) throw std::runtime_error(path + ": the scanner's position is not finite");
        // Every point takes a line: a grid larger than the rest of the file is refused before it is sized.
        const std::uint64_t fit = (text.remainingBytes() + 1) / MIN_POINT_LINE;
        if (static_cast<std::uint64_t>(columns) > fit ||
            static_cast<std::uint64_t>(rows) > fit / static_cast<std::uint64_t>(columns))
            throw std::runtime_error(path + ": truncated data (scan " + std::to_string(scan + 1) + " of " +
                                     std::to_string(columns) + " x " + std::to_string(rows) +
                                     " points is larger than the rest of the file)");
        const std::size_t n = static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);

        // The points, in the scan's own coordinates, a piece of lines at a time on all cores.
        std::vector<std::array<double, 3>> local(n);
        std::vector<std::uint8_t> valid(n, 0);
        std::vector<Colour> colours;
        std::size_t values_per_line = 0;  // 4, or 7 with colours: the scan's first line decides
        TextPiece piece;
        for (std::size_t done = 0; done < n;) {
            if (text.nextLines(n - done, piece) == 0)
                throw std::runtime_error(path + ": truncated data (scan " + std::to_string(scan + 1) + " ends after " +
                                         std::to_string(done) + " of " + std::to_string(n) + " points)");
            if (values_per_line == 0) {
                double first[8];
                values_per_line = parseLine(text, piece.starts[0], piece.numbers[0], first, 7);
                if (values_per_line != 4 && values_per_line != 7)
                    text.fail(piece.numbers[0], std::to_string(values_per_line) +
                                                    " values where a point has 4 (x y z intensity) or 7 "
                                                    "(x y z intensity r g b)");
                if (values_per_line == 7) colours.resize(n);
            }
            forEachLine(piece, [&](std::size_t l) {
                double v[7];
                const std::size_t found = parseLine(text, piece.starts[l], piece.numbers[l], v, 7);
                if (found != values_per_line)
                    text.fail(piece.numbers[l], std::to_string(found) + " values where the scan's points have " +
                                                    std::to_string(values_per_line));
                const std::size_t i = done + l;
                if (!(std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2])))
                    text.fail(piece.numbers[l], "a coordinate that is not finite");
                valid[i] = v[0] != 0.0 || v[1] != 0.0 || v[2] != 0.0;  // 0 0 0: no return
                local[i] = {v[0], v[1], v[2]};
                if (values_per_line == 7) colours[i] = {colourByte(v[4]), colourByte(v[5]), colourByte(v[6])};
            });
            done += piece.size();
        }

        // The transform: world = R p + t with R's columns the first three rows, t the fourth. A file whose
        // transform is the identity may hold its points in the world already, the scanner at the header's
        // position; otherwise the scanner stands at the origin of its scan.
        bool identity = true;
        for (int k = 0; k < 16; ++k) identity = identity && matrix[k] == (k % 5 == 0 ? 1.0 : 0.0);
        // Normals from positions relative to the scanner, which floats hold well wherever the scan lies.
        std::vector<V3> relative(n);
        const std::int64_t count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(static)
        for (std::int64_t s = 0; s < count; ++s)
            for (int k = 0; k < 3; ++k)
                relative[static_cast<std::size_t>(s)][k] =
                    static_cast<float>(local[static_cast<std::size_t>(s)][k] - (identity ? position[k] : 0.0));
        const std::vector<V3> normals = gridNormals(relative, valid, columns, rows);
        relative = std::vector<V3>();
        FrameBuilder builder(n, options, !colours.empty());
#pragma omp parallel for schedule(static)
        for (std::int64_t s = 0; s < count; ++s) {
            const std::size_t i = static_cast<std::size_t>(s);
            if (!valid[i]) {
                builder.missing(i);
                continue;
            }
            double p[3], q[3];
            for (int r = 0; r < 3; ++r) {
                p[r] = matrix[12 + r];
                q[r] = 0;
                for (int k = 0; k < 3; ++k) {
                    p[r] += matrix[4 * k + r] * local[i][k];
                    q[r] += matrix[4 * k + r] * normals[i][k];
                }
            }
            builder.position(i, p);
            if (!builder.isMissing(i)) builder.normal(i, q);
            if (!colours.empty()) builder.colour(i, colours[i]);
        }
        FrameExtras extras;
        extras.source = path;
        extras.normals = true;
        extras.sensor = true;
        for (int k = 0; k < 3; ++k)
            extras.sensor_position[k] =
                (identity ? position[k] : matrix[12 + k]) * static_cast<double>(options.scale) - options.origin[k];
        auto frame = builder.finish(extras, nullptr);  // pixels without a return are no points
        static_cast<void>(notes);
        out.add(std::move(frame), std::move(extras));
    }
}

}  // namespace tessaline_tools
