// What the benchmark measured on each case, and its report: the JSON file and the tables. The main
// figures are end to end (the program and the peer as whole processes, reading and writing included);
// beside them the library alone, with the frames already in memory.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "ProcessRun.h"
#include "Reconstruction.h"
#include "SurfaceCompare.h"

namespace bench {

// What a point costs the application: position, normal (three floats each) and its word.
constexpr double POINT_BYTES = 28.0;

// One side of the end-to-end comparison: a program run as a user runs it, once a pair.
struct EndToEnd {
    std::string program;
    std::vector<std::string> arguments;
    std::vector<ProcessRun> runs;
    // Status 3 (the program's empty mesh) counts as done where the library alone made no triangles either.
    bool empty_expected = false;
    std::size_t triangles = 0;  // of the mesh it wrote (the last run's; every run writes the same)
    bool judged = false;        // the mesh was read and compared
    tessaline_tools::Comparison accuracy;

    bool finished(const ProcessRun& run) const { return run.status == 0 || (empty_expected && run.status == 3); }
    double medianSeconds() const;  // over the runs that finished; 0 when none did
    double peakMiB() const;        // the largest over the runs
};

// The library alone, in this process: frames already in memory, no reading, welding or writing.
struct LibraryOnly {
    tessaline_tools::RunReport run;         // one run: its time and stage times (the mesh is dropped)
    std::size_t triangles = 0;              // of the triangle soup
    std::size_t cells = 0, bins = 0;        // from the library's diagnostic lines
    double peak_mib = 0;                    // this process's peak during the run, the frames included
    std::map<std::string, double> step_ms;  // the library's own timers, summed over blocks
};

struct Case {
    std::string name;
    bool area = false;  // one of the large-area cases (second table)
    std::size_t frames = 0, points = 0, largest_frame = 0;
    double input_seconds = 0;  // simulating or reading the frames
    double write_seconds = 0;  // writing the scratch inputs, before any timing
    LibraryOnly library;
    EndToEnd program;
    bool with_peer = false;
    EndToEnd peer;
};

// Program time over peer time, pair by pair, where both finished.
std::vector<double> pairRatios(const Case& c);
// The median of `values` (the mean of the middle two for an even count); 0 when empty.
double median(std::vector<double> values);

struct ReportHeader {
    std::string machine;
    int threads = 0;
    int repeat = 0;
    bool memory_reset = false;  // the library's peak is per case (VmHWM reset before each)
    std::string peer_note;      // why there is no peer, when there is none
};

std::string reportJson(const std::vector<Case>& cases, const ReportHeader& header);
// The tables on standard output: end to end with the library beside it, the library's stages, and the
// large-area cases when there are any.
void printReport(const std::vector<Case>& cases, const ReportHeader& header);

}  // namespace bench
