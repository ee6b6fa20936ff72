// The body of the fuzz targets of the scan format readers: any bytes as a file of one format, read as the
// program reads it. The reader may refuse a file with std::runtime_error; anything else (a crash, a
// sanitizer report, a hang, frames whose arrays disagree) is a finding.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "ScanFormats.h"

inline int fuzzScanFormat(const std::uint8_t* data, std::size_t size, const char* extension) {
    static const std::string path = "/tmp/tessaline_fuzz_" + std::to_string(getpid()) + extension;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    try {
        tessaline_tools::ScanReadOptions options;
        tessaline_tools::ScanInput scan;
        tessaline_tools::ScanReadNotes notes;
        tessaline_tools::readScanFile(path, options, scan, notes);
        if (scan.frames.size() != scan.extras.size()) __builtin_trap();
        for (std::size_t f = 0; f < scan.frames.size(); ++f) {
            const auto& frame = *scan.frames[f];
            const auto& colours = scan.extras[f].colours;
            if (frame.xyz.size() != frame.nor.size() || frame.xyz.size() != frame.w.size()) __builtin_trap();
            if (!colours.empty() && colours.size() != frame.xyz.size()) __builtin_trap();
        }
    } catch (const std::runtime_error&) {
    }
    return 0;
}
