// Fuzz target: any bytes as a .conf scan list beside a valid range image and two damaged ones. The reader
// may refuse a list with std::runtime_error; anything else is a finding.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "RangeScan.h"

namespace {
const std::string& folder() {
    static const std::string path = [] {
        const std::string dir = "/tmp/tessaline_fuzz_conf_" + std::to_string(getpid());
        mkdir(dir.c_str(), 0777);
        // A 2 x 2 range image with its grid, and a copy cut short.
        const std::string image =
            "ply\nformat ascii 1.0\nobj_info num_cols 2\nobj_info num_rows 2\nelement vertex 4\nproperty float x\n"
            "property float y\nproperty float z\nelement range_grid 4\nproperty list uchar int "
            "vertex_indices\nend_header\n"
            "0 0 0\n1 0 0\n0 1 0\n1 1 0.1\n1 0\n1 1\n1 2\n1 3\n";
        std::ofstream(dir + "/a.ply") << image;
        std::ofstream(dir + "/b.ply") << image.substr(0, image.size() - 9);
        // A grid whose rows x cols overflows a long to the size of its 4 records.
        std::string overflow = image;
        overflow.replace(overflow.find("num_cols 2"), 10, "num_cols 4");
        overflow.replace(overflow.find("num_rows 2"), 10, "num_rows 4611686018427387905");  // 4 (2^62 + 1)
        std::ofstream(dir + "/c.ply") << overflow;
        return dir;
    }();
    return path;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string conf = folder() + "/scan.conf";
    FILE* file = std::fopen(conf.c_str(), "wb");
    if (file == nullptr) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    try {
        const auto frames = tessaline_tools::readRangeScanSet(conf);
        for (const auto& f : frames)
            if (f->xyz.size() != f->nor.size() || f->xyz.size() != f->w.size()) __builtin_trap();
    } catch (const std::runtime_error&) {
    }
    return 0;
}
