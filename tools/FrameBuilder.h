// The points of one frame as a reader fills them: each into its place, from any thread, its coordinates
// scaled to millimetres and the origin taken off in double precision before the one rounding to float;
// points marked missing (no return, NaN) are dropped when the frame is finished.
#pragma once

#include <cmath>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "ScanFormats.h"
#include "ScanInput.h"
#include "tessaline/Tessaline.h"

namespace tessaline_tools {

class FrameBuilder {
public:
    FrameBuilder(std::size_t points, const ScanReadOptions& options, bool colours)
        : m_frame(std::make_shared<SurfaceReconstruction::FrameDataWithInfo>()), m_options(options) {
        m_frame->xyz.resize(points);
        m_frame->nor.assign(points, {0.0f, 0.0f, 0.0f});
        m_frame->w.assign(points, options.scale_code);
        if (colours) m_colours.resize(points);
        m_grow_colours = colours;
    }

    std::size_t size() const { return m_frame->xyz.size(); }
    void reserve(std::size_t points) {
        m_frame->xyz.reserve(points);
        m_frame->nor.reserve(points);
        m_frame->w.reserve(points);
        if (m_grow_colours) m_colours.reserve(points);
    }
    // Room for `more` points after the present ones (not from a parallel loop).
    void grow(std::size_t more) {
        const std::size_t n = size() + more;
        m_frame->xyz.resize(n);
        m_frame->nor.resize(n, {0.0f, 0.0f, 0.0f});
        m_frame->w.resize(n, m_options.scale_code);
        if (m_grow_colours) m_colours.resize(n);
    }
    bool coloured() const { return m_grow_colours; }
    // Point i at `p` in the file's unit; one with a coordinate that is not finite is marked missing.
    void position(std::size_t i, const double p[3]) {
        if (!(std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]))) return missing(i);
        for (int k = 0; k < 3; ++k)
            m_frame->xyz[i][k] = static_cast<float>(p[k] * m_options.scale - m_options.origin[k]);
    }
    // Its normal, made unit; a normal of no length or not finite marks the point missing.
    void normal(std::size_t i, const double n[3]) {
        const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (!(length > 0 && std::isfinite(length))) return missing(i);
        for (int k = 0; k < 3; ++k) m_frame->nor[i][k] = static_cast<float>(n[k] / length);
    }
    void colour(std::size_t i, const Colour& c) { m_colours[i] = c; }
    // A NaN x marks the point: the coordinates of a kept point are finite or infinite, never NaN.
    void missing(std::size_t i) { m_frame->xyz[i][0] = std::nanf(""); }
    bool isMissing(std::size_t i) const { return std::isnan(m_frame->xyz[i][0]); }
    SurfaceReconstruction::FrameDataWithInfo& frame() { return *m_frame; }

    // The frame without its missing points (counted in `dropped` unless `silent`), its colours to `extras`.
    std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> finish(FrameExtras& extras, std::size_t* dropped) {
        auto& f = *m_frame;
        std::size_t kept = 0;
        for (std::size_t i = 0; i < f.xyz.size(); ++i) {
            if (std::isnan(f.xyz[i][0])) continue;
            f.xyz[kept] = f.xyz[i];
            f.nor[kept] = f.nor[i];
            f.w[kept] = f.w[i];
            if (!m_colours.empty()) m_colours[kept] = m_colours[i];
            ++kept;
        }
        if (dropped != nullptr) *dropped += f.xyz.size() - kept;
        f.xyz.resize(kept);
        f.nor.resize(kept);
        f.w.resize(kept);
        if (!m_colours.empty()) m_colours.resize(kept);
        extras.colours = std::move(m_colours);
        return std::move(m_frame);
    }

private:
    std::shared_ptr<SurfaceReconstruction::FrameDataWithInfo> m_frame;
    ScanReadOptions m_options;
    std::vector<Colour> m_colours;
    bool m_grow_colours = false;
};

// A colour channel as a byte: rounded and held to 0-255.
inline std::uint8_t colourByte(double value) {
    if (!(value > 0)) return 0;
    return value >= 255 ? 255 : static_cast<std::uint8_t>(std::lround(value));
}

}  // namespace tessaline_tools
