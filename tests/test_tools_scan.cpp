// The built-in part, the scanner simulation, surface comparison and pictures: what the demo and the
// benchmarks rest on.
#include <gtest/gtest.h>
#include <omp.h>
#include <png.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>

#include "MeshIO.h"
#include "MeshRender.h"
#include "Part.h"
#include "PointCloudIO.h"
#include "ProgramPath.h"
#include "ScanSimulator.h"
#include "SurfaceCompare.h"

using namespace SurfaceReconstruction;
using tessaline_tools::P3;
using tessaline_tools::Part;
using tessaline_tools::Triangle;

namespace {

std::string tempPath(const std::string& name) { return ::testing::TempDir() + "tessaline_scan_" + name; }

// A unit square in the plane z = height, two triangles, facing +z.
std::vector<Triangle> square(float height, float size = 1.0f) {
    return {{P3{0, 0, height}, P3{size, 0, height}, P3{size, size, height}},
            {P3{0, 0, height}, P3{size, size, height}, P3{0, size, height}}};
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
            if (flip) {
                triangles.push_back({c[0], c[2], c[1]});
                triangles.push_back({c[0], c[3], c[2]});
            } else {
                triangles.push_back({c[0], c[1], c[2]});
                triangles.push_back({c[0], c[2], c[3]});
            }
        }
    return triangles;
}

tessaline_tools::ScanSimulation smallScan() {
    tessaline_tools::ScanSimulation s;
    s.target_points = 60000;
    s.rays_per_line = 400;
    return s;
}

}  // namespace

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
    const auto n = Part::normal({-25.0, 15.0, 12.0});
    EXPECT_NEAR(n[2], 1.0, 1e-6);
    EXPECT_FALSE(Part::raycast({17.0, -8.0, 100.0}, {0.0, 0.0, -1.0}, 500.0, t));  // through the hole: no floor
    EXPECT_FALSE(Part::raycast({100.0, 100.0, 100.0}, {0.0, 0.0, 1.0}, 500.0, t));
}

TEST(ScanSimulation, FramesAreRealisticAndTheSameForAnyThreadCount) {
    const auto settings = smallScan();
    omp_set_num_threads(1);
    const auto one = tessaline_tools::simulateScan(settings);
    omp_set_num_threads(2);
    const auto two = tessaline_tools::simulateScan(settings);
    ASSERT_EQ(one.size(), two.size());
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
            const auto& p = a.xyz[i];
            const auto& n = a.nor[i];
            deviation.push_back(std::fabs(Part::distance({p[0], p[1], p[2]})));
            // Normals face the scanner that saw the point.
            EXPECT_GT(n[0] * (t[0] - p[0]) + n[1] * (t[1] - p[1]) + n[2] * (t[2] - p[2]), 0.0);
            flagged += (a.w[i] & tessaline_tools::FEATURE_FLAG) != 0 ? 1 : 0;
            fine += (a.w[i] & 0xFF) == 16 ? 1 : 0;
        }
        // Markers seen, measured in the scanner's frame: the pose takes them back onto the table.
        const MarkerInfos truth = tessaline_tools::simulatedMarkers();
        for (std::size_t m = 0; m < a.marker_ids.size(); ++m) {
            const auto& local = a.marker_xyz[m];
            double world[3];
            for (int r = 0; r < 3; ++r)
                world[r] = a.frame_info.rotation[r] * local[0] + a.frame_info.rotation[3 + r] * local[1] +
                           a.frame_info.rotation[6 + r] * local[2] + t[r];
            const auto& expected = truth.xyz[static_cast<std::size_t>(a.marker_ids[m])];
            EXPECT_NEAR(world[0], expected[0], 0.08);
            EXPECT_NEAR(world[1], expected[1], 0.08);
            EXPECT_NEAR(world[2], 0.0, 0.08);
            ++markers;
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

TEST(ScanSimulation, MisregisteredFramesCarryTheirWrongPoseIntoPointsAndMarkers) {
    auto settings = smallScan();
    settings.target_points = 20000;
    const auto right = tessaline_tools::simulateScan(settings);
    settings.misregistered = {2};
    settings.misregistration_degrees = 0.5;
    const auto wrong = tessaline_tools::simulateScan(settings);
    ASSERT_EQ(right.size(), wrong.size());
    EXPECT_EQ(right[1]->xyz, wrong[1]->xyz);
    ASSERT_EQ(right[2]->xyz.size(), wrong[2]->xyz.size());
    // Points move rigidly with the pose; the markers, measured by the scanner, do not move.
    double largest = 0;
    for (std::size_t i = 0; i < right[2]->xyz.size(); ++i) {
        const auto& a = right[2]->xyz[i];
        const auto& b = wrong[2]->xyz[i];
        largest = std::max(largest, static_cast<double>(std::hypot(a[0] - b[0], a[1] - b[1])));
    }
    EXPECT_GT(largest, 0.1);
    EXPECT_LT(largest, 0.5);
    EXPECT_EQ(right[2]->marker_xyz, wrong[2]->marker_xyz);
    EXPECT_NE(right[2]->frame_info.translation[0], wrong[2]->frame_info.translation[0]);
}

TEST(SurfaceComparison, DistancesMatchBruteForceAndKnownOffsets) {
    // The grid search against every triangle, near and far (far points need the growing search).
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Triangle> triangles;
    for (int i = 0; i < 300; ++i) {
        const P3 a = {unit(random) * 10, unit(random) * 10, unit(random) * 2};
        triangles.push_back({a, P3{a[0] + unit(random), a[1] + unit(random), a[2]},
                             P3{a[0], a[1] + unit(random), a[2] + unit(random)}});
    }
    const tessaline_tools::TriangleGrid grid(triangles, 0.5f);
    for (int i = 0; i < 400; ++i) {
        const float spread = i < 200 ? 12.0f : 80.0f;
        const P3 p = {unit(random) * spread - spread / 4, unit(random) * spread - spread / 4,
                      unit(random) * spread - spread / 4};
        float best = 1e30f;
        for (const Triangle& t : triangles)
            best = std::min(best, tessaline_tools::pointTriangleDistance2(p, t[0], t[1], t[2]));
        ASSERT_NEAR(grid.distance(p), std::sqrt(best), 1e-4f * (1.0f + std::sqrt(best)));
    }

    // A square against itself lifted by 0.3: every distance is 0.3 both ways.
    const auto mesh = tessaline_tools::meshSurface(square(0.3f), 5000);
    const auto reference = tessaline_tools::meshSurface(square(0.0f), 5000);
    const auto c = tessaline_tools::compareSurfaces(*mesh, *reference, {0.1, 0.5}, 1.0);
    EXPECT_NEAR(c.to_reference.median, 0.3, 1e-5);
    EXPECT_NEAR(c.from_reference.max, 0.3, 1e-5);
    EXPECT_NEAR(c.chamfer, 0.3, 1e-5);
    EXPECT_EQ(c.fscore[0], 0.0);
    EXPECT_EQ(c.fscore[1], 1.0);
    EXPECT_EQ(c.coverage, 1.0);
    // Half the reference missing from the mesh: precision stays, recall and coverage halve.
    auto half = square(0.0f, 1.0f);
    const auto wide = tessaline_tools::meshSurface(
        {{P3{0, 0, 0}, P3{2, 0, 0}, P3{2, 1, 0}}, {P3{0, 0, 0}, P3{2, 1, 0}, P3{0, 1, 0}}}, 20000);
    const auto partial = tessaline_tools::meshSurface(std::move(half), 20000);
    const auto d = tessaline_tools::compareSurfaces(*partial, *wide, {0.1}, 0.5);
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
            if (background) continue;
            ++colours[inside_out][image.rgb[i] > image.rgb[i + 2] ? 1 : 0];
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

TEST(Program, DemoWritesMeshAndPictureAndReportsTheAccuracy) {
    TESSALINE_REQUIRE_PROGRAM();
    const std::string folder = tempPath("demo");
    const std::string out = tempPath("demo.txt");
    const int status = std::system(
        (testing_support::programPath() + " demo --points 150000 --quiet -o " + folder + " >" + out + " 2>/dev/null")
            .c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::ifstream in(out);
    const std::string report((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(report.find("distance to the true surface:"), std::string::npos) << report;
    EXPECT_NE(report.find("F-score at 0.1"), std::string::npos) << report;
    const auto mesh = tessaline_tools::readPlyMesh(folder + "/tessaline-demo.ply");
    EXPECT_GT(mesh.triangles.size(), 20000u);
    EXPECT_TRUE(std::ifstream(folder + "/tessaline-demo.png").good());

    // The mesh lies on the part: checked here with the comparison itself, through the program.
    const int compared = std::system(
        (testing_support::programPath() + " compare " + folder + "/tessaline-demo.ply part >" + out + " 2>&1").c_str());
    ASSERT_TRUE(WIFEXITED(compared) && WEXITSTATUS(compared) == 0);
    std::ifstream again(out);
    const std::string text((std::istreambuf_iterator<char>(again)), std::istreambuf_iterator<char>());
    double median = -1, p95 = -1;
    ASSERT_EQ(std::sscanf(text.c_str(), "distance to the reference: median %lf, 95%% %lf", &median, &p95), 2) << text;
    EXPECT_LT(median, 0.05);
    EXPECT_LT(p95, 0.25);
}
