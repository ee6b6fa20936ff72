// Where the command-line program is in builds that make it; the tests of the program skip without it.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace SurfaceReconstruction {
namespace testing_support {

#if defined(TESSALINE_CLI_PATH)
inline std::string programPath() { return TESSALINE_CLI_PATH; }
#define TESSALINE_REQUIRE_PROGRAM() static_cast<void>(0)
#else
inline std::string programPath() { return std::string(); }
#define TESSALINE_REQUIRE_PROGRAM() GTEST_SKIP() << "the tessaline program is not built (TESSALINE_BUILD_TOOLS=OFF)"
#endif

}  // namespace testing_support
}  // namespace SurfaceReconstruction
