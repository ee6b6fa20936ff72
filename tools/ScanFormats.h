// The point formats scanners write, read into frames beside PLY: PTX (terrestrial scanners: gridded
// scans with the scanner's pose), PTS and XYZ text, PCL's PCD and LAS. Each reader refuses what it cannot
// read with one line that names the file and the reason (and the line, for text), and checks every count
// against the file's size before anything is sized after it.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "ScanInput.h"

namespace tessaline_tools {

struct ScanReadOptions {
    float scale = 1.0f;  // millimetres in one unit of the file (--units)
    int scale_code = 8;  // the word of every point
    Origin origin = {};  // millimetres: taken off every point in double precision before the rounding to float
};

struct ScanReadNotes {
    std::size_t dropped = 0;  // points with NaN coordinates (or a normal of no length) left out
    long faces = 0;           // a PLY mesh's faces: its vertices were read as points
};

enum class ScanFormat { Ply, Ptx, PointText, Pcd, Las, Laz, E57, Unknown };

// The format by the file's extension, in any case: .ply, .ptx, .pts, .xyz, .pcd, .las, .laz, .e57; .txt is
// read as XYZ text when named itself (`in_folder` false) and passed over in a folder, where other text
// files (a marker list, notes) lie beside the scans.
ScanFormat scanFormatOf(const std::string& path, bool in_folder = false);

// Reads one file of any format above into frames added to `out` (PLY through readPlyPointCloud, its points
// moved by the origin; so is a file of no known extension that starts as a PLY file). A .laz or .e57 file,
// or another of no known extension, is refused with a line that says what to do. Throws std::runtime_error
// naming the file.
void readScanFile(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes);

// PTX: one frame a scan of the file. Each scan: columns, rows, the scanner's position, its three axes, a
// 4x4 transform written as four rows whose last holds the translation (a point p of the scan lies at
// p_world = M^T (p, 1): world = x * row1 + y * row2 + z * row3 + row4), then rows x columns lines
// "x y z intensity [r g b]", "0 0 0" where the beam found nothing. Normals come from the triangles of
// neighbouring pixels, turned to face the scanner; the scanner's position is the frame's sensor.
void readPtx(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes);

// PTS / XYZ text: an optional first line holding the count alone, then a point a line, its columns told
// from their number and values (see pointTextLayout).
void readPointText(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes);

// PCD (PCL): DATA ascii, binary or binary_compressed (LZF, fields column after column); fields x y z,
// normal_x normal_y normal_z (or nx ny nz), rgb or rgba packed in 4 bytes; VIEWPOINT's translation is the
// sensor's position when the cloud is organized (HEIGHT > 1) or the viewpoint is not the default.
void readPcd(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes);

// LAS 1.0-1.4, point data record formats 0-10: x = X * scale + offset in double precision, then the origin
// taken off; colours of formats 2, 3, 5, 7, 8 and 10 as bytes; no normals.
void readLas(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes);

// The origin a LAS file proposes for a run, in millimetres: the middle of its header's bounds rounded to
// whole metres (the first point's position where the bounds are not usable). Reads only the header.
Origin lasOrigin(const std::string& path, float scale);

// The columns of a PTS / XYZ line: where x, y, z, the intensity, the colour and the normal are (-1: none).
struct PointTextLayout {
    int intensity = -1, colour = -1, normal = -1;  // the first column of each; x y z are columns 0-2
    std::string describe() const;                  // "x y z intensity r g b"
};

// The layout of lines of `columns` values, chosen from the sample lines' values (`sample` holds
// `lines` x `columns` numbers): the first of the layouts of that many columns (x y z first, then the
// intensity, the colour and the normal in any order) whose colour columns hold whole numbers 0-255 and
// whose normal columns unit vectors (or zero) on every sample line; where both readings fit, the normal
// goes first, then the intensity. False when no layout fits.
bool pointTextLayout(std::size_t columns, const double* sample, std::size_t lines, PointTextLayout& layout);

}  // namespace tessaline_tools
