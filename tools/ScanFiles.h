// The inputs of a run as units that can be read on their own: a .conf scan list or one point file, in the
// order the program reads them (folders in name order, never the run's own output), with the run's
// geo-referenced origin and the optimized markers beside them. The program and the Python module's
// distributed runs share them, so both read the same frames in the same order.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ScanFormats.h"
#include "ScanInput.h"

namespace tessaline_tools {

// One unit of the inputs: `range_set` for a .conf scan list (read whole), otherwise a point file.
struct ScanUnit {
    std::size_t input = 0;  // which input named it
    std::string path;
    bool range_set = false;
};

// Millimetres in one unit of the input: mm, cm, m, in. Throws std::runtime_error for another name.
float unitToMillimetres(const std::string& unit);

// The point files of `folder` (every format readScanFile knows, .txt aside) in name order, leaving out
// `output`'s target: a run never reads its own mesh. Throws when the folder holds none.
std::vector<std::string> scanFilesIn(const std::string& folder, const std::string& output);

// The units of `inputs` in reading order: a .conf as it is, a folder as its point files, a file as itself.
std::vector<ScanUnit> scanUnits(const std::vector<std::string>& inputs, const std::string& output);

// The origin of a run over `units`, millimetres: that of its first LAS file (lasOrigin), zero without one.
Origin scanOrigin(const std::vector<ScanUnit>& units, float to_mm);

// Reads one unit into `out` (frames and their extras, in order), every point relative to options.origin.
// Throws std::runtime_error naming the file.
void readScanUnit(const ScanUnit& unit, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes);

// The file of optimized markers for a run: `given` (--markers FILE), none for "none", else the
// optimized-markers.txt beside the inputs (in an input folder, or in the folder of an input file); "" for
// none. Two different such files are refused: which one is meant is for the user to say.
std::string markersFileFor(const std::vector<std::string>& inputs, const std::string& given);

}  // namespace tessaline_tools
