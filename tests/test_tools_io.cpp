// Scan and mesh files of the command-line program: PLY point clouds in every layout, malformed files,
// welding and the three mesh formats, and the program's answers to bad input.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "BunnyData.h"
#include "MeshIO.h"
#include "PointCloudIO.h"
#include "ProgramPath.h"

using namespace SurfaceReconstruction;

namespace {

std::string tempPath(const std::string& name) { return ::testing::TempDir() + "tessaline_" + name; }

// A binary PLY of three points with the given byte order, properties in the order nz, x, ny, y, nx, z
// as doubles, plus an unused uchar.
void writeBinaryPly(const std::string& path, bool big_endian, int points = 3, bool truncate = false) {
    std::ofstream out(path, std::ios::binary);
    out << "ply\nformat " << (big_endian ? "binary_big_endian" : "binary_little_endian") << " 1.0\n"
        << "element vertex " << points << "\nproperty double nz\nproperty double x\nproperty double ny\n"
        << "property double y\nproperty double nx\nproperty uchar quality\nproperty double z\nend_header\n";
    for (int i = 0; i < points - (truncate ? 1 : 0); ++i) {
        const double values[6] = {1.0, 10.0 + i, 0.0, 20.0 + i, 0.0, 30.0 + i};
        for (int k = 0; k < 6; ++k) {
            unsigned char bytes[8];
            std::memcpy(bytes, &values[k], 8);
            if (big_endian) std::reverse(bytes, bytes + 8);
            out.write(reinterpret_cast<const char*>(bytes), 8);
            if (k == 4) out.put(static_cast<char>(7));
        }
    }
}

void expectThreePoints(const FrameDataWithInfo& frame, float scale) {
    ASSERT_EQ(frame.xyz.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FLOAT_EQ(frame.xyz[static_cast<std::size_t>(i)][0], (10.0f + i) * scale);
        EXPECT_FLOAT_EQ(frame.xyz[static_cast<std::size_t>(i)][1], (20.0f + i) * scale);
        EXPECT_FLOAT_EQ(frame.xyz[static_cast<std::size_t>(i)][2], (30.0f + i) * scale);
        EXPECT_FLOAT_EQ(frame.nor[static_cast<std::size_t>(i)][2], 1.0f);
        EXPECT_EQ(frame.w[static_cast<std::size_t>(i)], 16);
    }
}

std::string readError(const std::string& path) {
    try {
        tessaline_tools::PointCloudReadInfo info;
        tessaline_tools::readPlyPointCloud(path, 1.0f, 8, info);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(PointCloudFiles, AsciiAndBothBinaryOrdersInAnyPropertyOrder) {
    const std::string ascii = tempPath("ascii.ply");
    {
        std::ofstream out(ascii);
        out << "ply\r\nformat ascii 1.0\ncomment made by hand\nelement vertex 3\nproperty float x\nproperty float y\n"
               "property float z\nproperty float nx\nproperty float ny\nproperty float nz\nelement face 0\n"
               "property list uchar int vertex_indices\nend_header\n"
               "10 20 30 0 0 2\n11 21 31 0 0 1\n12 22 32 0 0 0.5\n";
    }
    tessaline_tools::PointCloudReadInfo info;
    expectThreePoints(*tessaline_tools::readPlyPointCloud(ascii, 1.0f, 16, info), 1.0f);  // normals normalised
    for (bool big : {false, true}) {
        const std::string path = tempPath(big ? "big.ply" : "little.ply");
        writeBinaryPly(path, big);
        expectThreePoints(*tessaline_tools::readPlyPointCloud(path, 1000.0f, 16, info), 1000.0f);
    }
    EXPECT_EQ(info.dropped, 0u);
}

TEST(PointCloudFiles, MalformedFilesGiveOneClearError) {
    EXPECT_NE(readError(tempPath("missing.ply")).find("cannot open"), std::string::npos);
    const std::string not_ply = tempPath("not.ply");
    std::ofstream(not_ply) << "solid cube\n";
    EXPECT_NE(readError(not_ply).find("not a PLY file"), std::string::npos);
    const std::string no_normals = tempPath("nonormals.ply");
    std::ofstream(no_normals) << "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
                                 "property float z\nend_header\n1 2 3\n";
    EXPECT_NE(readError(no_normals).find("no normals"), std::string::npos);
    const std::string truncated = tempPath("truncated.ply");
    writeBinaryPly(truncated, false, 3, true);
    const std::string error = readError(truncated);
    EXPECT_NE(error.find("truncated"), std::string::npos);
    EXPECT_NE(error.find(truncated), std::string::npos);  // the file is named
    const std::string no_end = tempPath("noend.ply");
    std::ofstream(no_end) << "ply\nformat ascii 1.0\nelement vertex 1\n";
    EXPECT_NE(readError(no_end).find("end_header"), std::string::npos);
}

TEST(PointCloudFiles, NaNPointsAreLeftOutAndCounted) {
    const std::string path = tempPath("nan.ply");
    std::ofstream(path) << "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                           "property float z\nproperty float nx\nproperty float ny\nproperty float nz\nend_header\n"
                           "1 2 3 0 0 1\nnan 2 3 0 0 1\n4 5 6 0 0 0\n";
    tessaline_tools::PointCloudReadInfo info;
    const auto frame = tessaline_tools::readPlyPointCloud(path, 1.0f, 8, info);
    EXPECT_EQ(frame->xyz.size(), 1u);
    EXPECT_EQ(info.dropped, 2u);  // the NaN and the point without a normal
    EXPECT_EQ(frame->xyz.size(), frame->w.size());
}

TEST(MeshFiles, WeldingSharesVerticesAndDropsDegenerateTriangles) {
    MultiMeshData soup;
    const TriangleXYZ a = {{0, 0, 0, 1, 0, 0, 0, 1, 0}};
    const TriangleXYZ b = {{1, 0, 0, 1, 1, 0, 0, 1.00000001f, 0}};  // shares an edge, within the tolerance
    const TriangleXYZ flat = {{2, 2, 2, 2, 2, 2.00000001f, 3, 3, 3}};
    soup.xyz = {a, b, flat};
    soup.w = {TriangleW{{1, 2, 3}}, TriangleW{{4, 5, 6}}, TriangleW{{7, 8, 9}}};
    const auto welded = tessaline_tools::weldMesh(soup, 1e-4f, 10.0f);
    EXPECT_EQ(welded.vertices.size(), 6u);  // 4 of the pair, 2 of the collapsed triangle
    EXPECT_EQ(welded.triangles.size(), 2u);
    EXPECT_EQ(welded.dropped, 1u);
    EXPECT_EQ(tessaline_tools::countBoundaryEdges(welded), 4u);
    EXPECT_FLOAT_EQ(welded.vertices[1][0], 10.0f);  // scaled on the way

    for (const char* ext : {"ply", "obj", "stl"}) {
        const std::string path = tempPath(std::string("mesh.") + ext);
        tessaline_tools::writeWeldedMesh(path, welded);
        std::ifstream in(path, std::ios::binary | std::ios::ate);
        ASSERT_TRUE(in.good()) << ext;
        if (std::string(ext) == "stl") {
            EXPECT_EQ(static_cast<long>(in.tellg()), 84 + 50 * 2);
        }
        EXPECT_FALSE(std::ifstream(path + ".partial").good());
    }
    EXPECT_THROW(tessaline_tools::writeWeldedMesh(tempPath("mesh.xyz"), welded), std::runtime_error);
    EXPECT_FALSE(std::ifstream(tempPath("mesh.xyz")).good());
}

TEST(MeshFiles, BinaryAndAsciiMeshesReadTheSameAndBadFacesAreRefused) {
    // One quad and one triangle over four vertices, with an extra vertex property before x.
    const std::string ascii = tempPath("quad_ascii.ply"), binary = tempPath("quad_binary.ply");
    const char* header_rest =
        " 1.0\nelement vertex 4\nproperty uchar red\nproperty float x\nproperty float y\nproperty double z\n"
        "element face 2\nproperty list uchar int vertex_indices\nend_header\n";
    std::ofstream(ascii) << "ply\nformat ascii" << header_rest
                         << "9 0 0 0\n9 1 0 0\n9 1 1 0.5\n9 0 1 0\n4 0 1 2 3\n3 0 2 1\n";
    {
        std::ofstream out(binary, std::ios::binary);
        out << "ply\nformat binary_big_endian" << header_rest;
        const float xy[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
        const double z[4] = {0, 0, 0.5, 0};
        const auto put = [&out](const void* bytes, int size) {
            unsigned char b[8];
            std::memcpy(b, bytes, static_cast<std::size_t>(size));
            std::reverse(b, b + size);
            out.write(reinterpret_cast<const char*>(b), size);
        };
        for (int v = 0; v < 4; ++v) {
            out.put(9);
            put(&xy[v][0], 4);
            put(&xy[v][1], 4);
            put(&z[v], 8);
        }
        const std::int32_t faces[2][4] = {{0, 1, 2, 3}, {0, 2, 1, -1}};
        for (int f = 0; f < 2; ++f) {
            out.put(static_cast<char>(f == 0 ? 4 : 3));
            for (int k = 0; k < (f == 0 ? 4 : 3); ++k) put(&faces[f][k], 4);
        }
    }
    const auto a = tessaline_tools::readPlyMesh(ascii, 2.0f);
    const auto b = tessaline_tools::readPlyMesh(binary, 2.0f);
    ASSERT_EQ(a.triangles.size(), 3u);  // the quad fanned into two
    EXPECT_EQ(a.triangles, b.triangles);
    EXPECT_EQ(a.vertices, b.vertices);
    EXPECT_FLOAT_EQ(b.vertices[2][2], 1.0f);

    const auto meshError = [](const std::string& path) {
        try {
            tessaline_tools::readPlyMesh(path);
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    const std::string bad_index = tempPath("bad_index.ply");
    std::ofstream(bad_index) << "ply\nformat ascii" << header_rest
                             << "9 0 0 0\n9 1 0 0\n9 1 1 0\n9 0 1 0\n3 0 1 7\n3 0 1 2\n";
    EXPECT_NE(meshError(bad_index).find("a vertex that does not exist"), std::string::npos);
    const std::string short_faces = tempPath("short_faces.ply");
    std::ofstream(short_faces) << "ply\nformat ascii" << header_rest << "9 0 0 0\n9 1 0 0\n9 1 1 0\n9 0 1 0\n3 0 1\n";
    EXPECT_NE(meshError(short_faces).find("truncated data (face"), std::string::npos) << meshError(short_faces);
    const std::string word = tempPath("word.ply");
    std::ofstream(word) << "ply\nformat ascii" << header_rest << "9 0 0 zero\n";
    EXPECT_NE(meshError(word).find("'zero' is not a number"), std::string::npos);
}

namespace {
// Runs the command-line program; its exit status, and what it wrote on standard error.
int runProgram(const std::string& arguments, std::string& errors) {
    const std::string err = tempPath("stderr_" + std::to_string(getpid()) + ".txt");  // one per test process
    const int status = std::system((testing_support::programPath() + " " + arguments + " >/dev/null 2>" + err).c_str());
    std::ifstream in(err);
    errors.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
}  // namespace

TEST(Program, BadInputGivesOneErrorLineAndNoOutput) {
    TESSALINE_REQUIRE_PROGRAM();
    std::string errors;
    const std::string output = tempPath("never.ply");
    EXPECT_EQ(runProgram("reconstruct " + tempPath("missing.ply") + " -o " + output, errors), 1);
    EXPECT_NE(errors.find("missing.ply: cannot open the file"), std::string::npos) << errors;
    EXPECT_FALSE(std::ifstream(output).good());
    EXPECT_EQ(runProgram("reconstruct " + tempPath("ascii.ply") + " -o out.xyz", errors), 1);
    EXPECT_NE(errors.find("unknown mesh format"), std::string::npos) << errors;
    EXPECT_EQ(runProgram("reconstruct x.ply -o y.ply --units furlong", errors), 1);
    EXPECT_NE(errors.find("unknown unit"), std::string::npos) << errors;
    EXPECT_EQ(runProgram("reconstruct x.ply -o y.ply --scale-code 3", errors), 1);
    EXPECT_EQ(runProgram("frobnicate", errors), 2);
    EXPECT_EQ(runProgram("compare " + tempPath("missing.ply") + " part", errors), 1);
    EXPECT_NE(errors.find("missing.ply: cannot open the file"), std::string::npos) << errors;
    const std::string cloud = tempPath("cloud_only.ply");
    std::ofstream(cloud) << "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
                            "property float z\nend_header\n1 2 3\n";
    EXPECT_EQ(runProgram("compare " + cloud + " part", errors), 1);  // a point cloud: no faces
    EXPECT_NE(errors.find("no triangles"), std::string::npos) << errors;
    EXPECT_EQ(runProgram("render " + cloud + " -o " + tempPath("never.png"), errors), 1);
    EXPECT_FALSE(std::ifstream(tempPath("never.png")).good());
    EXPECT_EQ(runProgram("simulate", errors), 1);
    EXPECT_NE(errors.find("no output directory"), std::string::npos) << errors;
}

TEST(Program, ReconstructsTheBunnyScanList) {
    TESSALINE_REQUIRE_PROGRAM();
    TESSALINE_REQUIRE_BUNNY();
    std::string errors;
    const std::string output = tempPath("bunny.stl");
    const std::string reference = std::string(TESSALINE_TEST_DATA_DIR) + "/stanford-bunny/reference/bun_zipper.ply";
    const std::string report = tempPath("bunny_report.txt");
    const int status =
        std::system((testing_support::programPath() + " reconstruct " + testing_support::bunnyConfPath() +
                     " --units m --quiet -o " + output + " --reference " + reference + " >" + report + " 2>/dev/null")
                        .c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::ifstream text_in(report);
    const std::string text((std::istreambuf_iterator<char>(text_in)), std::istreambuf_iterator<char>());
    const std::size_t at = text.find("distance to the reference:");
    ASSERT_NE(at, std::string::npos) << text;
    double median = -1;
    ASSERT_EQ(std::sscanf(text.c_str() + at, "distance to the reference: median %lf", &median), 1);
    EXPECT_LT(median, 0.1);  // millimetres
    std::ifstream in(output, std::ios::binary | std::ios::ate);
    EXPECT_GT(static_cast<long>(in.tellg()), 84 + 50 * 100000);  // hundreds of thousands of triangles
}
