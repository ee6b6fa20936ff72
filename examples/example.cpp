// A whole session with the library, from init to deInit: settings, a few frames of a synthetic sphere
// scan, the run and its result.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "tessaline/Tessaline.h"

using namespace SurfaceReconstruction;

namespace {

// One frame: points of a sphere of radius `radius` (in millimetres) seen from one direction.
std::shared_ptr<FrameDataWithInfo> sphereFrame(int frame_index, float radius, int rings, int segments) {
    auto frame = std::make_shared<FrameDataWithInfo>();
    const float pi = 3.14159265f;
    const float yaw = frame_index * 0.6f;
    for (int r = 1; r < rings; ++r) {
        const float theta = pi * r / rings * 0.5f;  // the half of the sphere facing the scanner
        for (int s = 0; s < segments; ++s) {
            const float phi = yaw + pi * s / segments;
            const Vec3f n = {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)};
            frame->xyz.push_back({radius * n[0] + 200.0f, radius * n[1] + 200.0f, radius * n[2] + 200.0f});
            frame->nor.push_back(n);
            frame->w.push_back(8);  // one cell a bin, no flags
        }
    }
    frame->frame_info.laser_id = frame_index % 2;
    return frame;
}

}  // namespace

int main() {
    std::string message;
    if (InitGPUCUDA(message) != 0) {
        std::printf("no usable compute device: %s\n", message.c_str());
        return 1;
    }
    std::printf("compute device: %s\n", message.c_str());

    Tessaline tessaline;
    if (tessaline.init() != 0) {
        std::printf("init failed: %s\n", tessaline.getLastErrorMsg().c_str());
        return 1;
    }
    tessaline.setResolution(0.5f);
    for (int laser = 0; laser < 2; ++laser) {
        LaserInfo laser_info;
        laser_info.laser_id = laser;
        laser_info.min_edge = 0.0f;
        tessaline.setLaserInfo(laser_info);
    }
    std::function<int(ProcessStepInfo&)> on_step = [](ProcessStepInfo& step) {
        std::printf("step %d/%d, part %d/%d\n", step.cur_step, step.total_steps, step.cur_sub_step,
                    step.total_sub_steps);
        return 0;
    };
    tessaline.setProcessStepCallBack(on_step);

    const int frames = 12;
    std::size_t points = 0;
    for (int i = 0; i < frames; ++i) {
        auto frame = sphereFrame(i, 60.0f, 60, 120);
        points += frame->xyz.size();
        if (tessaline.addScanFrame_ALL(frame) != 0) {
            std::printf("frame %d refused: %s\n", i, tessaline.getLastErrorMsg().c_str());
        }
    }
    std::printf("handed in %d frames, %zu points\n", frames, points);

    auto mesh = std::make_shared<MultiMeshData>();
    const int status = tessaline.process(mesh);
    if (status == 0) {
        std::printf("mesh: %zu triangles\n", mesh->xyz.size());
    } else {
        std::printf("process ended with status %d: %s\n", status, tessaline.getLastErrorMsg().c_str());
    }
    tessaline.deInit();
    return 0;
}
