// A small rasteriser: orthographic views, a depth buffer, one light from the viewer's upper left.
#include "MeshRender.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "InOrder.h"
#include "OutputFile.h"

namespace tessaline_tools {

namespace {

struct View {
    double azimuth, elevation;  // degrees: direction from the object towards the viewer
};

void renderView(const std::vector<Triangle>& triangles, const View& view, int size, Image& image, int ox, int oy) {
    const double pi = 3.14159265358979323846;
    const double az = view.azimuth * pi / 180, el = view.elevation * pi / 180;
    // Camera axes: towards the viewer, right and up on the screen.
    const double to_viewer[3] = {std::cos(el) * std::cos(az), std::cos(el) * std::sin(az), std::sin(el)};
    double right[3] = {-std::sin(az), std::cos(az), 0.0};
    if (std::fabs(el) > 89.0 * pi / 180) {
        right[0] = 1;
        right[1] = 0;
    }
    const double up[3] = {to_viewer[1] * right[2] - to_viewer[2] * right[1],
                          to_viewer[2] * right[0] - to_viewer[0] * right[2],
                          to_viewer[0] * right[1] - to_viewer[1] * right[0]};
    const auto project = [&](const P3& p, double out[3]) {
        out[0] = p[0] * right[0] + p[1] * right[1] + p[2] * right[2];
        out[1] = p[0] * up[0] + p[1] * up[1] + p[2] * up[2];
        out[2] = p[0] * to_viewer[0] + p[1] * to_viewer[1] + p[2] * to_viewer[2];
    };
    double lo[2] = {1e300, 1e300}, hi[2] = {-1e300, -1e300};
    for (const Triangle& t : triangles)
        for (const P3& v : t) {
            double s[3];
            project(v, s);
            for (int k = 0; k < 2; ++k) {
                lo[k] = std::min(lo[k], s[k]);
                hi[k] = std::max(hi[k], s[k]);
            }
        }
    const double extent = std::max(hi[0] - lo[0], hi[1] - lo[1]);
    if (!(extent > 0)) return;
    const double scale = 0.92 * size / extent;
    const double cx = 0.5 * (lo[0] + hi[0]), cy = 0.5 * (lo[1] + hi[1]);
    std::vector<float> depth(static_cast<std::size_t>(size) * size, -std::numeric_limits<float>::infinity());
    const double light[3] = {0.35 * right[0] + 0.5 * up[0] + to_viewer[0], 0.35 * right[1] + 0.5 * up[1] + to_viewer[1],
                             0.35 * right[2] + 0.5 * up[2] + to_viewer[2]};
    const double light_length = std::sqrt(light[0] * light[0] + light[1] * light[1] + light[2] * light[2]);
    for (const Triangle& t : triangles) {
        double s[3][3];
        for (int v = 0; v < 3; ++v) {
            project(t[static_cast<std::size_t>(v)], s[v]);
            s[v][0] = (s[v][0] - cx) * scale + size / 2.0;
            s[v][1] = size / 2.0 - (s[v][1] - cy) * scale;
        }
        // Normal in world space, for the shading and to tell front from back.
        const double u[3] = {double(t[1][0]) - t[0][0], double(t[1][1]) - t[0][1], double(t[1][2]) - t[0][2]};
        const double w[3] = {double(t[2][0]) - t[0][0], double(t[2][1]) - t[0][1], double(t[2][2]) - t[0][2]};
        double n[3] = {u[1] * w[2] - u[2] * w[1], u[2] * w[0] - u[0] * w[2], u[0] * w[1] - u[1] * w[0]};
        const double n_length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (!(n_length > 0)) continue;
        const bool front = n[0] * to_viewer[0] + n[1] * to_viewer[1] + n[2] * to_viewer[2] >= 0;
        const double lambert =
            std::fabs(n[0] * light[0] + n[1] * light[1] + n[2] * light[2]) / (n_length * light_length);
        const double shade = 0.32 + 0.68 * lambert;
        const double base[3] = {front ? 170.0 : 235.0, front ? 190.0 : 140.0, front ? 215.0 : 60.0};
        std::uint8_t colour[3];
        for (int k = 0; k < 3; ++k) colour[k] = static_cast<std::uint8_t>(std::min(255.0, base[k] * shade));
        const int x0 = std::max(0, static_cast<int>(std::floor(std::min({s[0][0], s[1][0], s[2][0]}))));
        const int x1 = std::min(size - 1, static_cast<int>(std::ceil(std::max({s[0][0], s[1][0], s[2][0]}))));
        const int y0 = std::max(0, static_cast<int>(std::floor(std::min({s[0][1], s[1][1], s[2][1]}))));
        const int y1 = std::min(size - 1, static_cast<int>(std::ceil(std::max({s[0][1], s[1][1], s[2][1]}))));
        const double area = (s[1][0] - s[0][0]) * (s[2][1] - s[0][1]) - (s[2][0] - s[0][0]) * (s[1][1] - s[0][1]);
        if (std::fabs(area) < 1e-12) continue;
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) {
                const double px = x + 0.5, py = y + 0.5;
                const double b0 = ((s[1][0] - px) * (s[2][1] - py) - (s[2][0] - px) * (s[1][1] - py)) / area;
                const double b1 = ((s[2][0] - px) * (s[0][1] - py) - (s[0][0] - px) * (s[2][1] - py)) / area;
                const double b2 = 1 - b0 - b1;
                if (b0 < 0 || b1 < 0 || b2 < 0) continue;
                const float z = static_cast<float>(b0 * s[0][2] + b1 * s[1][2] + b2 * s[2][2]);
                float& d = depth[static_cast<std::size_t>(y) * size + x];
                if (z <= d) continue;
                d = z;
                std::uint8_t* pixel = &image.rgb[(static_cast<std::size_t>(oy + y) * image.width + ox + x) * 3];
                for (int k = 0; k < 3; ++k) pixel[k] = colour[k];
            }
    }
}

}  // namespace

Image renderViews(const std::vector<Triangle>& triangles, int view_size) {
    Image image;
    image.width = 2 * view_size;
    image.height = 2 * view_size;
    image.rgb.assign(static_cast<std::size_t>(image.width) * image.height * 3, 255);
    const View views[4] = {{-120.0, 35.0}, {60.0, 35.0}, {-90.0, 90.0}, {-90.0, 5.0}};
    forEachInOrder(4, [&](std::size_t v) {
        renderView(triangles, views[v], view_size, image, static_cast<int>(v % 2) * view_size,
                   static_cast<int>(v / 2) * view_size);
    });
    return image;
}

void writePng(const std::string& path, const Image& image) {
    if (!isPngFileName(path)) throw std::runtime_error(path + ": unknown picture format (use .png)");
    OutputFile output(path);
    FILE* file = std::fopen(output.temporaryPath().c_str(), "wb");
    if (file == nullptr) throw std::runtime_error(path + ": cannot write the file");
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        throw std::runtime_error(path + ": writing the PNG failed");
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y)
        png_write_row(png, const_cast<png_bytep>(&image.rgb[static_cast<std::size_t>(y) * image.width * 3]));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(file) != 0) throw std::runtime_error(path + ": cannot write the file (the disk full?)");
    output.commit();
}

bool isPngFileName(const std::string& path) {
    if (path.size() < 4) return false;
    std::string ext = path.substr(path.size() - 4);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext == ".png";
}

}  // namespace tessaline_tools
