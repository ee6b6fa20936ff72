// The diagnostic lines and where they go.
#include "Diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace SurfaceReconstruction {

namespace {

thread_local std::shared_ptr<const DiagnosticSink> t_sink;
thread_local bool t_inside = false;  // an engine operation runs on this thread
std::mutex g_latest_lock;
std::shared_ptr<const DiagnosticSink> g_latest;  // the sink of the latest operation to begin

void emit(const std::string& text, bool device_report) {
    std::shared_ptr<const DiagnosticSink> sink;
    if (t_inside) {
        sink = t_sink;
    } else {
        std::lock_guard<std::mutex> lock(g_latest_lock);
        sink = g_latest;
    }
    if (sink && *sink) {
        try {
            (*sink)(text, device_report);
        } catch (...) {  // the application's sink: nothing of it may leave the library
        }
        return;
    }
    std::FILE* stream = device_report ? stderr : stdout;
    std::fputs(text.c_str(), stream);
    if (device_report) std::fflush(stream);
}

void format(bool device_report, const char* text, std::va_list arguments) {
    char small[512];
    std::va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(small, sizeof(small), text, copy);
    va_end(copy);
    if (length < 0) return;
    if (static_cast<std::size_t>(length) < sizeof(small)) {
        emit(small, device_report);
        return;
    }
    std::string large(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(&large[0], large.size(), text, arguments);
    large.pop_back();
    emit(large, device_report);
}

}  // namespace

void diagnostic(const char* text, ...) {
    std::va_list arguments;
    va_start(arguments, text);
    format(false, text, arguments);
    va_end(arguments);
}

void deviceReport(const char* text, ...) {
    std::va_list arguments;
    va_start(arguments, text);
    format(true, text, arguments);
    va_end(arguments);
}

DiagnosticScope::DiagnosticScope(std::shared_ptr<const DiagnosticSink> sink)
    : m_sink(std::move(sink)), m_previous(t_sink), m_was_inside(t_inside) {
    t_sink = m_sink;
    t_inside = true;
    std::lock_guard<std::mutex> lock(g_latest_lock);
    g_latest = m_sink;
}

DiagnosticScope::~DiagnosticScope() {
    t_sink = m_previous;
    t_inside = m_was_inside;
    std::lock_guard<std::mutex> lock(g_latest_lock);
    if (g_latest == m_sink) g_latest = m_was_inside ? m_previous : nullptr;
}

}  // namespace SurfaceReconstruction
