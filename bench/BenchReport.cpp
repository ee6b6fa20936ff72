// The benchmark's report: every figure as JSON, one object a case, and the tables on standard output.
#include "BenchReport.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace bench {

namespace {

constexpr double MIB = 1024.0 * 1024.0;

double pointsMiB(const Case& c) { return c.points * POINT_BYTES / MIB; }

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char ch : text) {
        if (ch == '"' || ch == '\\') out += '\\';
        out += ch;
    }
    return out + "\"";
}

std::string commandLine(const EndToEnd& side) {
    std::string line = side.program;
    for (const std::string& a : side.arguments) line += " " + a;
    return line;
}

void accuracyJson(std::ostream& out, bool judged, const tessaline_tools::Comparison& a) {
    if (!judged) {
        out << "null";
        return;
    }
    out << "{\"to_reference_median\": " << a.to_reference.median << ", \"to_reference_p95\": " << a.to_reference.p95
        << ", \"to_reference_max\": " << a.to_reference.max
        << ", \"from_reference_median\": " << a.from_reference.median
        << ", \"from_reference_p95\": " << a.from_reference.p95 << ", \"chamfer\": " << a.chamfer
        << ", \"fscore_0.1\": " << a.fscore[0] << ", \"fscore_0.5\": " << a.fscore[1]
        << ", \"coverage_1mm\": " << a.coverage << "}";
}

void endToEndJson(std::ostream& out, const EndToEnd& side) {
    out << "{\"command\": " << quoted(commandLine(side)) << ", \"median_s\": " << side.medianSeconds()
        << ", \"peak_rss_mib\": " << side.peakMiB() << ", \"triangles\": " << side.triangles << ",\n       \"runs\": [";
    for (std::size_t i = 0; i < side.runs.size(); ++i) {
        const ProcessRun& r = side.runs[i];
        out << (i ? ", " : "") << "{\"status\": " << r.status
            << ", \"finished\": " << (side.finished(r) ? "true" : "false") << ", \"seconds\": " << r.seconds
            << ", \"peak_rss_mib\": " << r.peak_mib << "}";
    }
    out << "],\n       \"accuracy_mm\": ";
    accuracyJson(out, side.judged, side.accuracy);
    out << "}";
}

void libraryJson(std::ostream& out, const Case& c) {
    const LibraryOnly& l = c.library;
    const double above = l.peak_mib - pointsMiB(c);
    out << "{\"what\": \"library only, frames in memory, one run in the benchmark's process\", \"process_s\": "
        << l.run.seconds << ", \"blocks_stage_s\": " << l.run.stage_seconds[0]
        << ", \"fusion_stage_s\": " << l.run.stage_seconds[1] << ", \"mesh_stage_s\": " << l.run.stage_seconds[2]
        << ", \"points_per_s\": " << (l.run.seconds > 0 ? c.points / l.run.seconds : 0.0)
        << ", \"peak_rss_mib\": " << l.peak_mib << ", \"points_mib\": " << pointsMiB(c)
        << ", \"peak_above_points_mib\": " << above
        << ", \"peak_above_points_bytes_per_point\": " << (c.points > 0 ? above * MIB / c.points : 0.0)
        << ", \"blocks\": " << l.run.blocks << ", \"bins\": " << l.bins << ", \"cells\": " << l.cells
        << ", \"soup_triangles\": " << l.triangles << ",\n       \"library_timers_ms\": {";
    bool first = true;
    for (const auto& step : l.step_ms) {
        out << (first ? "" : ", ") << quoted(step.first) << ": " << step.second;
        first = false;
    }
    out << "}}";
}

void caseJson(std::ostream& out, const Case& c) {
    out << "    {\"name\": " << quoted(c.name) << ", \"area_case\": " << (c.area ? "true" : "false")
        << ", \"frames\": " << c.frames << ", \"points\": " << c.points << ", \"largest_frame\": " << c.largest_frame
        << ", \"input_s\": " << c.input_seconds << ", \"write_inputs_s\": " << c.write_seconds
        << ",\n     \"program\": ";
    endToEndJson(out, c.program);
    out << ",\n     \"peer\": ";
    if (c.with_peer)
        endToEndJson(out, c.peer);
    else
        out << "null";
    out << ",\n     \"ratio\": ";
    const std::vector<double> ratios = pairRatios(c);
    if (ratios.empty()) {
        out << "null";
    } else {
        out << "{\"median\": " << median(ratios) << ", \"min\": " << *std::min_element(ratios.begin(), ratios.end())
            << ", \"max\": " << *std::max_element(ratios.begin(), ratios.end()) << ", \"pairs\": [";
        for (std::size_t i = 0; i < ratios.size(); ++i) out << (i ? ", " : "") << ratios[i];
        out << "]}";
    }
    out << ",\n     \"library\": ";
    libraryJson(out, c);
    out << "}";
}

// A side's median seconds, or why there is none.
std::string secondsCell(const EndToEnd& side) {
    if (side.runs.empty()) return "-";
    for (const ProcessRun& r : side.runs)
        if (!side.finished(r)) return "failed (" + std::to_string(r.status) + ")";
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f", side.medianSeconds());
    return text;
}

// The end-to-end columns: program s, peer s, ratio, ratio min-max, program MiB, peer MiB.
std::string endToEndColumns(const Case& c) {
    const std::vector<double> ratios = pairRatios(c);
    char ratio[64] = "- | -";
    if (!ratios.empty())
        std::snprintf(ratio, sizeof(ratio), "%.2f | %.2f-%.2f", median(ratios),
                      *std::min_element(ratios.begin(), ratios.end()), *std::max_element(ratios.begin(), ratios.end()));
    char peer_mib[32] = "-";
    if (c.with_peer) std::snprintf(peer_mib, sizeof(peer_mib), "%.0f", c.peer.peakMiB());
    char text[256];
    std::snprintf(text, sizeof(text), "%s | %s | %s | %.0f | %s", secondsCell(c.program).c_str(),
                  c.with_peer ? secondsCell(c.peer).c_str() : "-", ratio, c.program.peakMiB(), peer_mib);
    return text;
}

void printMainTable(const std::vector<Case>& cases) {
    std::printf(
        "| case | points | frames | program s | peer s | ratio | ratio min-max | program MiB | peer MiB | "
        "library s, frames in memory | library MiB, frames in memory | triangles | median mm | p95 mm | Chamfer mm | "
        "F@0.1 | F@0.5 | covered | peer covered |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Case& c : cases) {
        const auto& a = c.program.accuracy;
        char accuracy[160] = "- | - | - | - | - | -";
        if (c.program.judged)
            std::snprintf(accuracy, sizeof(accuracy), "%.4f | %.4f | %.4f | %.3f | %.3f | %.1f%%",
                          a.to_reference.median, a.to_reference.p95, a.chamfer, a.fscore[0], a.fscore[1],
                          100.0 * a.coverage);
        char peer_covered[32] = "-";
        if (c.peer.judged)
            std::snprintf(peer_covered, sizeof(peer_covered), "%.1f%%", 100.0 * c.peer.accuracy.coverage);
        std::printf("| %s | %zu | %zu | %s | %.2f | %.0f | %zu | %s | %s |\n", c.name.c_str(), c.points, c.frames,
                    endToEndColumns(c).c_str(), c.library.run.seconds, c.library.peak_mib, c.program.triangles,
                    accuracy, peer_covered);
    }
}

void printLibraryTable(const std::vector<Case>& cases) {
    std::printf(
        "| case | library s | blocks s | fusion s | mesh s | Mpoints/s | library MiB | blocks | cells | "
        "soup triangles |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Case& c : cases) {
        const LibraryOnly& l = c.library;
        // The library reports cell counts for blocks that ask for other cell sizes than one a bin.
        const std::string cells = l.cells > 0 ? std::to_string(l.cells) : std::string("-");
        std::printf("| %s | %.2f | %.2f | %.2f | %.2f | %.2f | %.0f | %d | %s | %zu |\n", c.name.c_str(), l.run.seconds,
                    l.run.stage_seconds[0], l.run.stage_seconds[1], l.run.stage_seconds[2],
                    l.run.seconds > 0 ? c.points / l.run.seconds / 1e6 : 0.0, l.peak_mib, l.run.blocks, cells.c_str(),
                    l.triangles);
    }
}

// The large-area cases: where the memory goes beyond the points themselves.
void printAreaTable(const std::vector<Case>& cases) {
    std::printf(
        "| case | points | largest frame | blocks | program s | peer s | ratio | ratio min-max | program MiB | "
        "peer MiB | library s, frames in memory | library MiB, frames in memory | points MiB | library above points "
        "B/point | triangles | peer triangles |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const Case& c : cases) {
        if (!c.area) continue;
        const double above = c.library.peak_mib - pointsMiB(c);
        const std::string peer_triangles = c.peer.judged ? std::to_string(c.peer.triangles) : std::string("-");
        std::printf("| %s | %zu | %zu | %d | %s | %.2f | %.0f | %.0f | %.0f | %zu | %s |\n", c.name.c_str(), c.points,
                    c.largest_frame, c.library.run.blocks, endToEndColumns(c).c_str(), c.library.run.seconds,
                    c.library.peak_mib, pointsMiB(c), c.points > 0 ? above * MIB / c.points : 0.0, c.program.triangles,
                    peer_triangles.c_str());
    }
}

}  // namespace

double EndToEnd::medianSeconds() const {
    std::vector<double> seconds;
    for (const ProcessRun& r : runs)
        if (finished(r)) seconds.push_back(r.seconds);
    return median(seconds);
}

double EndToEnd::peakMiB() const {
    double peak = 0;
    for (const ProcessRun& r : runs) peak = std::max(peak, r.peak_mib);
    return peak;
}

std::vector<double> pairRatios(const Case& c) {
    std::vector<double> ratios;
    if (!c.with_peer) return ratios;
    for (std::size_t i = 0; i < c.program.runs.size() && i < c.peer.runs.size(); ++i) {
        const ProcessRun &a = c.program.runs[i], &b = c.peer.runs[i];
        if (c.program.finished(a) && c.peer.finished(b) && b.seconds > 0) ratios.push_back(a.seconds / b.seconds);
    }
    return ratios;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

std::string reportJson(const std::vector<Case>& cases, const ReportHeader& header) {
    std::ostringstream out;
    out << "{\n  \"machine\": " << quoted(header.machine) << ",\n  \"threads\": " << header.threads
        << ",\n  \"resolution_mm\": 0.5,\n  \"repeat\": " << header.repeat
        << ",\n  \"end_to_end\": \"program and peer as whole processes, reading and writing included, alternating "
           "program, peer for each pair; wall time and ru_maxrss from wait4 through the launcher\""
        << ",\n  \"library_peak_memory\": "
        << quoted(header.memory_reset ? "per case (VmHWM reset before each)" : "process peak so far")
        << ",\n  \"peer_note\": " << quoted(header.peer_note) << ",\n  \"cases\": [\n";
    for (std::size_t i = 0; i < cases.size(); ++i) {
        caseJson(out, cases[i]);
        out << (i + 1 < cases.size() ? "," : "") << "\n";
    }
    out << "  ]\n}\n";
    return out.str();
}

void printReport(const std::vector<Case>& cases, const ReportHeader& header) {
    std::printf(
        "%s, %d threads, resolution 0.5 mm; accuracy of the written mesh against the true surface (part, floor, "
        "patches) or Stanford's reference (bunny)\n",
        header.machine.c_str(), header.threads);
    std::printf(
        "end to end: the program and the peer as whole processes (reading and writing included), %d run(s) each, "
        "alternating; s = median wall time, ratio = program s / peer s pair by pair (median, min-max), MiB = each "
        "process's own peak (max over runs)\n",
        header.repeat);
    if (!header.peer_note.empty()) std::printf("%s\n", header.peer_note.c_str());
    std::printf("library: the library alone in the benchmark's process, frames already in memory, one run\n\n");
    printMainTable(cases);
    std::printf("\nLibrary only (frames in memory, one run): its stages\n\n");
    printLibraryTable(cases);
    if (std::any_of(cases.begin(), cases.end(), [](const Case& c) { return c.area; })) {
        std::printf("\nLarge-area cases (points MiB: %g bytes a point, position, normal and word)\n\n", POINT_BYTES);
        printAreaTable(cases);
    }
}

}  // namespace bench
