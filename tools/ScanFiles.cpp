// The inputs of a run as units read on their own, in the program's order, with their origin and markers.
#include "ScanFiles.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "OutputFile.h"
#include "RangeScan.h"

namespace tessaline_tools {

namespace {

// The optimized markers that `simulate` writes beside its frames and `reconstruct` reads from beside them.
constexpr const char* MARKERS_FILE = "optimized-markers.txt";

bool isDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string joinPath(const std::string& folder, const std::string& name) {
    return folder.empty() || folder == "." ? name : folder + "/" + name;
}

bool isScanList(const std::string& path) {
    std::string lower = path;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower.size() >= 5 && lower.compare(lower.size() - 5, 5, ".conf") == 0;
}

}  // namespace

float unitToMillimetres(const std::string& unit) {
    if (unit == "mm") return 1.0f;
    if (unit == "cm") return 10.0f;
    if (unit == "m") return 1000.0f;
    if (unit == "in") return 25.4f;
    throw std::runtime_error("unknown unit '" + unit + "' (use mm, cm, m or in)");
}

std::vector<std::string> scanFilesIn(const std::string& folder, const std::string& output) {
    struct stat output_info;
    const bool output_exists = !output.empty() && stat(outputTarget(output).c_str(), &output_info) == 0;
    std::vector<std::string> files;
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) throw std::runtime_error(folder + ": cannot read the directory");
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (scanFormatOf(name, true) == ScanFormat::Unknown) continue;
        const std::string path = folder + "/" + name;
        struct stat info;
        if (output_exists && stat(path.c_str(), &info) == 0 && info.st_dev == output_info.st_dev &&
            info.st_ino == output_info.st_ino)
            continue;
        files.push_back(path);
    }
    closedir(dir);
    std::sort(files.begin(), files.end());
    if (files.empty())
        throw std::runtime_error(folder + ": no point files (.ply, .ptx, .pts, .xyz, .pcd, .las) in the directory");
    return files;
}

std::vector<ScanUnit> scanUnits(const std::vector<std::string>& inputs, const std::string& output) {
    std::vector<ScanUnit> units;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        if (isScanList(inputs[i])) {
            units.push_back({i, inputs[i], true});
            continue;
        }
        const std::vector<std::string> files =
            isDirectory(inputs[i]) ? scanFilesIn(inputs[i], output) : std::vector<std::string>{inputs[i]};
        for (const std::string& file : files) units.push_back({i, file, false});
    }
    return units;
}

Origin scanOrigin(const std::vector<ScanUnit>& units, float to_mm) {
    for (const ScanUnit& unit : units)
        if (!unit.range_set && scanFormatOf(unit.path) == ScanFormat::Las) return lasOrigin(unit.path, to_mm);
    return Origin{0.0, 0.0, 0.0};
}

void readScanUnit(const ScanUnit& unit, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes) {
    if (!unit.range_set) return readScanFile(unit.path, options, out, notes);
    RangeScanOptions range;
    range.scale = options.scale;
    range.scale_code = options.scale_code;
    const Origin& origin = options.origin;
    const bool shifted = origin[0] != 0.0 || origin[1] != 0.0 || origin[2] != 0.0;
    for (auto& frame : readRangeScanSet(unit.path, range)) {
        FrameExtras extras;
        extras.source = unit.path;
        extras.sensor = true;  // each scan's pose puts the scanner at its translation
        for (int k = 0; k < 3; ++k) extras.sensor_position[k] = frame->frame_info.translation[k] - origin[k];
        if (shifted)
            for (auto& p : frame->xyz)
                for (int k = 0; k < 3; ++k) p[k] = static_cast<float>(static_cast<double>(p[k]) - origin[k]);
        out.add(frame, std::move(extras));
    }
}

std::string markersFileFor(const std::vector<std::string>& inputs, const std::string& given) {
    if (given == "none") return "";
    if (!given.empty()) return given;
    std::vector<std::string> found;
    for (const std::string& input : inputs) {
        const std::size_t slash = input.find_last_of('/');
        const std::string folder =
            isDirectory(input) ? input : (slash == std::string::npos ? "." : input.substr(0, slash + 1));
        const std::string candidate = joinPath(folder, MARKERS_FILE);
        struct stat info;
        if (stat(candidate.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
        if (std::find(found.begin(), found.end(), candidate) == found.end()) found.push_back(candidate);
    }
    if (found.size() > 1)
        throw std::runtime_error("optimized markers beside more than one input (" + found[0] + ", " + found[1] +
                                 "): name the scan's with --markers FILE, or --markers none");
    return found.empty() ? "" : found[0];
}

}  // namespace tessaline_tools
