// The library's diagnostic lines. Every line goes through diagnostic() (the device's failure reports
// through deviceReport()) to the sink of the engine whose operation runs on this thread; a worker thread
// of a parallel loop, where no operation runs, uses the sink of the latest operation to begin. Without a
// sink a line goes to standard output (a device report to standard error), as printf would put it.
#pragma once

#include <memory>

#include "tessaline/Tessaline.h"

namespace SurfaceReconstruction {

void diagnostic(const char* format, ...) __attribute__((format(printf, 1, 2)));
void deviceReport(const char* format, ...) __attribute__((format(printf, 1, 2)));

// While it lives, the lines of this thread (and of worker threads, see above) go to `sink` (null or empty:
// the standard streams).
class DiagnosticScope {
public:
    explicit DiagnosticScope(std::shared_ptr<const DiagnosticSink> sink);
    ~DiagnosticScope();
    DiagnosticScope(const DiagnosticScope&) = delete;
    DiagnosticScope& operator=(const DiagnosticScope&) = delete;

private:
    std::shared_ptr<const DiagnosticSink> m_sink, m_previous;
    bool m_was_inside;
};

}  // namespace SurfaceReconstruction
