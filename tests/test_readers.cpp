// The readers of the formats scanners write (PTX, PTS/XYZ text, PCD, LAS) on files written here with
// answers known by hand: positions moved by a scan's transform, grid normals facing the scanner, colours,
// column layouts, each PCD body kind, geo-referenced LAS coordinates kept to a millimetre; the refusals of
// damaged files; and the program reading them, a folder of them and a mesh written with its origin.
#include <lzf.h>
#include <sys/stat.h>

#include "MeshIO.h"
#include "PlyReader.h"
#include "ScanFormats.h"
#include "TestSupport.h"

using namespace SurfaceReconstruction;
using namespace testing_support;
using tessaline_tools::ScanInput;
using tessaline_tools::ScanReadNotes;
using tessaline_tools::ScanReadOptions;

namespace {

ScanInput readScan(const std::string& path, float scale = 1.0f, tessaline_tools::Origin origin = {},
                   ScanReadNotes* notes = nullptr) {
    ScanReadOptions options;
    options.scale = scale;
    options.origin = origin;
    ScanInput scan;
    ScanReadNotes own;
    tessaline_tools::readScanFile(path, options, scan, notes ? *notes : own);
    return scan;
}

// Each file is refused with one line that names it and says `expected`.
template <std::size_t N>
void expectRefusals(const std::pair<std::string, std::string> (&cases)[N]) {
    for (const auto& [path, expected] : cases) {
        const std::string error = errorOf([&] { readScan(path); });
        EXPECT_TRUE(contains(error, path + ": ") && contains(error, expected)) << error << "\nexpected: " << expected;
    }
}

// Bytes of a value as they lie in a little-endian file.
template <class T>
std::string bytes(T value) {
    std::string out(sizeof(T), '\0');
    std::memcpy(&out[0], &value, sizeof(T));
    return out;
}

::testing::AssertionResult near(const Vec3f& a, const std::array<double, 3>& b, double tolerance) {
    for (int k = 0; k < 3; ++k)
        if (!(std::fabs(a[k] - b[k]) <= tolerance))
            return ::testing::AssertionFailure() << "(" << a[0] << ", " << a[1] << ", " << a[2] << ") vs (" << b[0]
                                                 << ", " << b[1] << ", " << b[2] << ")";
    return ::testing::AssertionSuccess();
}

// The transform of a scan whose points are in the world already.
const char* const IDENTITY = "1 0 0 0\n0 1 0 0\n0 0 1 0\n0 0 0 1\n";

// A PTX scan: header lines, then the point lines.
std::string ptxScan(int columns, int rows, const std::string& position, const std::string& matrix,
                    const std::vector<std::string>& points) {
    std::string text =
        std::to_string(columns) + "\n" + std::to_string(rows) + "\n" + position + "\n1 0 0\n0 1 0\n0 0 1\n" + matrix;
    for (const std::string& p : points) text += p + "\n";
    return text;
}

}  // namespace

TEST(PtxFiles, ScansMoveIntoTheWorldWithGridNormalsFacingTheScanner) {
    // Scan 1: 3 columns of 4 rows on the plane z = 5 of the scanner's coordinates, pixel (c, r) at (c, r, 5),
    // column after column; pixel (1, 2) has no return. The transform turns 90 degrees about z, (x, y, z) ->
    // (-y, x, z), and moves by (100, 200, 300): its rows are the images of the axes, then the translation.
    std::vector<std::string> grid;
    for (int c = 0; c < 3; ++c)
        for (int r = 0; r < 4; ++r)
            grid.push_back(c == 1 && r == 2 ? "0 0 0 0.5" : std::to_string(c) + " " + std::to_string(r) + " 5 0.5");
    const std::string turned = "0 1 0 0\n-1 0 0 0\n0 0 1 0\n100 200 300 1\n";
    // Scan 2: an identity transform, its points in the world already, the scanner at (1, 2, 3) before the
    // plane x = 10; with colours.
    const std::string path =
        writeFile("two_scans.ptx",
                  ptxScan(3, 4, "100 200 300", turned, grid) + "\n" +
                      ptxScan(2, 2, "1 2 3", IDENTITY,
                              {"10 0 0 0.1 255 0 0", "10 1 0 0.1 0 255 0", "10 0 1 0.1 0 0 255", "10 1 1 0.1 1 2 3"}));
    const ScanInput scan = readScan(path, 2.0f);  // in half millimetres
    ASSERT_EQ(scan.frames.size(), 2u);
    const auto& a = *scan.frames[0];
    ASSERT_EQ(a.xyz.size(), 11u);
    std::size_t i = 0;
    for (int c = 0; c < 3; ++c) {
        for (int r = 0; r < 4; ++r) {
            if (c == 1 && r == 2) continue;
            EXPECT_TRUE(near(a.xyz[i], {2.0 * (100 - r), 2.0 * (200 + c), 2.0 * 305}, 1e-4)) << c << " " << r;
            // Pixel (0, 3) lies in no triangle beside the hole: it faces the scanner, (0, 3, 5) turned.
            const std::array<double, 3> facing =
                c == 0 && r == 3 ? std::array<double, 3>{3 / std::sqrt(34.0), 0, -5 / std::sqrt(34.0)}
                                 : std::array<double, 3>{0, 0, -1};
            EXPECT_TRUE(near(a.nor[i], facing, 1e-6)) << c << " " << r;
            ++i;
        }
    }
    EXPECT_TRUE(scan.extras[0].sensor && scan.extras[0].normals && scan.extras[0].colours.empty());
    EXPECT_EQ(scan.extras[0].sensor_position, (std::array<double, 3>{200, 400, 600}));
    const auto& b = *scan.frames[1];
    ASSERT_EQ(b.xyz.size(), 4u);
    EXPECT_TRUE(near(b.xyz[3], {20, 2, 2}, 1e-6));
    for (const Vec3f& n : b.nor) EXPECT_TRUE(near(n, {-1, 0, 0}, 1e-6));
    EXPECT_EQ(scan.extras[1].colours,
              (std::vector<tessaline_tools::Colour>{{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {1, 2, 3}}));
    EXPECT_EQ(scan.extras[1].sensor_position, (std::array<double, 3>{2, 4, 6}));
}

TEST(PtxFiles, AStepInDepthGivesNoNormalAcrossIt) {
    // Two columns of 2 x 4 pixels: one on the plane z = 5, the other on z = 50 far behind it. Were the
    // triangles across the step counted, the normals at its rim would tilt towards x.
    std::vector<std::string> grid;
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 3; ++r)
            grid.push_back(std::to_string(0.1 * c) + " " + std::to_string(0.1 * r) + (c < 2 ? " 5 1" : " 50 1"));
    const ScanInput scan = readScan(writeFile("step.ptx", ptxScan(4, 3, "0 0 0", IDENTITY, grid)));
    for (const Vec3f& n : scan.frames[0]->nor) EXPECT_TRUE(near(n, {0, 0, -1}, 1e-5));
}

TEST(PtxFiles, DamagedScansAreRefusedNamingFileAndLine) {
    const std::vector<std::string> four(4, "1 2 3 0.5");
    std::vector<std::string> five = four;
    five[2] = "1 2 3 0.5 7";
    const std::pair<std::string, std::string> cases[] = {
        {writeFile("short.ptx", ptxScan(2, 2, "0 0 0", IDENTITY, {"1.000000 2.000000 3.000000 0.5", "1 2 3 0.5"})),
         "truncated data (scan 1 ends after 2 of 4 points)"},
        {writeFile("five.ptx", ptxScan(2, 2, "0 0 0", IDENTITY, five)),
         "line 13: 5 values where the scan's points have 4"},
        {writeFile("three.ptx", ptxScan(2, 2, "0 0 0", IDENTITY, std::vector<std::string>(4, "1.5 2.5 3.5"))),
         "line 11: 3 values where a point has 4 (x y z intensity) or 7"},
        {writeFile("huge.ptx", ptxScan(100000, 100000, "0 0 0", IDENTITY, four)), "larger than the rest of the file"},
        {writeFile("half.ptx", ptxScan(2, 2, "0 0 0", IDENTITY, four).replace(0, 1, "2.5")),
         "line 1: a scan starts with its number of columns"},
        {writeFile("matrix.ptx", "2\n2\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n1 0 0 0\n0 1 0 0\n"),
         "ends in a scan's header, before a row of the transform"},
        {writeFile("word.ptx", ptxScan(2, 2, "0 0 zero", IDENTITY, four)), "line 3: 'zero' is not a number"},
        {writeFile("empty.ptx", "\n\n"), "no scan in the PTX file"},
    };
    expectRefusals(cases);
}

TEST(PointTextFiles, ColumnLayoutsAreToldFromTheirNumberAndValues) {
    const struct {
        std::vector<std::vector<double>> lines;
        const char* layout;  // empty: none fits
    } cases[] = {
        {{{1, 2, 3}}, "x y z"},
        {{{1, 2, 3, 0.5}}, "x y z intensity"},
        {{{1, 2, 3, 0, 0, 1}, {1, 2, 3, 0.6, 0.8, 0}}, "x y z nx ny nz"},
        {{{1, 2, 3, 10, 20, 30}, {1, 2, 3, 0, 0, 1}}, "x y z r g b"},
        {{{1, 2, 3, 0, 0, 1}, {1, 2, 3, 1, 0, 0}}, "x y z nx ny nz"},  // both fit: the normal first
        {{{1, 2, 3, 0.5, 0.2, 0.1}}, ""},                              // neither unit nor bytes
        {{{1, 2, 3, -120, 10, 20, 30}}, "x y z intensity r g b"},
        {{{1, 2, 3, 10, 20, 30, -120}}, "x y z r g b intensity"},
        {{{1, 2, 3, 0.6, 0.8, 0, 7}}, "x y z nx ny nz intensity"},
        {{{1, 2, 3, 0, 1, 0, 255, 128, 0}}, "x y z nx ny nz r g b"},
        {{{1, 2, 3, 255, 128, 0, 0, 1, 0}}, "x y z r g b nx ny nz"},
        {{{1, 2, 3, 7, 0.6, 0.8, 0, 1, 2, 3}}, "x y z intensity nx ny nz r g b"},
        {{{1, 2, 3, 4, 5}}, ""},
    };
    for (const auto& c : cases) {
        const std::size_t columns = c.lines[0].size();
        std::vector<double> sample;
        for (const auto& line : c.lines) sample.insert(sample.end(), line.begin(), line.end());
        tessaline_tools::PointTextLayout layout;
        const bool found = tessaline_tools::pointTextLayout(columns, sample.data(), c.lines.size(), layout);
        EXPECT_EQ(found ? layout.describe() : std::string(), c.layout) << columns << " columns";
    }
}

TEST(PointTextFiles, PtsAndXyzFilesReadWithTheirCountsColoursAndNormals) {
    // PTS: the count first, then x y z intensity r g b; in centimetres.
    const ScanInput pts =
        readScan(writeFile("cloud.pts", "3\n1 2 3 -5 255 128 0\n4 5 6 -5 1 2 3\n\n7 8 9 -5 0 0 0\n"), 10.0f);
    ASSERT_EQ(pts.frames.size(), 1u);
    ASSERT_EQ(pts.frames[0]->xyz.size(), 3u);
    EXPECT_TRUE(near(pts.frames[0]->xyz[2], {70, 80, 90}, 1e-5));
    EXPECT_FALSE(pts.extras[0].normals);
    EXPECT_EQ(pts.extras[0].colours, (std::vector<tessaline_tools::Colour>{{255, 128, 0}, {1, 2, 3}, {0, 0, 0}}));
    // XYZ with normals, commas between the values, a comment, a line without its line end; a normal of no
    // length leaves its point out.
    const ScanInput xyz =
        readScan(writeFile("cloud.XYZ", "# x,y,z,nx,ny,nz\n1,2,3,0,0,1\n4,5,6,0,0,0\n7,8,9,0.6,0.8,0"));
    ASSERT_EQ(xyz.frames[0]->xyz.size(), 2u);
    EXPECT_TRUE(xyz.extras[0].normals);
    EXPECT_TRUE(near(xyz.frames[0]->nor[0], {0, 0, 1}, 1e-7));
    EXPECT_TRUE(near(xyz.frames[0]->nor[1], {0.6, 0.8, 0}, 1e-7));
    // Large files are parsed on all cores, each point in its place.
    std::string large;
    for (int i = 0; i < 30000; ++i) large += std::to_string(i) + " " + std::to_string(-i) + " 0.5\n";
    const ScanInput many = readScan(writeFile("large.xyz", large));
    std::size_t wrong = 0;
    for (int i = 0; i < 30000; ++i) wrong += many.frames[0]->xyz[i] != Vec3f{float(i), float(-i), 0.5f};
    EXPECT_EQ(wrong, 0u);
}

TEST(PointTextFiles, DamagedFilesAreRefusedNamingFileAndLine) {
    std::string large;
    for (int i = 0; i < 20000; ++i) large += i == 15000 ? "1 2 x\n" : i == 19000 ? "1 2\n" : "1 2 3\n";
    const std::pair<std::string, std::string> cases[] = {
        {writeFile("count.pts", "3\n1.5 2.5 3.5\n4.5 5.5 6.5\n"), "the first line counts 3 points, the file holds 2"},
        {writeFile("huge.pts", "1000000\n1 2 3\n"), "truncated data (the first line counts 1000000 points"},
        {writeFile("fraction.pts", "2.5\n1 2 3\n"), "line 1: a first line of one value holds the count"},
        {writeFile("ragged.xyz", "1 2 3\n1 2 3 4\n"), "line 2: 4 values where the first point has 3"},
        {writeFile("large.xyz", large), "line 15001: 'x' is not a number"},
        {writeFile("five.xyz", "1 2 3 4 5\n"), "line 1: 5 values a point, which no known layout has"},
        {writeFile("neither.xyz", "1 2 3 0.5 0.2 0.1\n"), "neither unit normals nor colours"},
        {writeFile("blank.xyz", "\n# nothing\n"), "no points in the file"},
    };
    expectRefusals(cases);
}

namespace {

// A PCD of 2 x 2 points (organized: HEIGHT 2) with x y z, normal_x normal_y normal_z and a packed rgb
// (TYPE U), a padding field of two bytes between; point 2 is NaN.
const float PCD_POINTS[4][6] = {{1, 2, 3, 0, 0, 2}, {4, 5, 6, 1, 0, 0}, {NAN, NAN, NAN, 0, 0, 1}, {7, 8, 9, 0, 3, 4}};
const std::uint32_t PCD_RGB[4] = {0xFF102030u, 0x00405060u, 0, 0xFFFFFFFFu};

std::string pcdHeader(const std::string& data) {
    return "# .PCD v0.7\nVERSION 0.7\nFIELDS x y z normal_x normal_y normal_z _ rgb\nSIZE 4 4 4 4 4 4 1 4\n"
           "TYPE F F F F F F U U\nCOUNT 1 1 1 1 1 1 2 1\nWIDTH 2\nHEIGHT 2\nVIEWPOINT 10 20 30 1 0 0 0\nPOINTS 4\n"
           "DATA " +
           data + "\n";
}

std::string pcdBinaryRecords() {
    std::string out;
    for (int i = 0; i < 4; ++i) {
        for (float v : PCD_POINTS[i]) out += bytes(v);
        out += std::string(2, '\x7f') + bytes(PCD_RGB[i]);
    }
    return out;
}

}  // namespace

TEST(PcdFiles, EveryDataKindGivesTheSamePointsNormalsColoursAndViewpoint) {
    std::string ascii = pcdHeader("ascii");
    for (int i = 0; i < 4; ++i) {
        for (float v : PCD_POINTS[i]) ascii += std::isnan(v) ? "nan " : std::to_string(v) + " ";
        ascii += "0 0 " + std::to_string(PCD_RGB[i]) + "\n";  // PCL writes the packed bits as an integer
    }
    // binary_compressed: each field's values for all points, then the next field's, packed with LZF.
    const std::string records = pcdBinaryRecords();
    std::string columns;
    const int offsets[8] = {0, 4, 8, 12, 16, 20, 24, 26}, sizes[8] = {4, 4, 4, 4, 4, 4, 2, 4};
    for (int f = 0; f < 8; ++f)
        for (int i = 0; i < 4; ++i) columns += records.substr(30 * i + offsets[f], sizes[f]);
    std::string packed(columns.size() + 64, '\0');
    const unsigned packed_size = lzf_compress(columns.data(), columns.size(), &packed[0], packed.size());
    ASSERT_GT(packed_size, 0u);
    const std::string compressed = pcdHeader("binary_compressed") + bytes(std::uint32_t(packed_size)) +
                                   bytes(std::uint32_t(columns.size())) + packed.substr(0, packed_size);
    for (const std::string& path :
         {writeFile("cloud_ascii.pcd", ascii), writeFile("cloud_binary.pcd", pcdHeader("binary") + records),
          writeFile("cloud_compressed.pcd", compressed)}) {
        ScanReadNotes notes;
        const ScanInput scan = readScan(path, 2.0f, {}, &notes);
        const auto& f = *scan.frames[0];
        ASSERT_EQ(f.xyz.size(), 3u) << path;
        EXPECT_EQ(notes.dropped, 1u) << "the NaN point";
        EXPECT_TRUE(near(f.xyz[0], {2, 4, 6}, 1e-6) && near(f.xyz[2], {14, 16, 18}, 1e-6)) << path;
        EXPECT_TRUE(near(f.nor[0], {0, 0, 1}, 1e-7) && near(f.nor[2], {0, 0.6, 0.8}, 1e-7)) << path;
        EXPECT_EQ(scan.extras[0].colours,
                  (std::vector<tessaline_tools::Colour>{{0x10, 0x20, 0x30}, {0x40, 0x50, 0x60}, {255, 255, 255}}))
            << path;
        EXPECT_TRUE(scan.extras[0].normals && scan.extras[0].sensor);
        EXPECT_EQ(scan.extras[0].sensor_position, (std::array<double, 3>{20, 40, 60}));
    }
    // rgb as a float written in text, as Open3D writes it: the float whose bits are 0x00405060.
    float packed_float;
    const std::uint32_t bits = 0x00405060u;
    std::memcpy(&packed_float, &bits, 4);
    char line[128];
    std::snprintf(line, sizeof(line), "1 2 3 %.10g\n", packed_float);
    const ScanInput open3d = readScan(writeFile(
        "float_rgb.pcd",
        "FIELDS x y z rgb\nSIZE 4 4 4 4\nTYPE F F F F\nWIDTH 1\nHEIGHT 1\nPOINTS 1\nDATA ascii\n" + std::string(line)));
    EXPECT_EQ(open3d.extras[0].colours, (std::vector<tessaline_tools::Colour>{{0x40, 0x50, 0x60}}));
    EXPECT_FALSE(open3d.extras[0].normals || open3d.extras[0].sensor);  // unorganized, default viewpoint
}

TEST(PcdFiles, DamagedFilesAreRefusedNamingTheFileAndTheReason) {
    const std::string header = pcdHeader("binary"), records = pcdBinaryRecords();
    std::string wrong_points = header;
    wrong_points.replace(wrong_points.find("POINTS 4"), 8, "POINTS 5");
    std::string huge = header;
    huge.replace(huge.find("WIDTH 2"), 7, "WIDTH 2000000000");
    huge.replace(huge.find("POINTS 4"), 8, "POINTS 4000000000");
    const std::string compressed_header = pcdHeader("binary_compressed");
    std::string wide_header = compressed_header;  // 200 points
    wide_header.replace(wide_header.find("WIDTH 2"), 7, "WIDTH 100");
    wide_header.replace(wide_header.find("POINTS 4"), 8, "POINTS 200");
    const std::pair<std::string, std::string> cases[] = {
        {writeFile("short.pcd", header + records.substr(0, 100)), "truncated data"},
        {writeFile("points.pcd", wrong_points + records), "POINTS 5 is not WIDTH x HEIGHT 4"},
        {writeFile("huge.pcd", huge + records), "truncated data (4000000000 points of 30 bytes promised"},
        {writeFile("sizes.pcd", compressed_header + bytes(std::uint32_t(10)) + bytes(std::uint32_t(99))),
         "unpacks to 99 bytes, not 4 points of 30 bytes"},
        {writeFile("bomb.pcd", wide_header + bytes(std::uint32_t(1)) + bytes(std::uint32_t(6000)) + "x"),
         "1 compressed bytes cannot unpack to 6000"},
        {writeFile("lzf.pcd",
                   compressed_header + bytes(std::uint32_t(8)) + bytes(std::uint32_t(120)) + std::string(8, '\xff')),
         "the compressed data is damaged (LZF)"},
        {writeFile("kind.pcd", pcdHeader("zip")), "line 11: unknown DATA 'zip'"},
        {writeFile("noxyz.pcd", "FIELDS a b c\nSIZE 4 4 4\nTYPE F F F\nWIDTH 1\nDATA ascii\n1 2 3\n"),
         "no x, y, z fields"},
        {writeFile("type.pcd", "FIELDS x y z\nSIZE 4 4 2\nTYPE F F F\nWIDTH 1\nDATA ascii\n1 2 3\n"),
         "the field z has TYPE F and SIZE 2"},
        {writeFile("ascii.pcd", "FIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nWIDTH 2\nDATA ascii\n1 2 3\n1 2 3 4\n"),
         "line 7: 4 values where a point has 3"},
        {writeFile("nodata.pcd", "FIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nWIDTH 2\n"), "the PCD header has no DATA line"},
    };
    expectRefusals(cases);
}

namespace {

// A LAS file: the public header (227 bytes up to 1.3, 375 for 1.4), then `records`.
std::string lasFile(int minor, int format, std::uint16_t record_bytes, std::uint32_t legacy_count, std::uint64_t count,
                    const double scale[3], const double offset[3], const double min[3], const double max[3],
                    const std::string& records) {
    const std::uint16_t header_bytes = minor >= 4 ? 375 : 227;
    std::string h(header_bytes, '\0');
    const auto put = [&h](std::size_t at, const std::string& b) { h.replace(at, b.size(), b); };
    put(0, "LASF");
    h[24] = 1;
    h[25] = static_cast<char>(minor);
    put(94, bytes(header_bytes));
    put(96, bytes(std::uint32_t(header_bytes)));
    h[104] = static_cast<char>(format);
    put(105, bytes(record_bytes));
    put(107, bytes(legacy_count));
    for (int k = 0; k < 3; ++k) {
        put(131 + 8 * k, bytes(scale[k]));
        put(155 + 8 * k, bytes(offset[k]));
        put(179 + 16 * k, bytes(max[k]));
        put(187 + 16 * k, bytes(min[k]));
    }
    if (minor >= 4) put(247, bytes(count));
    return h + records;
}

// A record of format 2 (26 bytes) or 7 (36 bytes): X Y Z, then the colour where the format keeps it.
std::string lasRecord(int format, std::int32_t x, std::int32_t y, std::int32_t z, std::uint16_t r, std::uint16_t g,
                      std::uint16_t b) {
    std::string out = bytes(x) + bytes(y) + bytes(z);
    out.resize(format == 2 ? 20 : 30, '\0');
    return out + bytes(r) + bytes(g) + bytes(b);
}

}  // namespace

TEST(LasFiles, GeoReferencedPointsKeepTheirMillimetresAroundTheOrigin) {
    // UTM-sized coordinates: x = X * 0.001 + 500000 metres; a float of millimetres there would be 32 mm coarse.
    const double scale[3] = {0.001, 0.001, 0.001}, offset[3] = {500000, 4000000, 100};
    const double min[3] = {500010.2, 4000020.7, 90}, max[3] = {500030.2, 4000040.1, 130};  // middle 500020.2 ...
    const std::int32_t points[3][3] = {{10123, 20456, -5001}, {30001, 40002, 29999}, {-7, 0, 7}};
    std::string records2, records7;
    for (int i = 0; i < 3; ++i) {
        records2 += lasRecord(2, points[i][0], points[i][1], points[i][2], 0x1234 * (i + 1), 0xFF00, 0x00FF);
        records7 += lasRecord(7, points[i][0], points[i][1], points[i][2], 10 * i, 20 * i, 255);  // 8 bits in 16
    }
    const std::string las12 = writeFile("utm.las", lasFile(2, 2, 26, 3, 0, scale, offset, min, max, records2));
    // 1.4, format 7: the 32-bit count is 0, the 64-bit one counts.
    const std::string las14 = writeFile("utm14.LAS", lasFile(4, 7, 36, 0, 3, scale, offset, min, max, records7));
    // The middle of the bounds, (500020.2, 4000030.4, 110) metres, rounded to whole metres.
    const tessaline_tools::Origin origin = tessaline_tools::lasOrigin(las12, 1000.0f);
    EXPECT_EQ(origin, (tessaline_tools::Origin{500020000.0, 4000030000.0, 110000.0}));
    for (const std::string& path : {las12, las14}) {
        const ScanInput scan = readScan(path, 1000.0f, origin);
        const auto& f = *scan.frames[0];
        ASSERT_EQ(f.xyz.size(), 3u);
        for (int i = 0; i < 3; ++i) {
            // X * 0.001 m = X mm: the point at offset + X mm, less the origin.
            const std::array<double, 3> expected = {500000000.0 + points[i][0] - origin[0],
                                                    4000000000.0 + points[i][1] - origin[1],
                                                    100000.0 + points[i][2] - origin[2]};
            EXPECT_TRUE(near(f.xyz[i], expected, 0.001)) << path << " point " << i;
        }
        EXPECT_FALSE(scan.extras[0].normals);
        for (const Vec3f& n : f.nor) EXPECT_EQ(n, (Vec3f{0, 0, 0}));
    }
    // 16-bit colours to their high bytes; 8-bit values kept in 16 bits as they are.
    EXPECT_EQ(readScan(las12).extras[0].colours,
              (std::vector<tessaline_tools::Colour>{{0x12, 0xFF, 0}, {0x24, 0xFF, 0}, {0x36, 0xFF, 0}}));
    EXPECT_EQ(readScan(las14).extras[0].colours,
              (std::vector<tessaline_tools::Colour>{{0, 0, 255}, {10, 20, 255}, {20, 40, 255}}));
}

TEST(LasFiles, DamagedAndCompressedFilesAreRefusedWithWhatToDo) {
    const double scale[3] = {0.01, 0.01, 0.01}, offset[3] = {0, 0, 0}, min[3] = {0, 0, 0}, max[3] = {1, 1, 1};
    const std::string record = lasRecord(2, 1, 2, 3, 0, 0, 0);
    const std::string good = lasFile(2, 2, 26, 2, 0, scale, offset, min, max, record + record);
    std::string compressed = good, version = good, short_records = good, zero_scale = good;
    compressed[104] = static_cast<char>(0x82);  // LASzip's mark on the format
    version[24] = 2;
    short_records.replace(105, 2, bytes(std::uint16_t(20)));
    zero_scale.replace(139, 8, bytes(0.0));
    const std::pair<std::string, std::string> cases[] = {
        {writeFile("cut.las", good.substr(0, good.size() - 1)),
         "truncated data (the header counts 2 points of 26 bytes"},
        {writeFile("many.las", lasFile(4, 7, 36, 0, std::uint64_t(1) << 40, scale, offset, min, max, "")),
         "truncated data (the header counts 1099511627776 points"},
        {writeFile("laz_inside.las", compressed), "decompress them with laszip or PDAL"},
        {writeFile("version.las", version), "LAS version 2.2"},
        {writeFile("records.las", short_records),
         "records of 20 bytes, shorter than the 26 of point data record format 2"},
        {writeFile("scale.las", zero_scale), "the header's scale or offset of y is zero"},
        {writeFile("notlas.las", "LASX" + good.substr(4)), "not a LAS file"},
        {writeFile("header.las", good.substr(0, 100)), "the LAS header is cut short"},
        {writeFile("cloud.laz", good),
         "LAZ files are compressed LAS, which no Debian library reads; convert it with laszip "
         "or PDAL (pdal translate in.laz out.las), then read the .las"},
        {writeFile("scan.E57", "ASTM-E57"), "E57 files are not read"},
        {writeFile("cloud.obj", "v 1 2 3\n"), "unknown point format"},
    };
    expectRefusals(cases);
    // A file of no known extension that starts as a PLY file is read as one, as the program always did.
    const std::string ply =
        "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
        "property float z\nend_header\n1 2 3\n";
    EXPECT_EQ(readScan(writeFile("frame.data", ply)).frames[0]->xyz.size(), 1u);
}

TEST(MeshFiles, AnOriginIsAddedBackInDoublePrecision) {
    IndexedMesh mesh;
    mesh.vertices = {{0.25f, -1.5f, 3.0f}, {1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}};
    mesh.triangles = {{0, 1, 2}};
    mesh.colors = {{255, 0, 0}, {0, 128, 0}, {1, 2, 3}};                   // which the PLY carries beside the positions
    const tessaline_tools::Origin origin = {500020.0, 4000030.0, -110.0};  // metres
    const std::string ply = tempPath("origin.ply"), obj = tempPath("origin.obj");
    tessaline_tools::writeMesh(ply, mesh, &origin);
    tessaline_tools::writeMesh(obj, mesh, &origin);
    tessaline_tools::PlyReader reader(ply);
    const tessaline_tools::PlyElement& vertex = *reader.find("vertex");
    EXPECT_EQ(vertex.properties[0].size, 8) << "x is a double";
    std::vector<int> columns;
    for (const char* name : {"x", "y", "z", "red", "green", "blue"}) columns.push_back(vertex.find(name));
    std::vector<std::array<double, 6>> read(3);
    reader.readScalars(vertex, columns, [&](long i, const double* p) { std::copy(p, p + 6, read[i].begin()); });
    EXPECT_EQ(read[0], (std::array<double, 6>{500020.25, 4000028.5, -107.0, 255, 0, 0}));
    EXPECT_EQ(read[1], (std::array<double, 6>{500021.0, 4000030.0, -110.0, 0, 128, 0}));
    EXPECT_EQ(read[2], (std::array<double, 6>{500020.0, 4000031.0, -110.0, 1, 2, 3}));
    std::ifstream text(obj);
    std::string first;
    std::getline(text, first);
    std::getline(text, first);
    EXPECT_EQ(first.rfind("v 500020.25 4000028.5 -107 ", 0), 0u) << first;
    // Read back with the origin taken off: the mesh as it was.
    EXPECT_EQ(tessaline_tools::readMesh(ply, 1.0f, &origin).vertices, mesh.vertices);
    const std::string stl = tempPath("origin.stl");
    EXPECT_THROW(tessaline_tools::writeMesh(stl, mesh, &origin), std::runtime_error);
}

namespace {

// A PTX scan of the plane z = 300 seen from the origin: `n` x `n` pixels 1 unit apart, moved by (dx, 0, 0).
std::string planeScan(int n, double dx) {
    std::vector<std::string> grid;
    for (int c = 0; c < n; ++c)
        for (int r = 0; r < n; ++r)
            grid.push_back(std::to_string(c - n / 2) + " " + std::to_string(r - n / 2) + " 300 1");
    return ptxScan(n, n, std::to_string(dx) + " 0 0", "1 0 0 0\n0 1 0 0\n0 0 1 0\n" + std::to_string(dx) + " 0 0 1\n",
                   grid);
}

}  // namespace

TEST(Program, AFolderOfScanFormatsIsReadWholeButNeverItsTextNotesOrItsOwnMesh) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("scan_formats");
    mkdir(folder.c_str(), 0755);
    std::ofstream(folder + "/a.PTX") << planeScan(60, 0);
    std::ofstream(folder + "/b.xyz") << [] {
        std::string text;  // the plane beside the scan, with normals towards the scanner
        for (int x = 30; x < 90; ++x)
            for (int y = -30; y < 30; ++y) text += std::to_string(x) + " " + std::to_string(y) + " 300 0 0 -1\n";
        return text;
    }();
    std::ofstream(folder + "/optimized-markers.txt") << "# id x y z nx ny nz\n1 2 3 4 5 6 7\n";
    std::ofstream(folder + "/notes.md") << "not a scan\n";
    const std::string output = folder + "/mesh.ply";
    for (int run = 0; run < 2; ++run) {  // the second run finds its own mesh of the first in the folder
        const ProgramRun r = runProgramOk("reconstruct " + folder + " --json --quiet -o " + output);
        EXPECT_TRUE(contains(r.out, "\"frames\": 2, \"points\": 7200")) << r.out;
    }
    const IndexedMesh mesh = tessaline_tools::readMesh(output);
    ASSERT_FALSE(mesh.vertices.empty());
    for (const auto& v : mesh.vertices) ASSERT_NEAR(v[2], 300.0f, 0.05f);
}

// Point files named one by one are read together, as the files of a folder are: the same frames in the same
// order give the same mesh, and of several bad files the first named is the one reported.
TEST(Program, FilesNamedOneByOneMeshAsTheirFolderAndTheFirstBadOneIsNamed) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("named_frames");
    std::filesystem::remove_all(folder);
    mkdir(folder.c_str(), 0755);
    std::vector<std::string> names;
    for (int f = 0; f < 4; ++f) {  // strips of a wavy sheet, each a frame of its own
        std::string text;
        for (int x = 20 * f; x < 20 * f + 20; ++x)
            for (int y = -30; y < 30; ++y)
                text +=
                    std::to_string(x) + " " + std::to_string(y) + " " + std::to_string(300 + (x * y) % 3) + " 0 0 -1\n";
        names.push_back(folder + "/strip_" + std::to_string(f) + ".xyz");
        std::ofstream(names.back()) << text;
    }
    const std::string from_folder = tempPath("named_frames_folder.ply"), named = tempPath("named_frames_named.ply");
    runProgramOk("reconstruct " + folder + " --quiet -o " + from_folder);
    std::string arguments;
    for (const std::string& name : names) arguments += name + " ";
    runProgramOk("reconstruct " + arguments + "--quiet -o " + named);
    const std::string bytes = readFile(from_folder);
    EXPECT_GT(bytes.size(), 1000u);
    EXPECT_TRUE(bytes == readFile(named));

    const std::string bad_one = writeFile("named_bad_one.xyz", "1 2 3 0 0 1\n1 2 x 0 0 1\n");
    const std::string bad_two = writeFile("named_bad_two.xyz", "1 2\n");
    const std::string never = tempPath("named_never.ply");
    const ProgramRun run =
        runProgram("reconstruct " + names[0] + " " + bad_one + " " + names[1] + " " + bad_two + " -o " + never);
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(contains(run.err, "named_bad_one.xyz")) << run.err;
    EXPECT_FALSE(contains(run.err, "named_bad_two.xyz")) << run.err;
    EXPECT_FALSE(std::ifstream(never).good());
}

TEST(Program, ALasRunWritesItsMeshAtTheGeoReferencedCoordinates) {
    TESSALINE_REQUIRE_PROGRAM();
    // A 200 x 200 point plane 5 mm apart at UTM coordinates, in metres; LAS has no normals.
    const double scale[3] = {0.001, 0.001, 0.001}, offset[3] = {600000, 5000000, 0};
    const double min[3] = {600000, 5000000, 50}, max[3] = {600000.99, 5000000.99, 50};
    std::string records;
    for (int i = 0; i < 200; ++i)
        for (int j = 0; j < 200; ++j) records += lasRecord(2, 5 * i, 5 * j, 50000, 0, 0, 0);
    const std::string las = writeFile("plane.las", lasFile(2, 2, 26, 40000, 0, scale, offset, min, max, records));
    const std::string output = tempPath("plane_mesh.ply"), stl = tempPath("plane_mesh.stl");
    const ProgramRun refused = runProgram("reconstruct " + las + " --units m -o " + stl);
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(contains(refused.err, stl + ": STL holds coordinates as floats")) << refused.err;
    const ProgramRun r = runProgram("reconstruct " + las + " --units m --quiet -o " + output);
    if (r.status == 1 && contains(r.err, "no normals")) GTEST_SKIP() << "this build estimates no normals: " << r.err;
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "origin 600000 5000000 50")) << r.out;  // the rounded middle of the bounds
    tessaline_tools::PlyReader reader(output);
    const tessaline_tools::PlyElement& vertex = *reader.find("vertex");
    std::size_t off_plane = 0, outside = 0, count = 0;
    reader.readScalars(vertex, {0, 1, 2}, [&](long, const double* p) {
        off_plane += std::fabs(p[2] - 50.0) > 0.001;
        outside += p[0] < 599999.99 || p[0] > 600001.01 || p[1] < 4999999.99 || p[1] > 5000001.01;
        ++count;
    });
    EXPECT_GT(count, 1000u);
    EXPECT_EQ(off_plane, 0u);
    EXPECT_EQ(outside, 0u);
}
