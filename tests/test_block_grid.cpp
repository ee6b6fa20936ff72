// The grid a run cuts its scan into: the block size and the run origin that an application may fix, and
// a mesh that does not depend on the memory of the machine it was made on.
#include <algorithm>
#include <map>

#include "TestSupport.h"
#include "tessaline/TessalineMesh.h"
#include "tessaline/TessalineSession.h"

using namespace SurfaceReconstruction;
using namespace testing_support;

// Machines of 4 GiB and 64 GiB (below and above the 7 GiB at which the block size used to double), the
// second also under a container limit of 6 GiB: the same blocks and the same mesh, byte for byte.
TEST(BlockGrid, TheMeshDoesNotDependOnTheMachinesMemory) {
    struct Row {
        const char* name;
        std::uint64_t total_mib, limit_mib;
    };
    const Row rows[] = {{"small", 4096, 4096}, {"large", 65536, 65536}, {"limited", 65536, 6144}};
    std::vector<std::shared_ptr<MultiMeshData>> meshes;
    for (const Row& row : rows) {
        const FakeHostMemory machine(std::string("grid_") + row.name, row.total_mib,
                                     {{"/proc/self/cgroup", "0::/\n"},
                                      {"/sys/fs/cgroup/memory.max", std::to_string(row.limit_mib << 20) + "\n"},
                                      {"/sys/fs/cgroup/memory.current", "0\n"}});
        std::uint32_t block_size = 0;
        const Session run = runSession(smallScan(), 0.5f, [&](Tessaline& t) { block_size = t.getBlockSize(); });
        ASSERT_EQ(run.status, 0) << row.name << ": " << run.error;
        EXPECT_EQ(block_size, 256u) << row.name;
        ASSERT_FALSE(run.mesh->xyz.empty());
        meshes.push_back(run.mesh);
    }
    for (std::size_t i = 1; i < meshes.size(); ++i) EXPECT_TRUE(sameMesh(*meshes[0], *meshes[i])) << rows[i].name;
}

// The block sizes an application may ask for, and what the next run takes.
TEST(BlockGrid, BlockSizeSettings) {
    struct Row {
        float resolution;
        std::uint32_t asked;
        int status;
        std::uint32_t taken;
    };
    const Row rows[] = {
        {0.5f, 0, 0, 256},   {0.1f, 0, 0, 128},  {0.5f, 64, 0, 64},    {0.1f, 64, 0, 64},   {0.5f, 32, 0, 32},
        {0.5f, 512, 0, 512}, {0.5f, 16, 1, 256}, {0.5f, 1024, 1, 256}, {0.5f, 100, 1, 256}, {0.5f, 255, 1, 256},
    };
    for (const Row& row : rows) {
        Tessaline t;
        ASSERT_EQ(t.init(), 0);
        t.setResolution(row.resolution);
        EXPECT_EQ(t.setBlockSize(row.asked), row.status) << row.asked;
        EXPECT_EQ(t.getBlockSize(), row.taken) << row.asked << " at " << row.resolution;
        t.deInit();
    }
}

// A fixed origin is the one the run takes, whatever the points; a non-finite one is refused.
TEST(BlockGrid, AFixedOriginIsTheRunsOrigin) {
    Tessaline t;
    ASSERT_EQ(t.init(), 0);
    EXPECT_EQ(t.setRunOrigin({1.0, std::nan(""), 0.0}), 1);
    ASSERT_EQ(t.setRunOrigin({100.25, -3.5, 7.0}), 0);
    for (const auto& f : sphereScan({0, 0, 30}, 10.0f, 0.4f)) t.addScanFrame_ALL(f);
    auto mesh = std::make_shared<MultiMeshData>();
    EXPECT_EQ(processQuietly(t, mesh), 0) << t.getLastErrorMsg();
    std::array<double, 3> origin{};
    ASSERT_EQ(t.getRunOrigin(origin), 0);
    EXPECT_EQ(origin, (std::array<double, 3>{100.25, -3.5, 7.0}));
    t.deInit();
}

namespace {

// Runs of the small scan on a grid of blocks of 32 resolutions (16 mm, some 60 blocks with triangles)
// measured from an origin off the block multiples.
constexpr float SPLIT_RESOLUTION = 0.5f;
constexpr std::uint32_t SPLIT_BLOCK = 32;
const std::array<double, 3> SPLIT_ORIGIN = {3.0, -5.0, 1.0};

void splitGrid(Tessaline& t) {
    t.setRunOrigin(SPLIT_ORIGIN);
    t.setBlockSize(SPLIT_BLOCK);
}

// The parts of one run restricted to `owned`.
std::vector<MeshPart> partsOf(const std::vector<BlockKey>& owned) {
    std::vector<MeshPart> parts;
    Tessaline t;
    EXPECT_EQ(t.init(), 0);
    t.setResolution(SPLIT_RESOLUTION);
    splitGrid(t);
    EXPECT_EQ(t.setOwnedBlocks(owned), 0);
    for (const auto& f : smallScan()) t.addScanFrame_ALL(f);
    quiet([&] { EXPECT_EQ(t.processParts(parts), 0) << t.getLastErrorMsg(); });
    t.deInit();
    return parts;
}

// The parts of several runs put together in the order of their keys.
MultiMeshData merged(std::vector<MeshPart> parts) {
    std::sort(parts.begin(), parts.end(), [](const MeshPart& a, const MeshPart& b) { return a.block < b.block; });
    MultiMeshData soup;
    for (const MeshPart& p : parts) {
        soup.xyz.insert(soup.xyz.end(), p.mesh.xyz.begin(), p.mesh.xyz.end());
        soup.w.insert(soup.w.end(), p.mesh.w.begin(), p.mesh.w.end());
    }
    return soup;
}

bool sameWelded(const IndexedMesh& a, const IndexedMesh& b) {
    return a.triangles == b.triangles && a.words == b.words && a.vertices.size() == b.vertices.size() &&
           std::memcmp(a.vertices.data(), b.vertices.data(), a.vertices.size() * sizeof(Vec3f)) == 0;
}

}  // namespace

// The walk of a block goes to the cores in pieces (its children's children and what lies between them,
// then what lies between its children, and its seams) where the blocks are few beside the team: a run
// makes the same triangles in the same order for any team, the mesh and the parts alike, and still one
// part a block, and a run of many blocks walked whole the same as in pieces.
TEST(BlockGrid, FewLargeBlocksMeshAlikeForAnyTeam) {
    const auto largeBlocks = [](Tessaline& t) { t.setRunOrigin(SPLIT_ORIGIN); };  // the default block size
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const Session alone = runOk(smallScan(), SPLIT_RESOLUTION, largeBlocks);
    ASSERT_GT(alone.mesh->xyz.size(), 10000u);
    for (const int team : {2, 5}) {
        omp_set_num_threads(team);
        const Session run = runOk(smallScan(), SPLIT_RESOLUTION, largeBlocks);
        EXPECT_TRUE(sameMesh(*run.mesh, *alone.mesh)) << team << " threads";
        std::vector<MeshPart> parts;
        Tessaline t;
        ASSERT_EQ(t.init(), 0);
        t.setResolution(SPLIT_RESOLUTION);
        largeBlocks(t);
        for (const auto& f : smallScan()) t.addScanFrame_ALL(f);
        quiet([&] { EXPECT_EQ(t.processParts(parts), 0) << t.getLastErrorMsg(); });
        t.deInit();
        ASSERT_LT(parts.size(), 9u) << team << " threads";
        for (std::size_t i = 1; i < parts.size(); ++i) EXPECT_TRUE(parts[i - 1].block < parts[i].block);
        EXPECT_TRUE(sameMesh(merged(parts), *alone.mesh)) << team << " threads";
    }
    // Some 60 blocks: each a piece of its own for one thread, in pieces for a team of 64.
    omp_set_num_threads(1);
    const Session whole = runOk(smallScan(), SPLIT_RESOLUTION, splitGrid);
    omp_set_num_threads(64);
    const Session in_pieces = runOk(smallScan(), SPLIT_RESOLUTION, splitGrid);
    EXPECT_TRUE(sameMesh(*in_pieces.mesh, *whole.mesh));
    omp_set_num_threads(threads);
}

// The scan's blocks split into runs of several shapes: slabs along x, a checkerboard, single blocks beside
// the rest. Every block's part comes from exactly one run, and the parts put together are the whole run's
// triangles bit for bit, welded into the same vertices and triangles.
TEST(BlockGrid, PartsOfAnySplitMakeTheWholeMesh) {
    const Session whole = runOk(smallScan(), SPLIT_RESOLUTION, splitGrid);
    const std::vector<MeshPart> all = partsOf({});
    std::vector<BlockKey> keys;
    for (const MeshPart& p : all) keys.push_back(p.block);
    ASSERT_GT(keys.size(), 20u);
    ASSERT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    ASSERT_TRUE(std::adjacent_find(keys.begin(), keys.end()) == keys.end()) << "a block in two parts";
    ASSERT_TRUE(sameMesh(merged(all), *whole.mesh));
    IndexedMesh reference;
    ASSERT_EQ(weldMesh(*whole.mesh, SPLIT_RESOLUTION * 1e-4f, reference), 0);

    struct Split {
        const char* name;
        std::function<int(const BlockKey&, std::size_t)> group;  // the run a block goes to
    };
    const Split splits[] = {
        {"slabs along x", [](const BlockKey& k, std::size_t) { return ((k.x % 3) + 3) % 3; }},
        {"checkerboard", [](const BlockKey& k, std::size_t) { return ((k.x + k.y + k.z) % 2 + 2) % 2; }},
        {"single blocks", [](const BlockKey&, std::size_t i) { return i % 9 == 4 ? static_cast<int>(i) + 1 : 0; }},
    };
    for (const Split& split : splits) {
        std::map<int, std::vector<BlockKey>> groups;
        for (std::size_t i = 0; i < keys.size(); ++i) groups[split.group(keys[i], i)].push_back(keys[i]);
        ASSERT_GT(groups.size(), 1u) << split.name;
        std::vector<MeshPart> parts;
        for (const auto& g : groups) {
            std::vector<MeshPart> made = partsOf(g.second);
            for (const MeshPart& p : made)  // a run makes parts of its own blocks alone
                EXPECT_TRUE(std::binary_search(g.second.begin(), g.second.end(), p.block)) << split.name;
            for (MeshPart& p : made) parts.push_back(std::move(p));
        }
        EXPECT_EQ(parts.size(), keys.size()) << split.name;
        const MultiMeshData soup = merged(parts);
        EXPECT_TRUE(sameMesh(soup, *whole.mesh)) << split.name;
        IndexedMesh welded;
        ASSERT_EQ(weldMesh(soup, SPLIT_RESOLUTION * 1e-4f, welded), 0);
        EXPECT_TRUE(sameWelded(welded, reference)) << split.name;
    }
}

// The session's mesh against one run over the same frames on the session's grid: the same soup and the
// same welded mesh.
void expectBatchMesh(const ScanSession& session, const Frames& frames, const std::string& when) {
    const Session batch = runOk(frames, SPLIT_RESOLUTION, splitGrid);
    ASSERT_FALSE(batch.mesh->xyz.empty());
    EXPECT_TRUE(sameMesh(session.soup(), *batch.mesh)) << when;
    IndexedMesh live, reference;
    ASSERT_EQ(session.mesh(live), 0);
    ASSERT_EQ(weldMesh(*batch.mesh, SPLIT_RESOLUTION * 1e-4f, reference), 0);
    EXPECT_TRUE(sameWelded(live, reference)) << when;
}

// A session fed the small scan frame by frame, updated every few frames: at the midpoint and at the end its
// mesh is the batch run's. Then a patch of 2 mm: its update re-meshes at most the 27 blocks around it
// (the 8 blocks whose region or margin it can reach, and their neighbours on the low side).
TEST(BlockGrid, ASessionFedFrameByFrameIsTheBatchRun) {
    Frames frames = smallScan();
    ScanSession session(SPLIT_RESOLUTION, SPLIT_ORIGIN, SPLIT_BLOCK);
    const std::size_t step = std::max<std::size_t>(1, frames.size() / 4), middle = frames.size() / 2;
    for (std::size_t f = 0; f < frames.size(); ++f) {
        ASSERT_EQ(session.add(frames[f]), 0);
        const bool check = f + 1 == middle || f + 1 == frames.size();
        if ((f + 1) % step != 0 && !check) continue;
        std::vector<BlockKey> remeshed;
        std::vector<MeshPart> parts;
        ASSERT_EQ(session.update(remeshed, parts), 0) << session.lastError();
        for (const MeshPart& p : parts) EXPECT_TRUE(std::binary_search(remeshed.begin(), remeshed.end(), p.block));
        if (check)
            expectBatchMesh(session, Frames(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(f + 1)),
                            "after " + std::to_string(f + 1) + " frames");
    }
    // The points of all frames within 2 mm of the first point of the scan, once more.
    auto patch = std::make_shared<FrameDataWithInfo>();
    const Vec3f centre = frames[0]->xyz[0];
    for (const auto& frame : smallScan())
        for (std::size_t i = 0; i < frame->xyz.size(); ++i) {
            float d2 = 0.0f;
            for (int k = 0; k < 3; ++k) d2 += (frame->xyz[i][k] - centre[k]) * (frame->xyz[i][k] - centre[k]);
            if (d2 < 4.0f) addPoint(*patch, frame->xyz[i], frame->nor[i], frame->w[i]);
        }
    ASSERT_GT(patch->xyz.size(), 10u);
    ASSERT_EQ(session.add(patch), 0);
    frames.push_back(patch);
    std::vector<BlockKey> remeshed;
    std::vector<MeshPart> parts;
    ASSERT_EQ(session.update(remeshed, parts), 0) << session.lastError();
    EXPECT_GT(remeshed.size(), 0u);
    EXPECT_LE(remeshed.size(), 27u);
    expectBatchMesh(session, frames, "after the patch");
}
