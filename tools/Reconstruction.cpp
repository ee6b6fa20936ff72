// The library run: init, settings, frames, process, deInit; stage times from the step callback.
#include "Reconstruction.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>

namespace tessaline_tools {

using SurfaceReconstruction::MultiMeshData;
using SurfaceReconstruction::ProcessStepInfo;
using SurfaceReconstruction::Tessaline;

namespace {

using Clock = std::chrono::steady_clock;

// Sends standard output (the library's diagnostic lines) to a file, or to standard error, while it lives.
class RedirectedStdout {
public:
    explicit RedirectedStdout(const std::string& path) {
        std::fflush(stdout);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) throw std::runtime_error(path + ": cannot write the file");
        m_saved = dup(STDOUT_FILENO);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    RedirectedStdout() {
        std::fflush(stdout);
        std::fflush(stderr);
        m_saved = dup(STDOUT_FILENO);
        dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    ~RedirectedStdout() {
        std::fflush(stdout);
        if (m_saved >= 0) {
            dup2(m_saved, STDOUT_FILENO);
            close(m_saved);
        }
    }
    RedirectedStdout(const RedirectedStdout&) = delete;
    RedirectedStdout& operator=(const RedirectedStdout&) = delete;

private:
    int m_saved = -1;
};

}  // namespace

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
    if (tessaline.init() != 0) throw std::runtime_error("no usable compute device: " + tessaline.getLastErrorMsg());
    tessaline.setResolution(options.resolution);
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
    int status;
    {
        std::unique_ptr<RedirectedStdout> redirect;
        if (!options.diagnostics_path.empty())
            redirect.reset(new RedirectedStdout(options.diagnostics_path));
        else if (options.quiet)
            redirect.reset(new RedirectedStdout("/dev/null"));
        else if (options.to_stderr)
            redirect.reset(new RedirectedStdout());
        status = tessaline.process(report.mesh);
    }
    stage_start[4] = std::chrono::duration<double>(Clock::now() - run_start).count();
    if (options.progress) std::fprintf(stderr, "\n");
    if (status != 0) {
        const std::string text = tessaline.getLastErrorMsg();
        tessaline.deInit();
        throw RunFailure("reconstruction failed with status " + std::to_string(status) + ": " + text, status);
    }
    tessaline.deInit();
    for (int s = 0; s < 3; ++s) report.stage_seconds[s] = stage_start[s + 2] - stage_start[s + 1];
    report.seconds = stage_start[4];
    return report;
}

}  // namespace tessaline_tools
