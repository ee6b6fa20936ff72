// PTS and XYZ text: a point a line, the columns told from their number and values; an optional first line
// holding the count alone (PTS).
#include <algorithm>
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

// Lines of the file's start whose values choose the layout.
constexpr std::size_t SAMPLE_LINES = 1000;
// The most columns a known layout has: x y z, intensity, r g b, nx ny nz.
constexpr std::size_t MAX_COLUMNS = 10;
// A normal column triple is a unit vector within this (text with three decimals stays well inside it).
constexpr double UNIT_TOLERANCE = 0.02;
// The shortest line of a point: "0 0 0" and its line end.
constexpr std::uint64_t MIN_POINT_LINE = 6;
// Lines handed out at a time.
constexpr std::size_t PIECE_LINES = std::size_t(1) << 20;

enum Group : char { I = 'i', C = 'c', N = 'n' };

// The layouts of each column count in the order they are tried: a normal before a colour, the intensity
// before the triples (Leica's "x y z intensity r g b").
const std::vector<std::string>& layoutsOf(std::size_t columns) {
    static const std::vector<std::string> none, three = {""}, four = {"i"}, six = {"n", "c"},
                                                seven = {"in", "ic", "ni", "ci"}, nine = {"nc", "cn"},
                                                ten = {"inc", "icn", "nci", "cni", "nic", "cin"};
    switch (columns) {
        case 3:
            return three;
        case 4:
            return four;
        case 6:
            return six;
        case 7:
            return seven;
        case 9:
            return nine;
        case 10:
            return ten;
        default:
            return none;
    }
}

bool fits(const std::string& groups, std::size_t columns, const double* sample, std::size_t lines) {
    for (std::size_t l = 0; l < lines; ++l) {
        const double* v = sample + l * columns;
        std::size_t at = 3;
        for (const char g : groups) {
            if (g == N) {
                const double length = std::sqrt(v[at] * v[at] + v[at + 1] * v[at + 1] + v[at + 2] * v[at + 2]);
                if (!(length == 0 || std::fabs(length - 1) <= UNIT_TOLERANCE)) return false;
            } else if (g == C) {
                for (int k = 0; k < 3; ++k)
                    if (!(v[at + k] >= 0 && v[at + k] <= 255 && v[at + k] == std::floor(v[at + k]))) return false;
            }
            at += g == I ? 1 : 3;
        }
    }
    return true;
}

}  // namespace

std::string PointTextLayout::describe() const {
    std::string text = "x y z";
    for (int column = 3; column < 10; ++column) {
        if (column == intensity) text += " intensity";
        if (column == colour) text += " r g b";
        if (column == normal) text += " nx ny nz";
    }
    return text;
}

bool pointTextLayout(std::size_t columns, const double* sample, std::size_t lines, PointTextLayout& layout) {
    for (const std::string& groups : layoutsOf(columns)) {
        if (!fits(groups, columns, sample, lines)) continue;
        layout = PointTextLayout();
        int at = 3;
        for (const char g : groups) {
            (g == I ? layout.intensity : g == C ? layout.colour : layout.normal) = at;
            at += g == I ? 1 : 3;
        }
        return true;
    }
    return false;
}

void readPointText(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes) {
    TextLines text(path);
    TextPiece piece;
    if (text.nextLines(PIECE_LINES, piece, true) == 0) throw std::runtime_error(path + ": no points in the file");
    double values[MAX_COLUMNS];
    std::size_t first = 0;  // the piece's first point line
    long count = -1;        // the count of the first line, where it has one
    std::size_t columns = parseLine(text, piece.starts[0], piece.numbers[0], values, MAX_COLUMNS);
    if (columns == 1) {
        if (!(values[0] >= 0 && values[0] <= 9e15) || values[0] != std::floor(values[0]))
            text.fail(piece.numbers[0], "a first line of one value holds the count, a whole number from 0 up");
        if (values[0] > static_cast<double>((text.fileBytes() + 1) / MIN_POINT_LINE))
            throw std::runtime_error(path + ": truncated data (the first line counts " +
                                     std::to_string(static_cast<long>(values[0])) +
                                     " points, more than the file holds)");
        count = static_cast<long>(values[0]);
        first = 1;
        if (piece.size() == 1) {  // the count line alone in the first piece
            if (text.nextLines(PIECE_LINES, piece, true) == 0)
                throw std::runtime_error(path + ": no points in the file");
            first = 0;
        }
        columns = parseLine(text, piece.starts[first], piece.numbers[first], values, MAX_COLUMNS);
    }

    // The layout from the first lines' values.
    const std::size_t sampled = std::min(SAMPLE_LINES, piece.size() - first);
    std::vector<double> sample(sampled * columns);
    if (columns <= MAX_COLUMNS)
        for (std::size_t l = 0; l < sampled; ++l) {
            const std::size_t at = first + l;
            const std::size_t found =
                parseLine(text, piece.starts[at], piece.numbers[at], &sample[l * columns], columns);
            if (found != columns)
                text.fail(piece.numbers[at],
                          std::to_string(found) + " values where the first point has " + std::to_string(columns));
        }
    PointTextLayout layout;
    if (!pointTextLayout(columns, sample.data(), sampled, layout)) {
        if (layoutsOf(columns).empty())
            text.fail(piece.numbers[first],
                      std::to_string(columns) +
                          " values a point, which no known layout has (x y z, then any of intensity, r g b, nx ny "
                          "nz: 3, 4, 6, 7, 9 or 10 values)");
        text.fail(piece.numbers[first], std::to_string(columns) +
                                            " values a point, but in the first lines the columns after x y z are "
                                            "neither unit normals nor colours of whole numbers 0-255");
    }

    FrameBuilder builder(0, options, layout.colour >= 0);
    // Room for the points the file's size suggests at the first piece's bytes a line, so that the arrays
    // are not copied as they grow.
    const std::size_t piece_bytes = static_cast<std::size_t>(piece.starts.back() - piece.starts[first]) + 1;
    if (piece.size() > first + 1)
        builder.reserve(static_cast<std::size_t>(static_cast<double>(text.fileBytes()) /
                                                 (static_cast<double>(piece_bytes) / (piece.size() - 1 - first)) *
                                                 1.05));
    for (;;) {
        const std::size_t start = builder.size(), lines = piece.size() - first;
        builder.grow(lines);
        forEachLine(piece, [&](std::size_t l) {
            if (l < first) return;
            double v[MAX_COLUMNS];
            const std::size_t found = parseLine(text, piece.starts[l], piece.numbers[l], v, columns);
            if (found != columns)
                text.fail(piece.numbers[l], std::to_string(found) + " values where a point (" + layout.describe() +
                                                ") has " + std::to_string(columns));
            const std::size_t i = start + l - first;
            builder.position(i, v);
            if (layout.normal >= 0 && !builder.isMissing(i)) builder.normal(i, v + layout.normal);
            if (layout.colour >= 0) {
                const double* c = v + layout.colour;
                builder.colour(i, {colourByte(c[0]), colourByte(c[1]), colourByte(c[2])});
            }
        });
        if (text.nextLines(PIECE_LINES, piece, true) == 0) break;
        first = 0;
    }
    if (count >= 0 && static_cast<std::size_t>(count) != builder.size())
        throw std::runtime_error(path + ": the first line counts " + std::to_string(count) +
                                 " points, the file holds " + std::to_string(builder.size()));
    FrameExtras extras;
    extras.source = path;
    extras.normals = layout.normal >= 0;
    auto frame = builder.finish(extras, &notes.dropped);
    out.add(std::move(frame), std::move(extras));
}

}  // namespace tessaline_tools
