// Scan and mesh files of the command-line program: PLY point clouds in every layout, malformed files,
// welding and the three mesh formats, and the program's answers to bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "BunnyData.h"
#include "MeshIO.h"
#include "PointCloudIO.h"

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

namespace {
// Runs the command-line program; its exit status, and what it wrote on standard error.
int runProgram(const std::string& arguments, std::string& errors) {
    const std::string err = tempPath("stderr_" + std::to_string(getpid()) + ".txt");  // one per test process
    const int status = std::system((std::string(TESSALINE_CLI_PATH) + " " + arguments + " >/dev/null 2>" + err).c_str());
    std::ifstream in(err);
    errors.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
}  // namespace

TEST(Program, BadInputGivesOneErrorLineAndNoOutput) {
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
}

TEST(Program, ReconstructsTheBunnyScanList) {
    TESSALINE_REQUIRE_BUNNY();
    std::string errors;
    const std::string output = tempPath("bunny.stl");
    ASSERT_EQ(runProgram("reconstruct " + testing_support::bunnyConfPath() + " --units m --quiet -o " + output, errors), 0)
        << errors;
    std::ifstream in(output, std::ios::binary | std::ios::ate);
    EXPECT_GT(static_cast<long>(in.tellg()), 84 + 50 * 100000);  // hundreds of thousands of triangles
}
