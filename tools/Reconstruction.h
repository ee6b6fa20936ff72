// One run of the library on frames held in memory, through its public interface, with a progress
// line and the numbers a summary needs.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ScanInput.h"
#include "tessaline/Tessaline.h"

namespace tessaline_tools {

struct RunOptions {
    float resolution = 0.5f;  // millimetres
    bool quiet = false;       // keep the library's diagnostic lines off standard output
    bool to_stderr = false;   // (when not quiet) send the library's diagnostic lines to standard error
    bool progress = true;     // a progress line on standard error (meant for a terminal)
    // When set, the library's diagnostic lines go to this file instead (for the benchmarks to read).
    std::string diagnostics_path;
    // The scan's optimized markers: when given, the run leaves out the frames whose markers stand out.
    std::shared_ptr<const SurfaceReconstruction::MarkerInfos> markers;
};

struct RunReport {
    std::size_t frames = 0, points = 0;
    int blocks = 0;
    double stage_seconds[3] = {0, 0, 0};  // cutting into blocks, fusing blocks, meshing
    double seconds = 0;                   // the whole `process`
    std::shared_ptr<SurfaceReconstruction::MultiMeshData> mesh;
    // With markers: their statistics after the run, and the frames it left out (from 0, in input order).
    std::shared_ptr<std::vector<SurfaceReconstruction::OptedMarker>> marker_errors;
    std::vector<std::size_t> frames_left_out;
};

// A run that the library ended with a status other than 0.
class RunFailure : public std::runtime_error {
public:
    RunFailure(const std::string& text, int status) : std::runtime_error(text), m_status(status) {}
    int status() const { return m_status; }

private:
    int m_status;
};

// Hands `frames` to the library and runs it. The frames are taken: once the library holds them, this
// function lets go of its references, so that the library can free each frame when it has cut it into
// blocks (a caller that keeps its own references keeps the frames). Throws RunFailure with the library's
// status and error text when the run fails, std::runtime_error when it cannot start.
RunReport runReconstruction(Frames frames, const RunOptions& options);

// The frames named by the library's line that starts with FRAMES_LEFT_OUT_BY_MARKERS, added to `frames`
// (their places in the order they were added); true for such a line. Any other line leaves them as they are.
bool noteFramesLeftOut(const std::string& line, std::vector<std::size_t>& frames);

// Peak resident memory of this process so far, MiB.
double peakMemoryMiB();

}  // namespace tessaline_tools
