// The library run: init, settings, frames, process, deInit; stage times from the step callback.
#include "Reconstruction.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>

namespace tessaline_tools {

using SurfaceReconstruction::MultiMeshData;
using SurfaceReconstruction::ProcessStepInfo;
using SurfaceReconstruction::Tessaline;

namespace {

using Clock = std::chrono::steady_clock;

// Where the library's diagnostic lines go for a run: nowhere (quiet), a file (for the benchmarks to read),
// standard error (beside a JSON summary on standard output), or, without a sink, standard output.
SurfaceReconstruction::DiagnosticSink diagnosticSink(const RunOptions& options, std::shared_ptr<std::FILE>& file) {
    if (!options.diagnostics_path.empty()) {
        file.reset(std::fopen(options.diagnostics_path.c_str(), "w"), std::fclose);
        if (!file) throw std::runtime_error(options.diagnostics_path + ": cannot write the file");
        return [file](const std::string& text, bool) { std::fputs(text.c_str(), file.get()); };
    }
    if (options.quiet) return [](const std::string&, bool) {};
    if (options.to_stderr) return [](const std::string& text, bool) { std::fputs(text.c_str(), stderr); };
    return nullptr;
}

}  // namespace

bool noteFramesLeftOut(const std::string& line, std::vector<std::size_t>& frames) {
    const std::string start = SurfaceReconstruction::FRAMES_LEFT_OUT_BY_MARKERS;
    if (line.compare(0, start.size(), start) != 0) return false;
    const std::size_t colon = line.find("):", start.size());
    if (colon == std::string::npos) return false;
    const char* at = line.c_str() + colon + 2;
    for (;;) {
        char* end = nullptr;
        const unsigned long long f = std::strtoull(at, &end, 10);
        if (end == at) break;
        frames.push_back(static_cast<std::size_t>(f));
        at = end;
    }
    return true;
}

double peakMemoryMiB() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0;
}

RunReport runReconstruction(Frames frames, const RunOptions& options) {
    RunReport report;
    report.frames = frames.size();
    for (const auto& f : frames) report.points += f->xyz.size();

    Tessaline tessaline;
    std::shared_ptr<std::FILE> diagnostics_file;
    SurfaceReconstruction::DiagnosticSink sink = diagnosticSink(options, diagnostics_file);
    if (options.markers) {
        // The library names the frames it leaves out in a line of its own: noted here, then sent on.
        sink = [inner = std::move(sink), &report](const std::string& text, bool device_report) {
            noteFramesLeftOut(text, report.frames_left_out);
            if (inner) {
                inner(text, device_report);
            } else {
                std::fputs(text.c_str(), device_report ? stderr : stdout);
                if (device_report) std::fflush(stderr);
            }
        };
    }
    tessaline.setDiagnosticSink(sink);
    const int init_status = tessaline.init();
    if (init_status ==
        SurfaceReconstruction::TESSALINE_OUT_OF_MEMORY)  // memory, not the device: the status goes with it
        throw RunFailure("setting up the engine failed with status " + std::to_string(init_status) + ": " +
                             tessaline.getLastErrorMsg(),
                         init_status);
    if (init_status != 0) throw std::runtime_error("no usable compute device: " + tessaline.getLastErrorMsg());
    tessaline.setResolution(options.resolution);
    if (options.markers) {
        SurfaceReconstruction::MarkerInfos markers = *options.markers;
        if (tessaline.setOptimizedMarkers(markers) != 0)
            throw std::runtime_error("the optimized markers were refused: " + tessaline.getLastErrorMsg());
    }
    const char* stage_names[4] = {"starting", "cutting into blocks", "fusing blocks", "meshing"};
    double stage_start[5] = {0, 0, 0, 0, 0};
    const auto run_start = Clock::now();
    std::function<int(ProcessStepInfo&)> callback = [&](ProcessStepInfo& step) {
        const double t = std::chrono::duration<double>(Clock::now() - run_start).count();
        const int stage = step.cur_step >= 1 && step.cur_step <= 3 ? step.cur_step : 0;
        if (stage > 0 && stage_start[stage] == 0.0) stage_start[stage] = t;
        if (stage == 2) report.blocks = step.total_sub_steps;
        if (!options.progress) return 0;
        if (stage == 2 && step.total_sub_steps > 0) {
            const int done = step.cur_sub_step + 1, bar = 24 * done / step.total_sub_steps;
            std::fprintf(stderr, "\r[%-24s] %s: block %d of %d  %.1f s   ",
                         std::string(static_cast<std::size_t>(bar), '#').c_str(), stage_names[2], done,
                         step.total_sub_steps, t);
        } else {
            std::fprintf(stderr, "\r%s  %.1f s                                        ", stage_names[stage], t);
        }
        return 0;
    };
    tessaline.setProcessStepCallBack(callback);
    for (const auto& frame : frames) {
        if (tessaline.addScanFrame_ALL(frame) != 0)
            throw std::runtime_error("frame refused: " + tessaline.getLastErrorMsg());
    }
    Frames().swap(frames);
    report.mesh = std::make_shared<MultiMeshData>();
    const int status = tessaline.process(report.mesh);
    stage_start[4] = std::chrono::duration<double>(Clock::now() - run_start).count();
    if (options.progress) std::fprintf(stderr, "\n");
    if (status != 0) {
        const std::string text = tessaline.getLastErrorMsg();
        tessaline.deInit();
        throw RunFailure("reconstruction failed with status " + std::to_string(status) + ": " + text, status);
    }
    if (options.markers) tessaline.getOptimizedMarkerErrors(report.marker_errors);
    tessaline.deInit();
    for (int s = 0; s < 3; ++s) report.stage_seconds[s] = stage_start[s + 2] - stage_start[s + 1];
    report.seconds = stage_start[4];
    return report;
}

}  // namespace tessaline_tools
