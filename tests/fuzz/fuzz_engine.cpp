// Fuzz target: any bytes as a session of the library: a resolution, up to four frames of points whose
// positions, normals and words come from the bytes (raw floats, or small steps that form surfaces),
// laser ids, then process. Any status is an answer; a crash, a sanitizer report or a hang is a finding.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "tessaline/Tessaline.h"

using namespace SurfaceReconstruction;

namespace {

class Bytes {
public:
    Bytes(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_at >= m_size; }
    std::uint8_t byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    std::uint32_t word() {
        std::uint32_t w = 0;
        for (int k = 0; k < 4; ++k) w |= static_cast<std::uint32_t>(byte()) << (8 * k);
        return w;
    }
    float rawFloat() {
        const std::uint32_t w = word();
        float f;
        std::memcpy(&f, &w, 4);
        return f;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_at = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Bytes in(data, size);
    static const float RESOLUTIONS[8] = {0.5f, 1.0f, 2.0f, 0.25f, 0.0f, -1.0f, NAN, INFINITY};
    Tessaline engine;
    if (engine.init() != 0) return 0;
    engine.setResolution(RESOLUTIONS[in.byte() % 8]);
    const int frames = 1 + in.byte() % 4;
    for (int f = 0; f < frames && !in.empty(); ++f) {
        auto frame = std::make_shared<FrameDataWithInfo>();
        const int points = (in.byte() | (in.byte() << 8)) % 1024;
        const bool raw = in.byte() % 4 == 0;
        frame->frame_info.laser_id = static_cast<std::int8_t>(in.byte());
        for (int i = 0; i < points && !in.empty(); ++i) {
            Vec3f p, n;
            if (raw) {
                for (float& c : p) c = in.rawFloat();
                for (float& c : n) c = in.rawFloat();
            } else {
                // Small steps on a plane tilted by the bytes: something with a surface.
                const float u = static_cast<std::int8_t>(in.byte()) * 0.1f,
                            v = static_cast<std::int8_t>(in.byte()) * 0.1f;
                const float tilt = static_cast<std::int8_t>(in.byte()) * 0.01f;
                p = {u, v, tilt * u};
                const float length = std::sqrt(1.0f + tilt * tilt);
                n = {-tilt / length, 0.0f, 1.0f / length};
            }
            frame->xyz.push_back(p);
            frame->nor.push_back(n);
            frame->w.push_back(static_cast<std::int32_t>(in.byte()) | (static_cast<std::int32_t>(in.byte() & 3) << 8));
        }
        engine.addScanFrame_ALL(frame);
    }
    auto mesh = std::make_shared<MultiMeshData>();
    engine.process(mesh);
    if (mesh->xyz.size() != mesh->w.size()) __builtin_trap();
    engine.deInit();
    return 0;
}
