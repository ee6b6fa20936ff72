// The real bunny scans beside the repository, in millimetres; tests that need them skip without them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "RangeScan.h"

namespace SurfaceReconstruction {
namespace testing_support {

inline std::string bunnyConfPath() { return std::string(TESSALINE_TEST_DATA_DIR) + "/stanford-bunny/scans/bun.conf"; }

inline bool haveBunny() { return std::ifstream(bunnyConfPath()).good(); }

// Every scan of the set, read once for the whole test program; each call hands out fresh copies, since
// a run writes to the frames it is given.
inline std::vector<std::shared_ptr<FrameDataWithInfo>> bunnyFrames() {
    static const std::vector<std::shared_ptr<FrameDataWithInfo>> frames =
        tessaline_tools::readRangeScanSet(bunnyConfPath());
    std::vector<std::shared_ptr<FrameDataWithInfo>> copies;
    for (const auto& f : frames) copies.push_back(std::make_shared<FrameDataWithInfo>(*f));
    return copies;
}

#define TESSALINE_REQUIRE_BUNNY()                               \
    if (!::SurfaceReconstruction::testing_support::haveBunny()) \
    GTEST_SKIP() << "no scans at " << ::SurfaceReconstruction::testing_support::bunnyConfPath()

}  // namespace testing_support
}  // namespace SurfaceReconstruction
