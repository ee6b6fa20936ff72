// Checks, through the installed package alone, the texts and status codes of calls out of order, the
// version macros, and the mesh library.
#include <tessaline/Tessaline.h>
#include <tessaline/TessalineMesh.h>

#include <cstdio>
#include <memory>
#include <string>

using namespace SurfaceReconstruction;

static int failures = 0;

static void expect(bool ok, const char* what) {
    if (!ok) {
        std::printf("FAILED: %s\n", what);
        ++failures;
    }
}

int main() {
    Tessaline t;
    expect(t.getLastErrorMsg() == "no error!", "fresh object reads no error!");
    expect(t.deInit() == 0, "deInit before init is 0");
    LaserInfo laser;
    expect(t.setLaserInfo(laser) == 1, "setLaserInfo before init is 1");
    expect(t.getLastErrorMsg() == "no init!", "setLaserInfo before init reads no init!");
    auto mesh = std::make_shared<MultiMeshData>();
    expect(t.process(mesh) == 1 && t.getLastErrorMsg() == "no init!", "process before init");

    std::string message;
    expect(InitGPUCUDA(message) == 0 && message == "sucess", "InitGPUCUDA succeeds");
    expect(t.init() == 0 && t.getLastErrorMsg() == "no error!", "init succeeds");
    std::function<int(ProcessStepInfo&)> empty;
    expect(t.setProcessStepCallBack(empty) == 0, "empty callback accepted");
    expect(t.process(mesh) == 1 && t.getLastErrorMsg() == "[Tessaline_OPT] process try catch error!",
           "process with an empty callback");
    expect(t.deInit() == 0, "deInit after init is 0");

    const std::string version = std::to_string(TESSALINE_VERSION_MAJOR) + "." +
                                std::to_string(TESSALINE_VERSION_MINOR) + "." + std::to_string(TESSALINE_VERSION_PATCH);
    expect(version == TESSALINE_VERSION_STRING, "the version macros agree");
    MultiMeshData soup;  // two triangles sharing an edge
    soup.xyz = {TriangleXYZ{{0, 0, 0, 1, 0, 0, 0, 1, 0}}, TriangleXYZ{{1, 0, 0, 1, 1, 0, 0, 1, 0}}};
    soup.w = {TriangleW{{8, 8, 8}}, TriangleW{{8, 8, 8}}};
    IndexedMesh welded;
    expect(weldMesh(soup, 1e-4f, welded) == 0 && welded.vertices.size() == 4 && welded.triangles.size() == 2,
           "weldMesh joins the shared edge");
    std::printf("consumer: %d failed\n", failures);
    return failures == 0 ? 0 : 1;
}
