// TimeProfiler and the UTF-8 form of step names.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "TimeProfiler.h"

using namespace SurfaceReconstruction;

TEST(TimeProfiler, StopWithoutStartPrintsTheErrorLineAndEntersNothing) {
    TimeProfiler profiler;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(profiler.time_stop("x", true), 0.0);
    EXPECT_EQ(profiler.time_stop("x", false), 0.0);  // still unknown: nothing was entered
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              " time_stop error ( can not find x ) ! \n time_stop error ( can not find x ) ! \n");
}

TEST(TimeProfiler, SpanRunsFromTheLastStartAndPrintsWhenAsked) {
    TimeProfiler profiler;
    profiler.time_start("span");
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    profiler.time_start("span");  // restart
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ::testing::internal::CaptureStdout();
    const double first = profiler.time_stop("span", true);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_GE(first, 19.0);
    EXPECT_LT(first, 120.0);
    EXPECT_EQ(out.rfind(" span - elapsed time : ", 0), 0u);
    EXPECT_EQ(out.substr(out.size() - 5), " ms \n");

    // A further stop measures from the same start.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ::testing::internal::CaptureStdout();
    const double second = profiler.time_stop("span", false);
    EXPECT_TRUE(::testing::internal::GetCapturedStdout().empty());
    EXPECT_GT(second, first);
}

TEST(StepNames, WideTextBecomesUtf8) {
    EXPECT_EQ(toUtf8(L"abc"), "abc");
    EXPECT_EQ(toUtf8(L"\u878d\u5408\u6570\u636e"), "\xe8\x9e\x8d\xe5\x90\x88\xe6\x95\xb0\xe6\x8d\xae");
    EXPECT_EQ(toUtf8(L"\u00e9"), "\xc3\xa9");
    EXPECT_EQ(toUtf8(std::wstring(1, static_cast<wchar_t>(0x1F600))), "\xf0\x9f\x98\x80");
    EXPECT_EQ(toUtf8(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xef\xbf\xbd");  // lone surrogate
}
