// The command-line program and what it rests on: PLY point clouds in every layout and malformed ones,
// welding and the mesh formats, the built-in part, the scanner simulation, surface comparison, pictures,
// and the program's answers to good and bad input; then the program as a user meets it: the resolution
// chosen from the points, warnings for a mesh too small for its points, a clean standard output (library
// lines only with --verbose, --json), finishing options, and every format it writes read back.
#include <png.h>
#include <sys/stat.h>

#include <atomic>
#include <sstream>

#include "InOrder.h"
#include "MeshIO.h"
#include "MeshRender.h"
#include "Part.h"
#include "PlyReader.h"
#include "PointCloudIO.h"
#include "ScanSimulator.h"
#include "SurfaceCompare.h"
#include "TestSupport.h"

using namespace SurfaceReconstruction;
using namespace testing_support;
using tessaline_tools::P3;
using tessaline_tools::Part;
using tessaline_tools::Triangle;

namespace {

template <class T>
void put(std::ostream& out, T value, bool big_endian) {
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    if (big_endian) std::reverse(bytes, bytes + sizeof(T));
    out.write(reinterpret_cast<const char*>(bytes), sizeof(T));
}

// A binary PLY of three points with the given byte order, properties in the order nz, x, ny, y, nx, z
// as doubles, plus an unused uchar.
void writeBinaryPly(const std::string& path, bool big_endian, bool truncate = false) {
    std::ofstream out(path, std::ios::binary);
    out << "ply\nformat " << (big_endian ? "binary_big_endian" : "binary_little_endian") << " 1.0\n"
        << "element vertex 3\nproperty double nz\nproperty double x\nproperty double ny\n"
        << "property double y\nproperty double nx\nproperty uchar quality\nproperty double z\nend_header\n";
    for (int i = 0; i < (truncate ? 2 : 3); ++i) {
        for (double v : {1.0, 10.0 + i, 0.0, 20.0 + i, 0.0}) put(out, v, big_endian);
        out.put(7);
        put(out, 30.0 + i, big_endian);
    }
}

const char* const XYZ_HEADER =
    "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
    "property float z\n";

// An ASCII point cloud of `lines.size()` points with x y z nx ny nz (a header of 10 lines), the record
// lines as given; `count` replaces the vertex count when not empty.
std::string asciiCloud(const std::string& name, const std::vector<std::string>& lines, const std::string& count = "") {
    std::string text = "ply\nformat ascii 1.0\nelement vertex " +
                       (count.empty() ? std::to_string(lines.size()) : count) +
                       "\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\nproperty float ny\n"
                       "property float nz\nend_header\n";
    for (const std::string& line : lines) text += line + "\n";
    return writeFile(name, text);
}

// The median (and 95%) of the distance line that `compare` and `reconstruct --reference` print.
bool distances(const std::string& text, double& median, double& p95) {
    const std::size_t at = text.find("distance to the reference:");
    return at != std::string::npos &&
           std::sscanf(text.c_str() + at, "distance to the reference: median %lf, 95%% %lf", &median, &p95) == 2;
}

}  // namespace

// The program reads its frame files on all cores: each result in its place, and of several failures the
// one of the first file, as a reading in order would report it.
TEST(ReadingInOrder, ResultsKeepTheirPlacesAndTheFirstFailureInOrderComesOut) {
    std::vector<int> squares(1000, -1);
    tessaline_tools::forEachInOrder(squares.size(), [&](std::size_t i) { squares[i] = static_cast<int>(i * i); });
    for (std::size_t i = 0; i < squares.size(); ++i) ASSERT_EQ(squares[i], static_cast<int>(i * i));
    std::vector<int> done(200, 0);
    try {
        tessaline_tools::forEachInOrder(done.size(), [&](std::size_t i) {
            done[i] = 1;
            if (i == 37 || i == 150) throw std::runtime_error("item " + std::to_string(i));
        });
        FAIL() << "no failure came out";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "item 37");
    }
    EXPECT_EQ(std::count(done.begin(), done.end(), 1), 200);  // every item was tried
}

TEST(PointCloudFiles, AsciiAndBothBinaryOrdersInAnyPropertyOrder) {
    const std::string ascii = writeFile(
        "ascii.ply",
        "ply\r\nformat ascii 1.0\ncomment made by hand\nelement vertex 3\nproperty float x\nproperty float y\n"
        "property float z\nproperty float normal_x\nproperty float normal_y\nproperty float normal_z\n"  // PCL's
        "element face 0\n"
        "property list uchar int vertex_indices\nend_header\n10 20 30 0 0 2\n11 21 31 0 0 1\n12 22 32 0 0 0.5\n");
    writeBinaryPly(tempPath("little.ply"), false);
    writeBinaryPly(tempPath("big.ply"), true);
    tessaline_tools::PointCloudReadInfo info;
    for (const auto& [path, scale] : {std::pair<std::string, float>{ascii, 1.0f},  // normals normalised
                                      {tempPath("little.ply"), 1000.0f},
                                      {tempPath("big.ply"), 1000.0f}}) {
        const auto frame = tessaline_tools::readPlyPointCloud(path, scale, 16, info);
        ASSERT_EQ(frame->xyz.size(), 3u) << path;
        for (std::size_t i = 0; i < 3; ++i) {
            const Vec3f expected = {(10.0f + i) * scale, (20.0f + i) * scale, (30.0f + i) * scale};
            for (int k = 0; k < 3; ++k) EXPECT_FLOAT_EQ(frame->xyz[i][k], expected[k]) << path;
            EXPECT_FLOAT_EQ(frame->nor[i][2], 1.0f) << path;
            EXPECT_EQ(frame->w[i], 16) << path;
        }
    }
    EXPECT_EQ(info.dropped, 0u);
    // A NaN position and a normal of no length leave their points out, counted.
    const auto holed = tessaline_tools::readPlyPointCloud(
        asciiCloud("nan.ply", {"1 2 3 0 0 1", "nan 2 3 0 0 1", "4 5 6 0 0 0"}), 1.0f, 8, info);
    EXPECT_EQ(holed->xyz.size(), 1u);
    EXPECT_EQ(holed->w.size(), 1u);
    EXPECT_EQ(info.dropped, 2u);
}

TEST(PointCloudFiles, MalformedFilesGiveOneClearError) {
    writeBinaryPly(tempPath("truncated.ply"), false, true);
    // Record lines: the first on line 11. Beyond 8192 records a file is read on all cores: of two bad
    // lines the first comes out.
    std::vector<std::string> good(200, "1 2 3 0 0 1"), extra(200, "1 2 3 0 0 1 7 7"), large(20000, "1 2 3 0 0 1");
    std::vector<std::string> short_line = good;
    short_line[100] = "1 2 3";
    large[15000] = "1 2 x 0 0 1";
    large[19000] = "1 2";
    const std::pair<std::string, const char*> cases[] = {
        {tempPath("missing.ply"), "cannot open"},
        {writeFile("not.ply", "solid cube\n"), "not a PLY file"},
        {writeFile("nonormals.ply", std::string(XYZ_HEADER) + "end_header\n1 2 3\n"), "no normals"},
        {tempPath("truncated.ply"), "truncated"},
        {writeFile("noend.ply", "ply\nformat ascii 1.0\nelement vertex 1\n"), "end_header"},
        {asciiCloud("extra.ply", extra), "line 11: 8 values where a vertex record has 6"},
        {asciiCloud("short.ply", short_line), "line 111: 3 values where a vertex record has 6"},
        {asciiCloud("large.ply", large), "line 15011: 'x' is not a number"},
        {asciiCloud("exponent.ply", good, "1e3"), "bad element line 'element vertex 1e3'"},
        {asciiCloud("fewer.ply", std::vector<std::string>(good.begin(), good.begin() + 50), "200"), "truncated"},
    };
    for (const auto& [path, expected] : cases) {
        tessaline_tools::PointCloudReadInfo info;
        const std::string error = errorOf([&] { tessaline_tools::readPlyPointCloud(path, 1.0f, 8, info); });
        EXPECT_TRUE(contains(error, expected)) << path << ": " << error;
        EXPECT_TRUE(contains(error, path));  // the file is named
    }
}

TEST(PointCloudFiles, LargeAsciiFilesAreReadOnAllCoresEachPointInItsPlace) {
    // Beyond 8192 records a file is parsed on all cores: every point must land in its place whatever lines
    // (blank, spaces only, \r\n ends) lie between them and wherever the cores' shares meet, the vertex element
    // must end where its records do with a face element's lines after it, and a bad line must be named by
    // its number in the file, for any team. Read in pieces of 320 KB (some 12,000 lines each), every piece is
    // parsed while the next is read into the other buffer.
    constexpr int POINTS = 120000;
    constexpr std::size_t PIECES = 320 << 10;
    const std::string header =
        "ply\nformat ascii 1.0\nelement vertex " + std::to_string(POINTS) +
        "\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\nproperty float ny\n"
        "property float nz\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n";
    const long header_lines = std::count(header.begin(), header.end(), '\n');
    std::vector<std::string> lines;
    std::vector<long> line_of(POINTS);  // the line of each point in the file, from 1
    std::mt19937 random(5);
    for (int i = 0; i < POINTS; ++i) {
        while (random() % 4 == 0) lines.push_back(random() % 2 ? "" : " \t\r");
        line_of[static_cast<std::size_t>(i)] = header_lines + static_cast<long>(lines.size()) + 1;
        lines.push_back(std::to_string(i) + " " + std::to_string(-i) + " 0.5 0 " + (i % 2 ? "-3" : "3") + " 0" +
                        (i % 3 ? "" : "\r"));
    }
    const auto write = [&](const std::string& name) {
        std::string text = header;
        for (const std::string& line : lines) text += line + "\n";
        return writeFile(name, text + "\n3 0 1 2\n");
    };
    const std::string path = write("large_cloud.ply");
    const int threads = omp_get_max_threads();
    for (const int team : {1, 2, 3}) {
        omp_set_num_threads(team);
        tessaline_tools::PointCloudReadInfo info;
        const auto frame = tessaline_tools::readPlyPointCloud(path, 2.0f, 8, info);
        ASSERT_EQ(frame->xyz.size(), static_cast<std::size_t>(POINTS)) << team;
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < POINTS; ++i)
            wrong +=
                frame->xyz[i] != Vec3f{2.0f * i, -2.0f * i, 1.0f} || frame->nor[i] != Vec3f{0, i % 2 ? -1.0f : 1, 0};
        EXPECT_EQ(wrong, 0u) << team;

        tessaline_tools::PlyReader ply(path, PIECES);
        std::vector<double> read(2 * POINTS, 0.5);
        ply.readScalars(*ply.find("vertex"), {1, 4}, [&](long i, const double* v) {
            read[2 * static_cast<std::size_t>(i)] = v[0];
            read[2 * static_cast<std::size_t>(i) + 1] = v[1];
        });
        wrong = 0;
        for (std::size_t i = 0; i < POINTS; ++i)
            wrong += read[2 * i] != -static_cast<double>(i) || read[2 * i + 1] != (i % 2 ? -3.0 : 3.0);
        EXPECT_EQ(wrong, 0u) << team;
        std::vector<double> face;
        ply.readRecords(*ply.find("face"), [&](long, const tessaline_tools::PlyRecord& r) { face = r.lists[0]; });
        EXPECT_EQ(face, (std::vector<double>{0, 1, 2})) << team;
    }
    // Bad lines: the first of them in the file is named, also where others follow it among the records
    // decoded together, or in the next piece.
    for (const std::vector<int>& bads : std::vector<std::vector<int>>{
             {7}, {POINTS / 2 + 13, POINTS / 2 + 14, POINTS / 2 + 90, POINTS / 2 + 20000}, {POINTS - 1}}) {
        const int bad = bads.front();
        std::vector<std::string> kept;
        for (const int b : bads) {
            std::string& line =
                lines[static_cast<std::size_t>(line_of[static_cast<std::size_t>(b)] - header_lines - 1)];
            kept.push_back(line);
            line.replace(0, line.find(' '), "x1");
        }
        const std::string bad_path = write("bad_large_cloud.ply");
        for (const int team : {1, 3}) {
            omp_set_num_threads(team);
            tessaline_tools::PointCloudReadInfo info;
            const std::string error = errorOf([&] { tessaline_tools::readPlyPointCloud(bad_path, 1.0f, 8, info); });
            EXPECT_TRUE(contains(
                error, "line " + std::to_string(line_of[static_cast<std::size_t>(bad)]) + ": 'x1' is not a number"))
                << error;
            const std::string piece_error = errorOf([&] {
                tessaline_tools::PlyReader ply(bad_path, PIECES);
                ply.readScalars(*ply.find("vertex"), {0}, [](long, const double*) {});
            });
            EXPECT_EQ(piece_error, error);
        }
        for (std::size_t k = 0; k < bads.size(); ++k)
            lines[static_cast<std::size_t>(line_of[static_cast<std::size_t>(bads[k])] - header_lines - 1)] = kept[k];
    }
    omp_set_num_threads(threads);
}

TEST(PointCloudFiles, AsciiNumbersReadAsStrtodReadsThemWholeOrNot) {
    // Whole numbers and short decimals take a short way through the parser: every token must still give
    // strtod's bits, in the scalar records and in a list record, and a token that only starts like a number
    // is refused.
    const std::vector<std::string> tokens = {"0",
                                             "-0",
                                             "+7",
                                             "007",
                                             "-123456789012345",
                                             "999999999999999",
                                             "1234567890123456",
                                             "9007199254740993",
                                             "18446744073709551617",
                                             "1.5",
                                             "-2e3",
                                             "1e400",
                                             "-1e-400",
                                             ".5",
                                             "5.",
                                             "-0.0192",
                                             "0.187151",
                                             "-0.0",
                                             "+3.25",
                                             "123456789.012345",
                                             "0.000000000000001",
                                             "9007199254.740993",
                                             "1234567890.1234567",
                                             "7.5e-3"};
    std::string body;
    for (const std::string& token : tokens) body += token + "\n";
    const std::string list = "3 -0 42 0000000000000000001\n";
    const std::string path =
        writeFile("numbers.ply", "ply\nformat ascii 1.0\nelement value " + std::to_string(tokens.size()) +
                                     "\nproperty double v\nelement row 1\n"
                                     "property list uchar int i\nend_header\n" +
                                     body + list);
    tessaline_tools::PlyReader ply(path);
    std::vector<double> read(tokens.size());
    ply.readScalars(*ply.find("value"), {0},
                    [&](long i, const double* v) { read[static_cast<std::size_t>(i)] = v[0]; });
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        const double expected = std::strtod(tokens[i].c_str(), nullptr);
        EXPECT_EQ(std::memcmp(&read[i], &expected, sizeof(double)), 0) << tokens[i] << " read as " << read[i];
    }
    std::vector<double> row;
    ply.readRecords(*ply.find("row"), [&](long, const tessaline_tools::PlyRecord& r) { row = r.lists[0]; });
    ASSERT_EQ(row.size(), 3u);
    EXPECT_TRUE(std::signbit(row[0]) && row[0] == 0.0);
    EXPECT_EQ(row[1], 42.0);
    EXPECT_EQ(row[2], 1.0);
    // Decimals of every length up to 17 digits, the point anywhere: the quotient of the digits and a power
    // of ten must round as strtod rounds.
    std::mt19937_64 random(7);
    std::vector<std::string> decimals;
    for (int i = 0; i < 20000; ++i) {
        std::string token = random() % 2 ? "-" : "";
        const int length = 1 + static_cast<int>(random() % 17);
        for (int k = 0; k < length; ++k) token += static_cast<char>('0' + random() % 10);
        if (length > 1) token.insert(token.size() - 1 - random() % static_cast<unsigned>(length - 1), ".");
        decimals.push_back(token);
    }
    std::string decimal_body;
    for (const std::string& token : decimals) decimal_body += token + " \r\n";
    const std::string decimal_path =
        writeFile("decimals.ply", "ply\nformat ascii 1.0\nelement value " + std::to_string(decimals.size()) +
                                      "\nproperty double v\nend_header\n" + decimal_body);
    tessaline_tools::PlyReader decimal_ply(decimal_path);
    std::vector<double> decimal_read(decimals.size());
    decimal_ply.readScalars(*decimal_ply.find("value"), {0},
                            [&](long i, const double* v) { decimal_read[static_cast<std::size_t>(i)] = v[0]; });
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < decimals.size(); ++i) {
        const double expected = std::strtod(decimals[i].c_str(), nullptr);
        wrong += std::memcmp(&decimal_read[i], &expected, sizeof(double)) != 0;
    }
    EXPECT_EQ(wrong, 0u);
    // Records of six values as scanners write them (up to eight digits each side of the point) and in every
    // other form, spaces of any kind between them: each value strtod's, for the columns asked in any order,
    // read whole and in pieces of 4 KB (whose last lines lie close to the end of what the buffer holds).
    std::string record_body;
    std::vector<std::array<std::string, 6>> records(4000);
    const char* const separators[] = {" ", " ", " ", "  ", "\t", " \t", "\r "};
    for (auto& record : records) {
        if (random() % 8 == 0) record_body += separators[random() % 7];
        for (std::size_t k = 0; k < 6; ++k) {
            std::string& token = record[k];
            token = random() % 3 == 0 ? "-" : (random() % 16 == 0 ? "+" : "");
            const bool point = random() % 6 != 0;
            const int whole = static_cast<int>(random() % (random() % 4 ? 4 : 11)) + (point ? 0 : 1);
            const int after = point ? static_cast<int>(random() % (random() % 4 ? 9 : 11)) + (whole == 0) : 0;
            for (int d = 0; d < whole; ++d) token += static_cast<char>('0' + random() % 10);
            if (point) token += ".";
            for (int d = 0; d < after; ++d) token += static_cast<char>('0' + random() % 10);
            if (random() % 24 == 0) token += "e" + std::to_string(static_cast<int>(random() % 9) - 4);
            record_body += token + (k < 5 ? separators[random() % 7] : (random() % 3 ? "" : " \r"));
        }
        record_body += "\n";
    }
    const std::string record_path =
        writeFile("records.ply", "ply\nformat ascii 1.0\nelement point " + std::to_string(records.size()) +
                                     "\nproperty double a\nproperty double b\nproperty double c\nproperty double d\n"
                                     "property double e\nproperty double f\nend_header\n" +
                                     record_body);
    for (const std::size_t piece_bytes : {tessaline_tools::PlyReader::PIECE_BYTES, std::size_t(4096)}) {
        tessaline_tools::PlyReader record_ply(record_path, piece_bytes);
        const std::vector<int> columns = {5, 0, 3, 1, 4, 2};
        std::vector<double> values(6 * records.size());
        record_ply.readScalars(*record_ply.find("point"), columns,
                               [&](long i, const double* v) { std::copy(v, v + 6, values.begin() + 6 * i); });
        wrong = 0;
        for (std::size_t i = 0; i < records.size(); ++i)
            for (std::size_t k = 0; k < 6; ++k) {
                const double expected = std::strtod(records[i][static_cast<std::size_t>(columns[k])].c_str(), nullptr);
                wrong += std::memcmp(&values[6 * i + k], &expected, sizeof(double)) != 0;
            }
        EXPECT_EQ(wrong, 0u) << piece_bytes;
    }
    for (const char* bad : {"12a", "-", "1-2", "+-3", "0x10", "1.2.3", "4.5e", "-.", "7.-1"}) {
        const std::string bad_path = writeFile("bad_number.ply",
                                               "ply\nformat ascii 1.0\nelement value 1\n"
                                               "property double v\nend_header\n" +
                                                   std::string(bad) + "\n");
        const std::string error = errorOf([&] {
            tessaline_tools::PlyReader bad_ply(bad_path);
            bad_ply.readScalars(*bad_ply.find("value"), {0}, [](long, const double*) {});
        });
        EXPECT_TRUE(contains(error, "is not a number")) << bad << ": " << error;
    }
}

TEST(PointCloudFiles, ListLinesReadStraightOrTheGeneralWayGiveTheSameRecords) {
    // Records of one list each: lines of whole numbers are read straight from the buffer, the others
    // (signs, fractions, blank lines passed over) the general way; either must give the same lists, and a
    // bad line must be reported at its own line.
    const std::vector<std::pair<std::string, std::vector<double>>> lines = {
        {"0 \r", {}},
        {"1 2090 \r", {2090}},
        {"  3 0 1 2", {0, 1, 2}},
        {"2\t5   6\t", {5, 6}},
        {"1 -4", {-4}},
        {"1 +4", {4}},
        {"1 2.5", {2.5}},
        {"1 999999999999999", {999999999999999}},
        {"1 1234567890123456", {1234567890123456}},
        {"001 007", {7}},
    };
    std::string body;
    for (std::size_t i = 0; i < lines.size(); ++i) body += lines[i].first + (i == 4 ? "\n\n   \n" : "\n");
    const std::string header = "ply\nformat ascii 1.0\nelement row " + std::to_string(lines.size()) +
                               "\nproperty list uchar int i\nend_header\n";
    tessaline_tools::PlyReader ply(writeFile("lists.ply", header + body));
    std::vector<std::vector<double>> read;
    ply.readRecords(*ply.find("row"), [&](long r, const tessaline_tools::PlyRecord& record) {
        EXPECT_EQ(r, static_cast<long>(read.size()));
        read.push_back(record.lists[0]);
    });
    ASSERT_EQ(read.size(), lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(read[i], lines[i].second) << lines[i].first;
    // Line 5 is the header's end: the records start on line 6, and the blank lines count.
    const std::pair<std::string, const char*> bad[] = {
        {"0\n2 1\n0\n", "line 7: the row record ends before its i"},
        {"0\n\n1 5 6 \r\n", "line 8: more values than a row record has"},
        {"1 5x\n0\n0\n", "line 6: '5x' is not a number"},
        {"0\n0\n1 5\n", ""},  // whole
    };
    for (const auto& [text, expected] : bad) {
        const std::string path = writeFile("bad_lists.ply",
                                           "ply\nformat ascii 1.0\nelement row 3\n"
                                           "property list uchar int i\nend_header\n" +
                                               text);
        const std::string error = errorOf([&] {
            tessaline_tools::PlyReader bad_ply(path);
            bad_ply.readRecords(*bad_ply.find("row"), [](long, const tessaline_tools::PlyRecord&) {});
        });
        if (*expected == '\0') {
            EXPECT_TRUE(error.empty()) << error;
        } else {
            EXPECT_TRUE(contains(error, expected)) << text << ": " << error;
        }
    }
}

TEST(PointCloudFiles, FourByteValuesReadTheSameInEitherByteOrderAndBesideOtherSizes) {
    // Records of a float, an int, an unsigned int and a byte: little-endian values of four bytes take their
    // own short way, the others the general decoder; both must give every value's bits.
    const float floats[3] = {1.5e-3f, -7.25f, 3.4e38f};
    const std::int32_t ints[3] = {-5, INT32_MIN, 123456789};
    const std::uint32_t uints[3] = {4000000000u, 0u, 17u};
    for (const bool big : {false, true}) {
        const std::string path = tempPath(big ? "four_big.ply" : "four_little.ply");
        {
            std::ofstream out(path, std::ios::binary);
            out << "ply\nformat " << (big ? "binary_big_endian" : "binary_little_endian") << " 1.0\n"
                << "element vertex 3\nproperty float f\nproperty int i\nproperty uint u\nproperty uchar b\n"
                << "end_header\n";
            for (int r = 0; r < 3; ++r) {
                put(out, floats[r], big);
                put(out, ints[r], big);
                put(out, uints[r], big);
                out.put(static_cast<char>(200 + r));
            }
        }
        for (const std::vector<int>& columns : {std::vector<int>{2, 0, 1}, std::vector<int>{2, 0, 1, 3}}) {
            tessaline_tools::PlyReader ply(path);
            std::vector<std::vector<double>> read(3);
            ply.readScalars(*ply.find("vertex"), columns, [&](long r, const double* v) {
                read[static_cast<std::size_t>(r)].assign(v, v + columns.size());
            });
            for (std::size_t r = 0; r < 3; ++r) {
                ASSERT_EQ(read[r].size(), columns.size());
                EXPECT_EQ(read[r][0], static_cast<double>(uints[r])) << big << " record " << r;
                EXPECT_EQ(read[r][1], static_cast<double>(floats[r])) << big << " record " << r;
                EXPECT_EQ(read[r][2], static_cast<double>(ints[r])) << big << " record " << r;
                if (columns.size() == 4) {
                    EXPECT_EQ(read[r][3], 200.0 + static_cast<double>(r));
                }
            }
        }
    }
}

TEST(PointCloudFiles, FloatPointsReadTheSameInEitherByteOrder) {
    // Little-endian points of float coordinates and normals and a four-byte word take their own way past the
    // doubles of the general decoder (which reads the big-endian copy): every point, normal and word must
    // come out with the same bits, the same ones left out, on one core and several (beyond 4,096 records a
    // piece is decoded on all cores).
    const float nan = std::nanf(""), inf = INFINITY;
    for (const char* word_type : {"int", "uint", "float", ""}) {
        for (const bool normals : {true, false}) {
            std::vector<tessaline_tools::PointCloudReadInfo> infos(2);
            std::vector<std::shared_ptr<FrameDataWithInfo>> frames(2);
            for (const bool big : {false, true}) {
                const std::string path = tempPath(big ? "float_points_big.ply" : "float_points_little.ply");
                {
                    std::ofstream out(path, std::ios::binary);
                    out << "ply\nformat " << (big ? "binary_big_endian" : "binary_little_endian") << " 1.0\n"
                        << "element vertex 9001\nproperty uchar quality\nproperty float z\nproperty float x\n"
                        << "property float y\n";
                    if (normals) out << "property float nx\nproperty float ny\nproperty float nz\n";
                    if (*word_type != '\0') out << "property " << word_type << " w\n";
                    out << "end_header\n";
                    for (int i = 0; i < 9001; ++i) {
                        out.put(static_cast<char>(i));
                        const float x = i % 997 == 5 ? nan : 0.37f * static_cast<float>(i) - 1000.0f;
                        put(out, i % 1009 == 7 ? inf : 1.0f / static_cast<float>(i + 3), big);  // z
                        put(out, x, big);
                        put(out, -3.3e-5f * static_cast<float>(i * i % 7919), big);  // y
                        if (normals) {
                            const float n[3] = {i % 3 == 0 ? 0.0f : 0.1f * static_cast<float>(i % 17),
                                                i % 2 == 0 ? -2.5f : 1e-20f, i % 1013 == 9 ? nan : 0.7f};
                            for (float v : i % 991 == 3 ? std::vector<float>{0, 0, 0} : std::vector<float>(n, n + 3))
                                put(out, v, big);
                        }
                        const std::string type = word_type;
                        if (type == "int")
                            put(out, static_cast<std::int32_t>(i * 48271 - (i % 5 == 0 ? INT32_MAX : 0)), big);
                        if (type == "uint") put(out, static_cast<std::uint32_t>(i) * 2654435761u, big);
                        if (type == "float")
                            put(out, i % 4 == 0 ? 3e9f : (i % 4 == 1 ? nan : -0.75f * static_cast<float>(i)), big);
                    }
                }
                tessaline_tools::FrameExtras extras;  // a file without normals is read too
                frames[big] = tessaline_tools::readPlyPointCloud(path, 1.7f, 16, infos[big], &extras);
                EXPECT_EQ(extras.normals, normals);
            }
            const std::string what = std::string(word_type) + (normals ? " with normals" : " without normals");
            ASSERT_EQ(frames[0]->xyz.size(), frames[1]->xyz.size()) << what;
            EXPECT_GT(infos[0].dropped, 0u) << what;  // the NaN and infinite points, and the empty normals
            EXPECT_EQ(infos[0].dropped, infos[1].dropped) << what;
            EXPECT_EQ(infos[0].dropped + frames[0]->xyz.size(), 9001u) << what;
            const std::size_t n = frames[0]->xyz.size();
            EXPECT_EQ(std::memcmp(frames[0]->xyz.data(), frames[1]->xyz.data(), n * sizeof(Vec3f)), 0) << what;
            EXPECT_EQ(std::memcmp(frames[0]->nor.data(), frames[1]->nor.data(), n * sizeof(Vec3f)), 0) << what;
            EXPECT_EQ(std::memcmp(frames[0]->w.data(), frames[1]->w.data(), n * sizeof(std::int32_t)), 0) << what;
        }
    }
}

TEST(PointCloudFiles, FramesWrittenAsOnePointListReadBackInOrder) {
    // 70,000 points in frames of different sizes (one empty): more than the writer's buffer holds, and
    // not a whole number of buffers, so the last part of the file is written after the loop.
    Frames frames;
    std::vector<Vec3f> xyz, nor;
    for (std::size_t size : {30001u, 0u, 39999u}) {
        frames.push_back(std::make_shared<FrameDataWithInfo>());
        for (std::size_t i = 0; i < size; ++i) {
            const float t = static_cast<float>(xyz.size());
            nor.push_back({0.0f, 0.0f, 0.0f});
            nor.back()[xyz.size() % 3] = xyz.size() % 2 ? 1.0f : -1.0f;
            xyz.push_back({t * 0.25f, -t, 1000.0f + t * 0.5f});
            addPoint(*frames.back(), xyz.back(), nor.back(), 77);  // words are not written
        }
    }
    const std::string path = tempPath("points.ply");
    tessaline_tools::writePlyPoints(path, frames);
    EXPECT_FALSE(std::ifstream(path + ".partial").good());
    tessaline_tools::PointCloudReadInfo info;
    const auto back = tessaline_tools::readPlyPointCloud(path, 1.0f, 8, info);
    ASSERT_EQ(back->xyz.size(), 70000u);
    EXPECT_EQ(info.dropped, 0u);
    EXPECT_FALSE(info.words_from_file);
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < xyz.size(); ++i) wrong += back->xyz[i] != xyz[i] || back->nor[i] != nor[i];
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(readFile(path).size(), readFile(path).find("end_header\n") + 11 + 70000u * 24);

    const std::string nowhere = tempPath("no-such-folder") + "/points.ply";
    const std::string error = errorOf([&] { tessaline_tools::writePlyPoints(nowhere, frames); });
    EXPECT_TRUE(contains(error, nowhere));
}

TEST(MeshFiles, EveryFormatWrittenReadsBackTheSameSurface) {
    // A tetrahedron with words and normals: each format must give back its four corners and four faces.
    IndexedMesh mesh;
    mesh.vertices = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 2}};
    mesh.triangles = {{{0, 2, 1}}, {{0, 1, 3}}, {{0, 3, 2}}, {{1, 2, 3}}};
    mesh.words = {0xffff0110u, 0x77770008u, 16u, 0u};
    ASSERT_EQ(computeVertexNormals(mesh), 0);
    for (const char* ext : {"ply", "obj", "stl", "PLY"}) {
        const std::string path = tempPath(std::string("tetra.") + ext);
        tessaline_tools::writeMesh(path, mesh);
        EXPECT_FALSE(std::ifstream(path + ".partial").good());
        const IndexedMesh back = tessaline_tools::readMesh(path, 0.5f);
        ASSERT_EQ(back.triangles.size(), 4u) << ext;
        for (std::size_t t = 0; t < 4; ++t)
            for (int k = 0; k < 3; ++k)
                for (int axis = 0; axis < 3; ++axis)
                    EXPECT_FLOAT_EQ(back.vertices[back.triangles[t][k]][axis],
                                    0.5f * mesh.vertices[mesh.triangles[t][k]][axis])
                        << ext;
    }
    EXPECT_THROW(tessaline_tools::writeMesh(tempPath("mesh.xyz"), mesh), std::runtime_error);
    EXPECT_FALSE(std::ifstream(tempPath("mesh.xyz")).good());
    EXPECT_THROW(tessaline_tools::readMesh(tempPath("mesh.xyz")), std::runtime_error);
}

TEST(MeshFiles, PlyWordsAreWrittenWholeAndSplitIntoNamedFields) {
    IndexedMesh mesh;
    mesh.vertices = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    mesh.triangles = {{{0, 1, 2}}};
    mesh.words = {0xffff0110u, 0x77770008u, 0x00000040u};
    mesh.normals = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    const std::string path = tempPath("words.ply");
    tessaline_tools::writeMesh(path, mesh);
    tessaline_tools::PlyReader ply(path);
    const tessaline_tools::PlyElement* vertex = ply.find("vertex");
    ASSERT_NE(vertex, nullptr);
    std::vector<int> columns;
    for (const char* name : {"nz", "word", "scale_code", "flags", "quality"}) {
        columns.push_back(vertex->find(name));
        ASSERT_GE(columns.back(), 0) << name;
    }
    EXPECT_EQ(vertex->properties[static_cast<std::size_t>(columns[1])].kind, 'i');  // signed: readers that refuse uint
    // word, scale code, flags, quality byte, by hand from the words above
    const double expected[3][4] = {{-65264.0, 0x10, 0x01, 0xff}, {0x77770008, 0x08, 0x00, 0x77}, {0x40, 0x40, 0, 0}};
    int records = 0;
    ply.readScalars(*vertex, columns, [&](long v, const double* value) {
        ++records;
        EXPECT_EQ(value[0], 1.0);
        for (int k = 0; k < 4; ++k) EXPECT_EQ(value[1 + k], expected[v][k]);
    });
    EXPECT_EQ(records, 3);
}

TEST(MeshFiles, LargePlyMeshesAreWrittenRecordForRecordInEveryLayout) {
    // Beyond the writer's buffer of a megabyte: every field of every record must come back in its place,
    // with and without the origin, normals, words and colours.
    constexpr std::uint32_t VERTICES = 300007, TRIANGLES = 700001;
    IndexedMesh mesh;
    for (std::uint32_t v = 0; v < VERTICES; ++v) {
        mesh.vertices.push_back(
            {static_cast<float>(v), -0.5f * static_cast<float>(v), 1.0f / static_cast<float>(v + 1)});
        mesh.normals.push_back({0.0f, static_cast<float>(v % 3), 1.0f});
        mesh.words.push_back(v * 2654435761u);
        mesh.colors.push_back(
            {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v >> 16)});
    }
    for (std::uint32_t t = 0; t < TRIANGLES; ++t)
        mesh.triangles.push_back({{t % VERTICES, (t * 7 + 1) % VERTICES, (t * 13 + 2) % VERTICES}});
    const tessaline_tools::Origin origin = {1e6, -2e6, 0.25};
    for (const bool full : {false, true}) {
        IndexedMesh written = mesh;
        if (!full) {
            written.normals.clear();
            written.words.clear();
            written.colors.clear();
        }
        const std::string path = tempPath("large_mesh.ply");
        tessaline_tools::writeMesh(path, written, full ? &origin : nullptr);
        tessaline_tools::PlyReader ply(path);
        const tessaline_tools::PlyElement* vertex = ply.find("vertex");
        ASSERT_NE(vertex, nullptr);
        std::vector<int> columns;
        for (const char* name : {"x", "y", "z", "ny", "word", "quality", "red", "blue"})
            if (vertex->find(name) >= 0) columns.push_back(vertex->find(name));
        ASSERT_EQ(columns.size(), full ? 8u : 3u);
        std::atomic<std::size_t> wrong{0}, records{0};
        ply.readScalars(*vertex, columns, [&](long r, const double* value) {
            const std::size_t v = static_cast<std::size_t>(r);
            ++records;
            bool right = true;
            for (int k = 0; k < 3; ++k)
                right = right && value[k] == static_cast<double>(mesh.vertices[v][k]) + (full ? origin[k] : 0.0);
            if (full) {
                right = right && value[3] == mesh.normals[v][1] &&
                        value[4] == static_cast<double>(static_cast<std::int32_t>(mesh.words[v])) &&
                        value[5] == static_cast<double>((mesh.words[v] >> 16) & 0xFF) &&
                        value[6] == mesh.colors[v][0] && value[7] == mesh.colors[v][2];
            }
            wrong += !right;
        });
        EXPECT_EQ(records.load(), VERTICES);
        EXPECT_EQ(wrong.load(), 0u) << full;
        std::size_t faces = 0, wrong_faces = 0;
        ply.readRecords(*ply.find("face"), [&](long r, const tessaline_tools::PlyRecord& record) {
            const auto& t = mesh.triangles[static_cast<std::size_t>(r)];
            ++faces;
            wrong_faces += record.lists[0] != std::vector<double>{static_cast<double>(t[0]), static_cast<double>(t[1]),
                                                                  static_cast<double>(t[2])};
        });
        EXPECT_EQ(faces, TRIANGLES);
        EXPECT_EQ(wrong_faces, 0u) << full;
    }
}

TEST(MeshFiles, ObjAndStlVariantsOtherToolsWrite) {
    // OBJ: texture and normal references, a negative index, a quad; STL: the ASCII form.
    const std::string obj = tempPath("variants.obj"), stl = tempPath("variants.stl");
    std::ofstream(obj) << "# made by hand\no quad\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvn 0 0 1\n"
                          "f 1/1/1 2/1/1 3/1/1 4/1/1\nf -4//1 -2//1 -1//1\n";
    const IndexedMesh quad = tessaline_tools::readMesh(obj);
    ASSERT_EQ(quad.vertices.size(), 4u);
    const std::vector<std::array<std::uint32_t, 3>> fanned = {{{0, 1, 2}}, {{0, 2, 3}}, {{0, 2, 3}}};
    EXPECT_EQ(quad.triangles, fanned);
    std::ofstream(stl) << "solid hand\n facet normal 0 0 1\n  outer loop\n   vertex 0 0 0\n   vertex 1 0 0\n"
                          "   vertex 0 1 0\n  endloop\n endfacet\nendsolid hand\n";
    const IndexedMesh triangle = tessaline_tools::readMesh(stl, 10.0f);
    ASSERT_EQ(triangle.triangles.size(), 1u);
    EXPECT_FLOAT_EQ(triangle.vertices[1][0], 10.0f);
    std::ofstream(obj) << "v 0 0 0\nf 1 2 3\n";
    EXPECT_THROW(tessaline_tools::readMesh(obj), std::runtime_error);  // names vertices that do not exist
}

TEST(MeshFiles, BinaryAndAsciiMeshesReadTheSameAndBadFacesAreRefused) {
    // One quad and one triangle over four vertices, with an extra vertex property before x.
    const std::string header_rest =
        " 1.0\nelement vertex 4\nproperty uchar red\nproperty float x\nproperty float y\nproperty double z\n"
        "element face 2\nproperty list uchar int vertex_indices\nend_header\n";
    const std::string ascii =
        writeFile("quad_ascii.ply",
                  "ply\nformat ascii" + header_rest + "9 0 0 0\n9 1 0 0\n9 1 1 0.5\n9 0 1 0\n4 0 1 2 3\n3 0 2 1\n");
    const std::string binary = tempPath("quad_binary.ply");
    {
        std::ofstream out(binary, std::ios::binary);
        out << "ply\nformat binary_big_endian" << header_rest;
        const float xy[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
        for (int v = 0; v < 4; ++v) {
            out.put(9);
            put(out, xy[v][0], true), put(out, xy[v][1], true), put(out, v == 2 ? 0.5 : 0.0, true);
        }
        for (const std::vector<std::int32_t>& face : {std::vector<std::int32_t>{0, 1, 2, 3}, {0, 2, 1}}) {
            out.put(static_cast<char>(face.size()));
            for (std::int32_t k : face) put(out, k, true);
        }
    }
    const auto a = tessaline_tools::readPlyMesh(ascii, 2.0f);
    const auto b = tessaline_tools::readPlyMesh(binary, 2.0f);
    ASSERT_EQ(a.triangles.size(), 3u);  // the quad fanned into two
    EXPECT_EQ(a.triangles, b.triangles);
    EXPECT_EQ(a.vertices, b.vertices);
    EXPECT_FLOAT_EQ(b.vertices[2][2], 1.0f);

    const std::string square = "ply\nformat ascii" + header_rest + "9 0 0 0\n9 1 0 0\n9 1 1 0\n9 0 1 0\n";
    const std::pair<std::string, const char*> cases[] = {
        {square + "3 0 1 7\n3 0 1 2\n", "a vertex that does not exist"},
        {square + "3 0 1\n", "line 15: the face record ends before its vertex_indices"},
        {"ply\nformat ascii" + header_rest + "9 0 0 zero\n", "'zero' is not a number"},
    };
    for (const auto& [text, expected] : cases) {
        const std::string error = errorOf([&] { tessaline_tools::readPlyMesh(writeFile("bad_mesh.ply", text)); });
        EXPECT_TRUE(contains(error, expected));
    }
}

TEST(PartShape, SamplesLieOnTheSurfaceAndRaysFindIt) {
    const auto samples = Part::surfaceSamples(0.5);
    ASSERT_GT(samples.size(), 10000u);
    float lowest = 1e9f;
    for (const auto& s : samples) {
        ASSERT_LE(std::fabs(Part::distance({s[0], s[1], s[2]})), 1e-5) << s[0] << " " << s[1] << " " << s[2];
        lowest = std::min(lowest, s[2]);
    }
    EXPECT_GT(lowest, 0.0f);  // the underside on the table is not part of the scanned surface
    // Halving the spacing quadruples the samples: they are spread by area.
    const double ratio = static_cast<double>(Part::surfaceSamples(0.25).size()) / static_cast<double>(samples.size());
    EXPECT_NEAR(ratio, 4.0, 0.15);

    // Straight down onto the top face, into the hole, and past the part.
    double t = 0;
    ASSERT_TRUE(Part::raycast({-25.0, 15.0, 100.0}, {0.0, 0.0, -1.0}, 500.0, t));
    EXPECT_NEAR(t, 88.0, 1e-5);
    EXPECT_NEAR(Part::normal({-25.0, 15.0, 12.0})[2], 1.0, 1e-6);
    EXPECT_FALSE(Part::raycast({17.0, -8.0, 100.0}, {0.0, 0.0, -1.0}, 500.0, t));  // through the hole: no floor
    EXPECT_FALSE(Part::raycast({100.0, 100.0, 100.0}, {0.0, 0.0, 1.0}, 500.0, t));
}

TEST(ScanSimulation, FramesAreRealisticAndTheSameForAnyThreadCount) {
    tessaline_tools::ScanSimulation settings;
    settings.target_points = 60000;
    settings.rays_per_line = 400;
    const auto one = withThreads(1, [&] { return tessaline_tools::simulateScan(settings); });
    const auto two = withThreads(2, [&] { return tessaline_tools::simulateScan(settings); });
    ASSERT_EQ(one.size(), two.size());
    const MarkerInfos truth = tessaline_tools::simulatedMarkers();
    std::size_t points = 0, flagged = 0, fine = 0, lasers[2] = {0, 0}, markers = 0;
    std::vector<double> deviation;
    for (std::size_t f = 0; f < one.size(); ++f) {
        const FrameDataWithInfo& a = *one[f];
        ASSERT_EQ(a.xyz, two[f]->xyz);
        ASSERT_EQ(a.w, two[f]->w);
        ASSERT_EQ(a.marker_xyz, two[f]->marker_xyz);
        ASSERT_EQ(a.xyz.size(), a.nor.size());
        ASSERT_EQ(a.xyz.size(), a.w.size());
        points += a.xyz.size();
        ++lasers[a.frame_info.laser_id];
        const double* t = a.frame_info.translation;
        for (std::size_t i = 0; i < a.xyz.size(); ++i) {
            const auto &p = a.xyz[i], &n = a.nor[i];
            deviation.push_back(std::fabs(Part::distance({p[0], p[1], p[2]})));
            // Normals face the scanner that saw the point.
            EXPECT_GT(n[0] * (t[0] - p[0]) + n[1] * (t[1] - p[1]) + n[2] * (t[2] - p[2]), 0.0);
            flagged += (a.w[i] & tessaline_tools::FEATURE_FLAG) != 0 ? 1 : 0;
            fine += (a.w[i] & 0xFF) == 16 ? 1 : 0;
        }
        // Markers seen, measured in the scanner's frame: the pose takes them back onto the table.
        for (std::size_t m = 0; m < a.marker_ids.size(); ++m, ++markers) {
            const auto& local = a.marker_xyz[m];
            const auto& expected = truth.xyz[static_cast<std::size_t>(a.marker_ids[m])];
            for (int r = 0; r < 3; ++r) {
                const double world = a.frame_info.rotation[r] * local[0] + a.frame_info.rotation[3 + r] * local[1] +
                                     a.frame_info.rotation[6 + r] * local[2] + t[r];
                EXPECT_NEAR(world, r < 2 ? expected[r] : 0.0, 0.08);
            }
        }
    }
    EXPECT_GE(points, settings.target_points);
    EXPECT_LT(points - one.back()->xyz.size(), settings.target_points);  // the scan stops once it has enough
    std::sort(deviation.begin(), deviation.end());
    EXPECT_LT(deviation[deviation.size() / 2], 0.03);  // range noise of 0.015 mm
    EXPECT_LT(deviation.back(), 0.5);
    EXPECT_GT(flagged, points / 50);  // near the small features: flagged and asking for finer cells
    EXPECT_EQ(flagged, fine);
    EXPECT_GT(lasers[0], 0u);
    EXPECT_GT(lasers[1], 0u);
    EXPECT_GT(markers, one.size());  // a few markers in most frames

    // A frame written to PLY reads back exactly: points, words, pose, laser and markers.
    const std::string path = tempPath("frame.ply");
    tessaline_tools::writePlyPointCloud(path, *one[3]);
    tessaline_tools::PointCloudReadInfo info;
    const auto back = tessaline_tools::readPlyPointCloud(path, 1.0f, 8, info);
    EXPECT_TRUE(info.words_from_file);
    EXPECT_EQ(back->xyz, one[3]->xyz);
    EXPECT_EQ(back->w, one[3]->w);
    EXPECT_EQ(back->marker_ids, one[3]->marker_ids);
    EXPECT_EQ(back->marker_xyz, one[3]->marker_xyz);
    EXPECT_EQ(0, std::memcmp(&back->frame_info.rotation, &one[3]->frame_info.rotation, sizeof(double) * 12));
    EXPECT_EQ(back->frame_info.laser_id, one[3]->frame_info.laser_id);
}

namespace {

// A square of side `size` in the plane z = height, two triangles, facing +z.
std::vector<Triangle> square(float height, float size = 1.0f) {
    return {{P3{0, 0, height}, P3{size, 0, height}, P3{size, 1, height}},
            {P3{0, 0, height}, P3{size, 1, height}, P3{0, 1, height}}};
}

// The closed box [0,1]^3 as twelve triangles, faces outward (or inward when `inside_out`).
std::vector<Triangle> cube(bool inside_out) {
    std::vector<Triangle> triangles;
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side < 2; ++side) {
            const int a = (axis + 1) % 3, b = (axis + 2) % 3;
            P3 c[4];
            for (int k = 0; k < 4; ++k) {
                c[k][axis] = static_cast<float>(side);
                c[k][a] = (k == 1 || k == 2) ? 1.0f : 0.0f;
                c[k][b] = (k >= 2) ? 1.0f : 0.0f;
            }
            // (a, b) counter-clockwise seen from +axis is outward on side 1.
            const bool flip = (side == 0) != inside_out;
            triangles.push_back({c[0], c[flip ? 2 : 1], c[flip ? 1 : 2]});
            triangles.push_back({c[0], c[flip ? 3 : 2], c[flip ? 2 : 3]});
        }
    return triangles;
}

}  // namespace

TEST(SurfaceComparison, DistancesMatchBruteForceAndKnownOffsets) {
    // The tree's search against every triangle, near and far, and points a million units away from a
    // mesh with one triangle far larger than the others (a far point prunes little: every distance agrees).
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Triangle> triangles;
    for (int i = 0; i < 300; ++i) {
        const P3 a = {unit(random) * 10, unit(random) * 10, unit(random) * 2};
        triangles.push_back({a, P3{a[0] + unit(random), a[1] + unit(random), a[2]},
                             P3{a[0], a[1] + unit(random), a[2] + unit(random)}});
    }
    std::vector<P3> points;
    for (int i = 0; i < 400; ++i) {
        const float spread = i < 200 ? 12.0f : 80.0f;
        points.push_back({unit(random) * spread - spread / 4, unit(random) * spread - spread / 4,
                          unit(random) * spread - spread / 4});
    }
    for (const P3& p : {P3{5, 5, -4}, P3{3000, 500, 0}, P3{5e5f, -5e5f, 2e5f}, P3{-1e6f, 3, 1}}) points.push_back(p);
    for (bool wide : {false, true}) {
        if (wide) triangles.push_back({P3{0, 0, -5}, P3{4000, 0, -5}, P3{0, 4000, -5}});
        const tessaline_tools::TriangleTree tree(triangles);
        for (const P3& p : points) {
            float best = 1e30f;
            for (const Triangle& t : triangles)
                best = std::min(best, tessaline_tools::pointTriangleDistance2(p, t[0], t[1], t[2]));
            // Boxes and triangle distances round apart in the last bits.
            ASSERT_NEAR(tree.distance(p), std::sqrt(best), 1e-6f * (1.0f + std::sqrt(best))) << p[0] << " " << p[1];
        }
    }

    // A square against itself lifted by 0.3: every distance is 0.3 both ways.
    const auto c = tessaline_tools::compareSurfaces(*tessaline_tools::meshSurface(square(0.3f), 5000),
                                                    *tessaline_tools::meshSurface(square(0.0f), 5000), {0.1, 0.5}, 1.0);
    EXPECT_NEAR(c.to_reference.median, 0.3, 1e-5);
    EXPECT_NEAR(c.from_reference.max, 0.3, 1e-5);
    EXPECT_NEAR(c.chamfer, 0.3, 1e-5);
    EXPECT_EQ(c.fscore[0], 0.0);
    EXPECT_EQ(c.fscore[1], 1.0);
    EXPECT_EQ(c.coverage, 1.0);
    // Half the reference missing from the mesh: precision stays, recall and coverage halve.
    const auto d =
        tessaline_tools::compareSurfaces(*tessaline_tools::meshSurface(square(0.0f), 20000),
                                         *tessaline_tools::meshSurface(square(0.0f, 2.0f), 20000), {0.1}, 0.5);
    EXPECT_EQ(d.precision[0], 1.0);
    EXPECT_NEAR(d.recall[0], 0.5 + 0.1 / 2, 0.02);  // the band within 0.1 of the edge counts too
    EXPECT_NEAR(d.coverage, 0.75, 0.02);
    EXPECT_NEAR(d.from_reference.max, 1.0, 1e-3);
}

TEST(Pictures, FrontAndBackFacesShowAndThePngReadsBack) {
    int colours[2][2] = {{0, 0}, {0, 0}};  // [inside_out][orange]
    for (bool inside_out : {false, true}) {
        const tessaline_tools::Image image = tessaline_tools::renderViews(cube(inside_out), 64);
        ASSERT_EQ(image.width, 128);
        for (std::size_t i = 0; i < image.rgb.size(); i += 3) {
            const bool background = image.rgb[i] == 255 && image.rgb[i + 1] == 255 && image.rgb[i + 2] == 255;
            if (!background) ++colours[inside_out][image.rgb[i] > image.rgb[i + 2] ? 1 : 0];
        }
    }
    EXPECT_GT(colours[0][0], 4 * 64 * 64 / 4);  // every view shows the cube
    // Seen from outside: front faces; inside out: back faces (a few pixels of faces seen edge-on aside).
    EXPECT_LT(colours[0][1], colours[0][0] / 100);
    EXPECT_LT(colours[1][0], colours[1][1] / 100);
    EXPECT_NEAR(colours[1][1], colours[0][0], colours[0][0] / 100);

    const tessaline_tools::Image image = tessaline_tools::renderViews(cube(false), 32);
    const std::string path = tempPath("cube.png");
    tessaline_tools::writePng(path, image);
    png_image read;
    std::memset(&read, 0, sizeof(read));
    read.version = PNG_IMAGE_VERSION;
    ASSERT_TRUE(png_image_begin_read_from_file(&read, path.c_str()));
    read.format = PNG_FORMAT_RGB;
    std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(read));
    ASSERT_TRUE(png_image_finish_read(&read, nullptr, pixels.data(), 0, nullptr));
    EXPECT_EQ(static_cast<int>(read.width), image.width);
    EXPECT_EQ(pixels, image.rgb);
    EXPECT_THROW(tessaline_tools::writePng("/no/such/folder/x.png", image), std::runtime_error);
}

TEST(Program, BadInputGivesOneErrorLineAndNoOutput) {
    TESSALINE_REQUIRE_PROGRAM();
    std::filesystem::remove_all(tempPath("never_parts"));
    const std::string missing = tempPath("missing.ply"), never = tempPath("never.ply");
    const std::string cloud = writeFile("cloud_only.ply", std::string(XYZ_HEADER) + "end_header\n1 2 3\n");
    const std::string normals = "property float nx\nproperty float ny\nproperty float nz\n";
    const std::string frame = writeFile("frame.ply", std::string(XYZ_HEADER) + normals + "end_header\n1 2 3 0 0 1\n");
    // Numbers that name a laser or a marker, far beyond an int.
    const std::string pose =
        writeFile("pose.ply", std::string(XYZ_HEADER) + normals + "element pose 1\n" +
                                  "property double r0\nproperty double r1\nproperty double r2\nproperty double r3\n"
                                  "property double r4\nproperty double r5\nproperty double r6\nproperty double r7\n"
                                  "property double r8\nproperty double tx\nproperty double ty\nproperty double tz\n"
                                  "property float laser_id\nend_header\n1 2 3 0 0 1\n1 0 0 0 1 0 0 0 1 0 0 0 1e20\n");
    const std::string marker =
        writeFile("marker.ply", std::string(XYZ_HEADER) + normals + "element marker 1\nproperty float id\n" +
                                    "property float x\nproperty float y\nproperty float z\n" + normals +
                                    "end_header\n1 2 3 0 0 1\n1e30 0 0 0 0 0 1\n");
    // 2^40 records without properties take no bytes: the file looks whole, and skipping them never ends.
    const std::string empty_records = writeFile(
        "empty_records.ply", "ply\nformat binary_little_endian 1.0\nelement junk 1099511627776\n" +
                                 std::string(XYZ_HEADER).substr(21) + normals + "end_header\n" + std::string(24, '\0'));
    // A range image whose rows x cols overflows a long to the size of its small grid.
    std::string grid =
        "ply\nformat ascii 1.0\nobj_info num_cols 16\nobj_info num_rows 1152921504606846977\n"
        "element vertex 1\nproperty float x\nproperty float y\nproperty float z\n"
        "element range_grid 16\nproperty list uchar int vertex_indices\nend_header\n0 0 0\n";
    for (int i = 0; i < 16; ++i) grid += "1 0\n";
    const std::string grid_ply = writeFile("grid.ply", grid);
    const std::string grid_conf =
        writeFile("grid.conf", "bmesh " + grid_ply.substr(grid_ply.rfind('/') + 1) + " 0 0 0 0 0 0 1\n");
    // A scan list in another folder naming its scan by an absolute path.
    mkdir(tempPath("lists").c_str(), 0755);
    const std::string absolute_conf = writeFile("lists/absolute.conf", "bmesh " + grid_ply + " 0 0 0 0 0 0 1\n");
    // Meshes that no distance can be measured on: a vertex at 1e38, no triangle with an area.
    const std::string triangle_header =
        "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\n"
        "property float y\nproperty float z\nelement face 1\n"
        "property list uchar int vertex_indices\nend_header\n";
    const std::string triangle = writeFile("triangle.ply", triangle_header + "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n");
    const std::string far = writeFile("far.ply", triangle_header + "0 0 0\n1e38 0 0\n0 1 0\n3 0 1 2\n");
    const std::string flat = writeFile("flat.ply", triangle_header + "0 0 0\n1 0 0\n2 0 0\n3 0 1 2\n");
    // Inputs that would feed a reader without end: a device and a pipe under the names of inputs.
    const std::string zero_ply = tempPath("zero.ply"), zero_obj = tempPath("zero.obj");
    const std::string pipe_conf = tempPath("pipe.conf"), pipe_stl = tempPath("pipe.stl");
    for (const std::string& link : {zero_ply, zero_obj}) {
        std::remove(link.c_str());
        ASSERT_EQ(symlink("/dev/zero", link.c_str()), 0) << link;
    }
    for (const std::string& pipe : {pipe_conf, pipe_stl}) {
        std::remove(pipe.c_str());
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0) << pipe;
    }
    const struct {
        std::string arguments;
        int status;
        const char* error;
    } cases[] = {
        {"reconstruct " + missing + " -o " + never, 1, "missing.ply: cannot open the file"},
        {"reconstruct " + zero_ply + " -o " + never, 1, "zero.ply: not a regular file"},
        {"reconstruct " + pipe_conf + " -o " + never, 1, "pipe.conf: not a regular file"},
        {"compare " + zero_obj + " " + triangle, 1, "zero.obj: not a regular file"},
        {"compare " + triangle + " " + pipe_stl, 1, "pipe.stl: not a regular file"},
        {"reconstruct " + cloud + " -o out.xyz", 1, "unknown mesh format"},
        {"reconstruct x.ply -o y.ply --units furlong", 1, "unknown unit"},
        {"reconstruct x.ply -o y.ply --scale-code 3", 1, ""},
        {"frobnicate", 2, ""},
        {"compare " + missing + " part", 1, "missing.ply: cannot open the file"},
        {"compare " + cloud + " part", 1, "no triangles"},  // a point cloud: no faces
        {"render " + cloud + " -o " + tempPath("never.png"), 1, ""},
        {"simulate", 1, "no output directory"},
        {"simulate -o " + tempPath("never_parts") + " --parts 3", 1, "not a grid of parts such as 3x2"},
        {"reconstruct " + frame + " -o " + never + " --threads 100000", 1, "--threads must be 0"},
        {"reconstruct " + frame + " -o " + never + " --threads -1", 1, "--threads must be 0"},
        {"reconstruct " + frame + " -o " + never + " --resolution 1e-9", 1, "from 0.001 to 100000"},
        {"reconstruct " + frame + " -o " + never + " --resolution 1e9", 1, "from 0.001 to 100000"},
        {"demo -o " + tempPath("never_demo") + " --resolution 1e9", 1, "from 0.001 to 100000"},
        {"reconstruct " + pose + " -o " + never, 1, "laser_id 1e+20 is not a whole number"},
        {"reconstruct " + marker + " -o " + never, 1, "marker id 1e+30 is not a whole number"},
        {"reconstruct " + empty_records + " -o " + never, 1, "records but no properties"},
        {"reconstruct " + grid_conf + " -o " + never, 3, "the mesh is empty"},  // read, not crashed
        {"reconstruct " + absolute_conf + " -o " + never, 3, "the mesh is empty"},
        {"compare " + triangle + " " + cloud, 1, "no triangles"},  // a point cloud as reference
        {"compare " + far + " " + triangle, 1, "beyond 1e12 mm"},
        {"compare " + triangle + " " + far, 1, "beyond 1e12 mm"},
        {"compare " + flat + " " + triangle, 1, "no triangle has an area"},
        // An output that cannot be written fails before the run.
        {"reconstruct " + frame + " -o " + tempPath("no_such_folder") + "/mesh.ply", 1, "cannot write the file"},
        {"reconstruct " + frame + " -o " + ::testing::TempDir(), 1, "unknown mesh format"},
        {"reconstruct " + frame + " -o " + tempPath("folder.ply"), 1, "is a directory"},
    };
    mkdir(tempPath("folder.ply").c_str(), 0755);
    for (const auto& c : cases) {
        const ProgramRun run = runProgram(c.arguments);
        EXPECT_EQ(run.status, c.status) << c.arguments;
        EXPECT_TRUE(contains(run.err, c.error)) << c.arguments;
        if (c.status != 3) {  // refused before any run: no summary
            EXPECT_TRUE(run.out.empty()) << c.arguments << ": " << run.out;
        }
    }
    EXPECT_FALSE(std::ifstream(never).good());
    EXPECT_FALSE(std::ifstream(tempPath("never.png")).good());
    EXPECT_FALSE(std::ifstream(tempPath("never_demo")).good());
    EXPECT_FALSE(std::filesystem::exists(tempPath("never_parts")));
}

// A grid of parts: each part scanned on its own and moved by the pitch, frames named by part so that they
// sort in scan order, every part's markers in the file beside them, matched by every frame.
TEST(Program, SimulatedGridOfPartsIsOneScanOfSeparatePieces) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("parts_grid");
    std::filesystem::remove_all(folder);
    ASSERT_EQ(runProgram("simulate --points 40000 --parts 2x2 -o " + folder).status, 0);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names.front(), "optimized-markers.txt");
    EXPECT_EQ(names[1], "part_0000_frame_00000.ply");
    EXPECT_EQ(names.back().rfind("part_0003_frame_", 0), 0u);
    const std::string mesh = tempPath("parts_grid.ply");
    const ProgramRun run = runProgram("reconstruct " + folder + " --resolution 0.5 --json -o " + mesh);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "\"given\": 152")) << run.out;  // 38 markers a part
    EXPECT_TRUE(contains(run.out, "\"frames_left_out\": []")) << run.out;
    const IndexedMesh read = tessaline_tools::readMesh(mesh);
    float low[2] = {1e30f, 1e30f}, high[2] = {-1e30f, -1e30f};
    for (const Vec3f& v : read.vertices)
        for (int k = 0; k < 2; ++k) low[k] = std::min(low[k], v[k]), high[k] = std::max(high[k], v[k]);
    // Two parts along x and two along y, 160 mm apart: the mesh spans the pitch and one part's width.
    for (int k = 0; k < 2; ++k) {
        EXPECT_GT(high[k] - low[k], 160.0f) << k;
        EXPECT_LT(high[k] - low[k], 160.0f + 130.0f) << k;
    }
}

TEST(Program, OutputsReplaceOnlyRegularFilesAndARunNeverReadsItsOwnMesh) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("careless");
    std::filesystem::remove_all(folder);
    ASSERT_EQ(runProgram("simulate --points 20000 -o " + folder).status, 0);
    const std::string fifo = tempPath("careless_fifo.ply"), device = tempPath("careless_null.ply");
    const std::string link = tempPath("careless_link.ply"), target = tempPath("careless_target.ply");
    for (const std::string& path : {fifo, device, link, target}) std::remove(path.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(symlink("/dev/null", device.c_str()), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    // Refused before the run, with one line, and left as they were (a root user could otherwise replace
    // /dev/null); with --json the failure is an object too.
    const struct {
        std::string arguments;
        const char* error;
    } refused[] = {
        {"reconstruct " + folder + " -o " + fifo, "is a pipe"},
        {"reconstruct " + folder + " -o " + device + " --json", "is a device"},
        {"render " + folder + "/frame_00000.ply -o " + tempPath("picture.jpg"), "unknown picture format (use .png)"},
    };
    for (const auto& c : refused) {
        const ProgramRun run = runProgram(c.arguments);
        EXPECT_EQ(run.status, 1) << c.arguments;
        EXPECT_TRUE(contains(run.err, c.error)) << c.arguments << ": " << run.err;
        EXPECT_EQ(run.out.empty(), !contains(c.arguments, "--json")) << run.out;
    }
    EXPECT_TRUE(contains(runProgram(refused[1].arguments).out, "{\"error\": \"" + device + ": is a device"));
    struct stat info;
    ASSERT_EQ(stat("/dev/null", &info), 0);
    EXPECT_TRUE(S_ISCHR(info.st_mode));
    ASSERT_EQ(lstat(fifo.c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
    EXPECT_FALSE(std::ifstream(tempPath("picture.jpg")).good());
    // A symbolic link is written through: the link stays, its target gets the mesh.
    ASSERT_EQ(runProgram("reconstruct " + folder + " --quiet -o " + link).status, 0);
    ASSERT_EQ(lstat(link.c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    EXPECT_GT(tessaline_tools::readPlyMesh(target).triangles.size(), 1000u);
    // The mesh written into the folder it was read from is not read back as a frame on the next run; another
    // mesh placed there is, with a note.
    std::string frames_seen;
    for (int run = 0; run < 3; ++run) {
        const ProgramRun r = runProgramOk("reconstruct " + folder + " -o " + folder + "/mesh.ply");
        const std::string frames = r.out.substr(0, r.out.find(','));
        if (run > 0) {
            EXPECT_EQ(frames, frames_seen);
        }
        frames_seen = frames;
        EXPECT_FALSE(contains(r.err, "is a mesh"));
    }
    std::filesystem::copy_file(folder + "/mesh.ply", folder + "/other.ply");
    const ProgramRun with_mesh = runProgram("reconstruct " + folder + " -o " + folder + "/mesh.ply");
    EXPECT_TRUE(contains(with_mesh.err, "other.ply is a mesh")) << with_mesh.err;
    EXPECT_NE(with_mesh.out.substr(0, with_mesh.out.find(',')), frames_seen);
}

// The program reads the markers that simulate writes beside its frames and names the frames they leave out,
// which are the misregistered ones, in its summary and its JSON; --markers none runs without them, and a
// markers file it cannot read is refused with its name and line.
TEST(Program, MarkersBesideTheFramesLeaveOutTheMisregisteredOnes) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("markers"), output = tempPath("markers.ply");
    std::filesystem::remove_all(folder);
    const ProgramRun simulated = runProgramOk("simulate --points 60000 --misregister 3 -o " + folder);
    const std::string said = "misregistered frames (about 0.3 mm off):";
    const std::size_t at = simulated.out.find(said);
    ASSERT_NE(at, std::string::npos) << simulated.out;
    std::istringstream named(simulated.out.substr(at + said.size()));
    std::vector<std::size_t> wrong;
    for (std::size_t f; wrong.size() < 3 && named >> f;) wrong.push_back(f);
    ASSERT_EQ(wrong.size(), 3u) << simulated.out;
    const auto list = [&](const char* between) {
        return std::to_string(wrong[0]) + between + std::to_string(wrong[1]) + between + std::to_string(wrong[2]);
    };

    const ProgramRun plain = runProgramOk("reconstruct " + folder + " --quiet -o " + output);
    EXPECT_TRUE(contains(plain.out, "frames left out by their markers (3): " + list(" ") + "\n"));
    const ProgramRun json = runProgramOk("reconstruct " + folder + " --quiet --json -o " + output);
    EXPECT_TRUE(contains(json.out, "\"frames_left_out\": [" + list(", ") + "]}"));

    const ProgramRun none = runProgramOk("reconstruct " + folder + " --quiet --json --markers none -o " + output);
    EXPECT_TRUE(contains(none.out, "\"markers\": null"));
    const std::string bad = folder + "/bad-markers.txt";
    std::ofstream(bad) << "# id x y z nx ny nz\n0 1 2 3 0 0 1\n1 45 0 0\n";
    const ProgramRun refused = runProgram("reconstruct " + folder + " --quiet --markers " + bad + " -o " + output);
    EXPECT_NE(refused.status, 0);
    EXPECT_TRUE(contains(refused.err, bad + ": line 3: a marker is 'id x y z nx ny nz', seven numbers"));
}

TEST(Program, DemoWritesMeshAndPictureAndReportsTheAccuracy) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("demo");
    const ProgramRun demo = runProgramOk("demo --points 150000 --quiet -o " + folder);
    EXPECT_TRUE(contains(demo.out, "distance to the true surface:"));
    EXPECT_TRUE(contains(demo.out, "F-score at 0.1"));
    EXPECT_GT(tessaline_tools::readPlyMesh(folder + "/tessaline-demo.ply").triangles.size(), 20000u);
    EXPECT_TRUE(std::ifstream(folder + "/tessaline-demo.png").good());

    // The mesh lies on the part: checked here with the comparison itself, through the program.
    const ProgramRun compared = runProgramOk("compare " + folder + "/tessaline-demo.ply part");
    double median = -1, p95 = -1;
    ASSERT_TRUE(distances(compared.out + compared.err, median, p95)) << compared.out;
    EXPECT_LT(median, 0.05);
    EXPECT_LT(p95, 0.25);
}

namespace {

// A path of this test process's own: the program's tests below run beside each other.
std::string programTemp(const std::string& name) {
    return tempPath("program_" + std::to_string(getpid()) + "_" + name);
}

// The number after "key": in a JSON text, or NaN.
double jsonNumber(const std::string& json, const std::string& key) {
    const std::size_t at = json.find("\"" + key + "\": ");
    if (at == std::string::npos) return std::nan("");
    return std::strtod(json.c_str() + at + key.size() + 4, nullptr);
}

// `n` points of a Fibonacci lattice on a sphere of radius `r` around (100 + dx, 100, 100), normals outward,
// in millimetres times `scale`; only those that `keep` (given the index and the direction) where it is set.
std::string sphereFile(const std::string& name, int n, float r, float scale = 1.0f,
                       const std::function<bool(int, const Vec3f&)>& keep = nullptr, float dx = 0.0f) {
    FrameDataWithInfo frame;
    for (int i = 0; i < n; ++i) {
        const Vec3f v = fibonacciDirection(i, n);
        if (!keep || keep(i, v))
            addPoint(frame, {(100 + dx + r * v[0]) * scale, (100 + r * v[1]) * scale, (100 + r * v[2]) * scale}, v);
    }
    const std::string path = programTemp(name);
    tessaline_tools::writePlyPointCloud(path, frame);
    return path;
}

}  // namespace

TEST(Program, AutoResolutionFollowsThePointsInAnyUnitAndTheSummaryIsJson) {
    TESSALINE_REQUIRE_PROGRAM();
    const float radius = 30.0f;
    const int n = 20000;
    const double even = std::sqrt(4 * M_PI * radius * radius / n);  // 0.75 mm
    for (const auto& [scale, units] : {std::pair<float, std::string>{1.0f, "mm"}, {0.001f, "m"}}) {
        const std::string input = sphereFile("sphere_" + units + ".ply", n, radius, scale);
        const std::string output = programTemp("sphere.ply");
        const ProgramRun r = runProgramOk("reconstruct " + input + " --units " + units + " -o " + output + " --json");
        ASSERT_FALSE(r.out.empty());
        EXPECT_EQ(r.out.front(), '{');
        EXPECT_EQ(r.out.substr(r.out.size() - 2), "}\n");  // one JSON object, nothing else
        EXPECT_NEAR(jsonNumber(r.out, "resolution_mm"), 1.5 * even, 0.05 * even) << units;
        EXPECT_TRUE(contains(r.out, "\"resolution_auto\": true"));
        EXPECT_EQ(jsonNumber(r.out, "boundary_edges"), 0.0) << units;  // a closed sphere
        EXPECT_GT(jsonNumber(r.out, "triangles"), 10000.0);
        // The README's bound on the program's peak: 0.5 GiB and eight times the points' own 28 bytes.
        EXPECT_LT(jsonNumber(r.out, "peak_memory_mib"), 512.0 + 8.0 * 28.0 * n / 1048576.0);
        EXPECT_EQ(r.err.find('\r'), std::string::npos);  // no progress bar into a file
        EXPECT_TRUE(std::filesystem::exists(output));
    }
    // Without --json the summary names the spacing and the choice.
    const ProgramRun text =
        runProgramOk("reconstruct " + sphereFile("sphere.ply", n, radius) + " -o " + programTemp("s.obj"));
    EXPECT_TRUE(contains(text.out, "resolution auto: "));
    EXPECT_TRUE(contains(text.out, "point spacing: median "));
}

TEST(Program, AutoGivesTheSparseHalfOfASphereCellsItCanFill) {
    TESSALINE_REQUIRE_PROGRAM();
    // A sphere sampled evenly above its equator and four times more thinly below (every 4th point of the
    // lattice), words 8. One resolution for both halves, from the dense half that holds most points, leaves
    // the sparse half full of holes; the codes from each point's density give it cells twice as wide, and
    // the sphere comes out whole but for the odd pinhole where cells of two sizes meet.
    const float r = 30.0f;
    const std::string input =
        sphereFile("half_sparse.ply", 40000, r, 1.0f, [](int i, const Vec3f& v) { return v[2] >= 0 || i % 4 == 0; });
    const std::string common = "reconstruct " + input + " -o " + programTemp("half_sparse_mesh.ply");
    const ProgramRun automatic = runProgramOk(common + " --json");
    EXPECT_GT(jsonNumber(automatic.out, "4"), 4000.0);  // about the 5,000 points of the sparse half
    char fixed_resolution[32];
    std::snprintf(fixed_resolution, sizeof(fixed_resolution), "%.9g", jsonNumber(automatic.out, "resolution_mm"));
    const ProgramRun fixed = runProgramOk(common + " --json --resolution " + fixed_resolution);
    EXPECT_TRUE(contains(fixed.out, "\"scale_codes\": null"));  // the points' own words
    EXPECT_GT(jsonNumber(automatic.out, "area"), 0.995 * 4 * M_PI * r * r);
    EXPECT_LT(jsonNumber(automatic.out, "boundary_edges") * 20, jsonNumber(fixed.out, "boundary_edges"));
    EXPECT_EQ(jsonNumber(automatic.out, "pieces"), 1.0);
    EXPECT_TRUE(contains(runProgram(common).out, "cells from the points' density: code 8 "));
}

TEST(Program, LibraryLinesReachTheOutputOnlyWithVerbose) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string common = "reconstruct " + sphereFile("lines.ply", 3000, 20.0f) + " -o " + programTemp("l.ply");
    const char* library_line = "[MarchingCubes] cells ";
    const struct {
        const char* options;
        bool on_out, on_err;
    } rows[] = {{"", false, false}, {" --verbose", true, false}, {" --verbose --json", false, true}};
    for (const auto& row : rows) {
        const ProgramRun run = runProgramOk(common + row.options);
        EXPECT_EQ(contains(run.out, library_line), row.on_out) << row.options;  // kept out of the JSON
        EXPECT_EQ(contains(run.err, library_line), row.on_err) << row.options;
    }
}

TEST(Program, AMeshTooSmallForItsPointsWarnsAndAnEmptyOneFails) {
    TESSALINE_REQUIRE_PROGRAM();
    // 2000 points 2.4 mm apart: at 1 mm a few cells hold enough points, at 0.5 mm none does.
    const std::string input = sphereFile("sparse.ply", 2000, 30.0f);
    const std::string small = programTemp("small.ply"), empty = programTemp("empty.ply");
    const ProgramRun few = runProgram("reconstruct " + input + " --resolution 1 -o " + small);
    EXPECT_EQ(few.status, 0);
    EXPECT_TRUE(contains(few.err, "warning: the mesh has "));
    EXPECT_TRUE(contains(few.err, "--resolution auto"));
    EXPECT_TRUE(std::filesystem::exists(small));
    const ProgramRun none = runProgram("reconstruct " + input + " --resolution 0.5 -o " + empty);
    EXPECT_EQ(none.status, 3);
    EXPECT_TRUE(contains(none.err, "the mesh is empty"));
    EXPECT_TRUE(contains(none.err, "--resolution auto"));
    EXPECT_FALSE(std::filesystem::exists(empty));
    EXPECT_FALSE(std::filesystem::exists(empty + ".partial"));
    // The choice the warnings advise gives a closed mesh without a warning.
    const ProgramRun chosen = runProgram("reconstruct " + input + " -o " + small);
    EXPECT_EQ(chosen.status, 0);
    EXPECT_EQ(chosen.err.find("warning"), std::string::npos) << chosen.err;
}

TEST(Program, MinPieceAndFillHolesFinishTheMesh) {
    TESSALINE_REQUIRE_PROGRAM();
    // In one folder, a sphere of radius 30 with its top cut off (a round hole) and, 100 mm away, a closed
    // sphere of radius 5 as dense: two pieces, one hole.
    std::filesystem::create_directories(programTemp("pieces"));
    sphereFile("pieces/cut.ply", 20000, 30.0f, 1.0f, [](int, const Vec3f& v) { return 30.0f * v[2] <= 28.0f; });
    sphereFile("pieces/bit.ply", 560, 5.0f, 1.0f, nullptr, 100.0f);
    const std::string common =
        "reconstruct " + programTemp("pieces") + " -o " + programTemp("finished.ply") + " --json";
    const ProgramRun plain = runProgramOk(common);
    EXPECT_EQ(jsonNumber(plain.out, "pieces"), 2.0);
    EXPECT_EQ(jsonNumber(plain.out, "boundary_loops"), 1.0);
    EXPECT_GT(jsonNumber(plain.out, "boundary_edges"), 20.0);
    const ProgramRun finished = runProgramOk(common + " --min-piece 2000 --fill-holes 1000");
    EXPECT_EQ(jsonNumber(finished.out, "pieces"), 1.0);
    EXPECT_EQ(jsonNumber(finished.out, "boundary_edges"), 0.0);
    EXPECT_EQ(jsonNumber(finished.out, "holes_filled"), 1.0);
    const double removed = jsonNumber(finished.out, "triangles_removed");
    EXPECT_GT(removed, 100.0);  // the small sphere, and nothing of the large one
    EXPECT_LT(removed, 2000.0);
    EXPECT_EQ(runProgram(common + " --fill-holes 2").status, 1);  // a hole has three edges or more
}

// The program's render and compare read what reconstruct writes (each format read back on its own:
// MeshFiles.EveryFormatWrittenReadsBackTheSameSurface).
TEST(Program, RenderAndCompareReadEveryFormatReconstructWrites) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string input = sphereFile("formats.ply", 8000, 20.0f), ply = programTemp("formats.ply");
    const std::string stl = programTemp("formats.stl"), picture = programTemp("formats.png");
    ASSERT_EQ(runProgram("reconstruct " + input + " -o " + ply).status, 0);
    ASSERT_EQ(runProgram("reconstruct " + input + " -o " + stl).status, 0);
    const ProgramRun rendered = runProgram("render " + stl + " -o " + picture + " --size 64");
    EXPECT_EQ(rendered.status, 0) << rendered.err;
    EXPECT_TRUE(std::filesystem::exists(picture));
    // The same surface in both files, all of it within 0.1 mm both ways (the triangles' edges are about 1 mm).
    const ProgramRun compared = runProgramOk("compare " + stl + " " + ply + " --samples 20000");
    EXPECT_TRUE(contains(compared.out, "F-score at 0.1 1.000"));
    EXPECT_TRUE(contains(compared.out, "covered (within 1 mm): 100.0%"));
}

TEST(Program, VersionNamesTheBackendAndDeviceCheckSpeaksForItself) {
    TESSALINE_REQUIRE_PROGRAM();
    const ProgramRun version = runProgram("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out,
              std::string("tessaline ") + TESSALINE_VERSION_STRING + ", backend: " + TESSALINE_BACKEND + "\n");
    const ProgramRun device = runProgram("--check-device");
    EXPECT_EQ(device.status, 0);
    EXPECT_EQ(device.out.find("sucess"), std::string::npos);
    EXPECT_TRUE(contains(device.out, "the compute device is ready"));
}

TEST(Program, PointsWithoutNormalsGetThemFromTheirNeighboursAndTheRunSaysHow) {
    TESSALINE_REQUIRE_PROGRAM();
    // 20,000 points of a sphere of radius 30 mm around (100, 100, 100) mm, in metres, without normals.
    const int n = 20000;
    std::string text = "ply\nformat ascii 1.0\nelement vertex " + std::to_string(n) +
                       "\nproperty float x\nproperty float y\nproperty float z\nend_header\n";
    for (int i = 0; i < n; ++i) {
        const Vec3f v = fibonacciDirection(i, n);
        char line[96];
        std::snprintf(line, sizeof(line), "%.7f %.7f %.7f\n", 0.1 + 0.03 * v[0], 0.1 + 0.03 * v[1], 0.1 + 0.03 * v[2]);
        text += line;
    }
    const std::string input = writeFile("no_normals.ply", text);
    // The volume the mesh's triangles enclose, in mm^3: positive when they face outward.
    const auto volume = [](const std::string& path) {
        const tessaline_tools::IndexedMesh mesh = tessaline_tools::readMesh(path, 1000.0f);
        double sum = 0.0;
        for (const auto& t : mesh.triangles) {
            std::array<std::array<double, 3>, 3> p;
            for (int v = 0; v < 3; ++v)
                for (int k = 0; k < 3; ++k) p[v][k] = mesh.vertices[t[v]][k];
            sum +=
                (p[0][0] * (p[1][1] * p[2][2] - p[1][2] * p[2][1]) - p[0][1] * (p[1][0] * p[2][2] - p[1][2] * p[2][0]) +
                 p[0][2] * (p[1][0] * p[2][1] - p[1][1] * p[2][0])) /
                6.0;
        }
        return sum;
    };
    const double ball = 4.0 / 3.0 * M_PI * 30.0 * 30.0 * 30.0;

    // No scanner known: oriented from the outside in, and the run says so in one line.
    const std::string outside = programTemp("outside.ply"), inside = programTemp("inside.ply");
    const ProgramRun run = runProgramOk("reconstruct " + input + " --units m -o " + outside);
    EXPECT_TRUE(contains(run.err,
                         "tessaline: normals estimated for 20000 points from their 16 nearest neighbours: 0 faced "
                         "toward the scanner, 20000 oriented from the outside in, 0 left out"));
    EXPECT_TRUE(contains(run.out, ", normals "));  // its time
    EXPECT_NEAR(volume(outside), ball, 0.02 * ball);

    // A scanner at the centre, given in the input's unit: every normal faces it, and the mesh faces inward.
    const ProgramRun faced =
        runProgramOk("reconstruct " + input + " --units m -o " + inside + " --sensor 0.1,0.1,0.1 --json --quiet");
    EXPECT_TRUE(faced.err.empty()) << faced.err;  // --quiet
    EXPECT_TRUE(
        contains(faced.out, "\"normals\": {\"estimated\": 20000, \"neighbours\": 16, \"toward_sensor\": 20000"));
    EXPECT_NEAR(volume(inside), -ball, 0.02 * ball);
}
