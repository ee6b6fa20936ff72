// The `tessaline` program as a user meets it: the resolution chosen from the points, warnings for a mesh
// too small for its points, a clean standard output (library lines only with --verbose, --json), the
// output path checked before the run, finishing options, and every format it writes read back.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "PointCloudIO.h"
#include "TestSupport.h"
#include "tessaline/Tessaline.h"

using namespace SurfaceReconstruction;

namespace {

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "tessaline_program_" + std::to_string(getpid()) + "_" + name;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

struct Result {
    int status = -1;
    std::string out, err;
};

// Runs the program with `arguments`; standard error is a file, never a terminal.
Result run(const std::string& arguments) {
    const std::string out = tempPath("stdout.txt"), err = tempPath("stderr.txt");
    const int status =
        std::system((testing_support::programPath() + " " + arguments + " >" + out + " 2>" + err).c_str());
    Result r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = readFile(out);
    r.err = readFile(err);
    return r;
}

// The number after "key": in a JSON text, or NaN.
double jsonNumber(const std::string& json, const std::string& key) {
    const std::size_t at = json.find("\"" + key + "\": ");
    if (at == std::string::npos) return std::nan("");
    return std::strtod(json.c_str() + at + key.size() + 4, nullptr);
}

// `n` points spread evenly over a sphere of radius `r` around (100, 100, 100) (a Fibonacci lattice),
// normals outward, in millimetres times `scale`; points with z above `cap` (relative to the centre) left
// out. Its even spacing is close to sqrt(4 pi r^2 / n).
std::string sphereFile(const std::string& name, int n, float r, float scale = 1.0f, float cap = 1e9f) {
    FrameDataWithInfo frame;
    for (int i = 0; i < n; ++i) {
        const double phi = std::acos(1.0 - 2.0 * (i + 0.5) / n), theta = M_PI * (1.0 + std::sqrt(5.0)) * (i + 0.5);
        const Vec3f v = {float(std::cos(theta) * std::sin(phi)), float(std::sin(theta) * std::sin(phi)),
                         float(std::cos(phi))};
        if (r * v[2] > cap) continue;
        frame.xyz.push_back({(100 + r * v[0]) * scale, (100 + r * v[1]) * scale, (100 + r * v[2]) * scale});
        frame.nor.push_back(v);
        frame.w.push_back(8);
    }
    const std::string path = tempPath(name);
    tessaline_tools::writePlyPointCloud(path, frame);
    return path;
}

}  // namespace

TEST(Program, AutoResolutionFollowsThePointsInAnyUnitAndTheSummaryIsJson) {
    TESSALINE_REQUIRE_PROGRAM();
    const float radius = 30.0f;
    const int n = 20000;
    const double even = std::sqrt(4 * M_PI * radius * radius / n);  // 0.75 mm
    const struct {
        const char* name;
        float scale;
        const char* units;
    } cases[] = {{"sphere_mm.ply", 1.0f, "mm"}, {"sphere_m.ply", 0.001f, "m"}};
    for (const auto& c : cases) {
        const std::string input = sphereFile(c.name, n, radius, c.scale), output = tempPath("sphere.ply");
        const Result r = run("reconstruct " + input + " --units " + c.units + " -o " + output + " --json");
        ASSERT_EQ(r.status, 0) << r.err;
        ASSERT_FALSE(r.out.empty());
        EXPECT_EQ(r.out.front(), '{');
        EXPECT_EQ(r.out.substr(r.out.size() - 2), "}\n");  // one JSON object, nothing else
        EXPECT_NEAR(jsonNumber(r.out, "resolution_mm"), 1.5 * even, 0.05 * even) << c.units;
        EXPECT_NE(r.out.find("\"resolution_auto\": true"), std::string::npos);
        EXPECT_EQ(jsonNumber(r.out, "boundary_edges"), 0.0) << c.units;  // a closed sphere
        EXPECT_GT(jsonNumber(r.out, "triangles"), 10000.0);
        EXPECT_EQ(r.err.find('\r'), std::string::npos);  // no progress bar into a file
        EXPECT_TRUE(exists(output));
    }
    // Without --json the summary names the spacing and the choice.
    const Result text = run("reconstruct " + sphereFile("sphere.ply", n, radius) + " -o " + tempPath("s.obj"));
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("resolution auto: "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("point spacing: median "), std::string::npos) << text.out;
}

TEST(Program, LibraryLinesReachTheOutputOnlyWithVerbose) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string input = sphereFile("lines.ply", 3000, 20.0f), output = tempPath("lines.ply");
    const Result plain = run("reconstruct " + input + " -o " + output);
    ASSERT_EQ(plain.status, 0) << plain.err;
    const Result verbose = run("reconstruct " + input + " -o " + output + " --verbose");
    ASSERT_EQ(verbose.status, 0) << verbose.err;
    const Result verbose_json = run("reconstruct " + input + " -o " + output + " --verbose --json");
    ASSERT_EQ(verbose_json.status, 0) << verbose_json.err;
    const char* library_line = "[MarchingCubes] cells ";
    EXPECT_EQ(plain.out.find(library_line), std::string::npos);
    EXPECT_EQ(plain.err.find(library_line), std::string::npos);
    EXPECT_NE(verbose.out.find(library_line), std::string::npos);
    EXPECT_EQ(verbose_json.out.find(library_line), std::string::npos);  // kept out of the JSON
    EXPECT_NE(verbose_json.err.find(library_line), std::string::npos);
    EXPECT_EQ(verbose_json.out.front(), '{');
}

TEST(Program, AMeshTooSmallForItsPointsWarnsAndAnEmptyOneFails) {
    TESSALINE_REQUIRE_PROGRAM();
    // 2000 points 2.4 mm apart: at 1 mm a few cells hold enough points, at 0.5 mm none does.
    const std::string input = sphereFile("sparse.ply", 2000, 30.0f);
    const std::string small = tempPath("small.ply"), empty = tempPath("empty.ply");
    const Result few = run("reconstruct " + input + " --resolution 1 -o " + small);
    EXPECT_EQ(few.status, 0);
    EXPECT_NE(few.err.find("warning: the mesh has "), std::string::npos) << few.err;
    EXPECT_NE(few.err.find("--resolution auto"), std::string::npos) << few.err;
    EXPECT_TRUE(exists(small));
    const Result none = run("reconstruct " + input + " --resolution 0.5 -o " + empty);
    EXPECT_EQ(none.status, 3);
    EXPECT_NE(none.err.find("the mesh is empty"), std::string::npos) << none.err;
    EXPECT_NE(none.err.find("--resolution auto"), std::string::npos) << none.err;
    EXPECT_FALSE(exists(empty));
    EXPECT_FALSE(exists(empty + ".partial"));
    // The choice the warnings advise gives a closed mesh without a warning.
    const Result chosen = run("reconstruct " + input + " -o " + small);
    EXPECT_EQ(chosen.status, 0);
    EXPECT_EQ(chosen.err.find("warning"), std::string::npos) << chosen.err;
}

TEST(Program, AnOutputThatCannotBeWrittenFailsBeforeTheRun) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string input = sphereFile("unwritable.ply", 3000, 20.0f);
    const struct {
        std::string output, error;
    } cases[] = {{tempPath("no_such_folder") + "/mesh.ply", "cannot write the file"},
                 {::testing::TempDir(), "unknown mesh format"},
                 {tempPath("folder.ply"), "is a directory"}};
    mkdir(tempPath("folder.ply").c_str(), 0755);
    for (const auto& c : cases) {
        const Result r = run("reconstruct " + input + " -o " + c.output);
        EXPECT_EQ(r.status, 1) << c.output;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;  // no run, no summary
    }
}

TEST(Program, MinPieceAndFillHolesFinishTheMesh) {
    TESSALINE_REQUIRE_PROGRAM();
    // A sphere of radius 30 with its top cut off (a round hole) and, 100 mm away, a closed sphere of radius 5
    // as dense: two pieces, one hole.
    FrameDataWithInfo frame;
    const struct {
        int points;
        float radius, cap, shift;
    } parts[] = {{20000, 30.0f, 28.0f, 0.0f}, {560, 5.0f, 1e9f, 100.0f}};
    for (const auto& part : parts) {
        tessaline_tools::PointCloudReadInfo info;
        const auto read = tessaline_tools::readPlyPointCloud(
            sphereFile("part.ply", part.points, part.radius, 1.0f, part.cap), 1.0f, 8, info);
        for (std::size_t i = 0; i < read->xyz.size(); ++i) {
            frame.xyz.push_back({read->xyz[i][0] + part.shift, read->xyz[i][1], read->xyz[i][2]});
            frame.nor.push_back(read->nor[i]);
            frame.w.push_back(8);
        }
    }
    const std::string input = tempPath("pieces.ply");
    tessaline_tools::writePlyPointCloud(input, frame);
    const std::string common = "reconstruct " + input + " -o " + tempPath("finished.ply") + " --json";
    const Result plain = run(common);
    ASSERT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(jsonNumber(plain.out, "pieces"), 2.0);
    EXPECT_EQ(jsonNumber(plain.out, "boundary_loops"), 1.0);
    EXPECT_GT(jsonNumber(plain.out, "boundary_edges"), 20.0);
    const Result finished = run(common + " --min-piece 2000 --fill-holes 1000");
    ASSERT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(jsonNumber(finished.out, "pieces"), 1.0);
    EXPECT_EQ(jsonNumber(finished.out, "boundary_edges"), 0.0);
    EXPECT_EQ(jsonNumber(finished.out, "holes_filled"), 1.0);
    const double removed = jsonNumber(finished.out, "triangles_removed");
    EXPECT_GT(removed, 100.0);  // the small sphere, and nothing of the large one
    EXPECT_LT(removed, 2000.0);
    EXPECT_EQ(run(common + " --fill-holes 2").status, 1);  // a hole has three edges or more
}

TEST(Program, RenderAndCompareReadEveryFormatReconstructWrites) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string input = sphereFile("formats.ply", 8000, 20.0f);
    for (const char* ext : {".ply", ".obj", ".stl"}) {
        const std::string mesh = tempPath(std::string("formats") + ext);
        ASSERT_EQ(run("reconstruct " + input + " -o " + mesh).status, 0) << ext;
        const std::string picture = tempPath("formats.png");
        const Result rendered = run("render " + mesh + " -o " + picture + " --size 64");
        EXPECT_EQ(rendered.status, 0) << rendered.err;
        EXPECT_TRUE(exists(picture));
        // Against the PLY of the same run: the same surface, all of it within 0.1 mm both ways (the
        // triangles' edges are about 1 mm).
        const Result compared = run("compare " + mesh + " " + tempPath("formats.ply") + " --samples 20000");
        ASSERT_EQ(compared.status, 0) << compared.err;
        EXPECT_NE(compared.out.find("F-score at 0.1 1.000"), std::string::npos) << compared.out;
        EXPECT_NE(compared.out.find("covered (within 1 mm): 100.0%"), std::string::npos) << compared.out;
    }
}

TEST(Program, VersionNamesTheBackendAndDeviceCheckSpeaksForItself) {
    TESSALINE_REQUIRE_PROGRAM();
    const Result version = run("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out,
              std::string("tessaline ") + TESSALINE_VERSION_STRING + ", backend: " + TESSALINE_BACKEND + "\n");
    const Result device = run("--check-device");
    EXPECT_EQ(device.status, 0);
    EXPECT_EQ(device.out.find("sucess"), std::string::npos);
    EXPECT_NE(device.out.find("the compute device is ready"), std::string::npos) << device.out;
}
