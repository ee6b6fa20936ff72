// Fuzz target: any bytes as a .pcd file (see fuzz_scan_formats.h).
#include "fuzz_scan_formats.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzzScanFormat(data, size, ".pcd");
}
