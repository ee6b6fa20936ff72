// PLY point cloud reader: the header decides the layout of a vertex record; everything after the
// vertex element is ignored.
#include "PointCloudIO.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace tessaline_tools {

using SurfaceReconstruction::FrameDataWithInfo;

namespace {

enum class Format { Ascii, BinaryLittle, BinaryBig };

struct Property {
    std::string name;
    int size = 0;  // bytes in binary files
    char kind = 'f';  // 'i' signed, 'u' unsigned, 'f' floating
};

bool propertyType(const std::string& type, Property& p) {
    static const struct {
        const char* name;
        int size;
        char kind;
    } TYPES[] = {{"char", 1, 'i'},  {"int8", 1, 'i'},   {"uchar", 1, 'u'},   {"uint8", 1, 'u'},   {"short", 2, 'i'},
                 {"int16", 2, 'i'}, {"ushort", 2, 'u'}, {"uint16", 2, 'u'},  {"int", 4, 'i'},     {"int32", 4, 'i'},
                 {"uint", 4, 'u'},  {"uint32", 4, 'u'}, {"float", 4, 'f'},   {"float32", 4, 'f'}, {"double", 8, 'f'},
                 {"float64", 8, 'f'}};
    for (const auto& t : TYPES) {
        if (type == t.name) {
            p.size = t.size;
            p.kind = t.kind;
            return true;
        }
    }
    return false;
}

double decode(const unsigned char* bytes, const Property& p, bool big_endian) {
    unsigned char b[8];
    for (int i = 0; i < p.size; ++i) b[i] = bytes[big_endian ? p.size - 1 - i : i];
    switch (p.size) {
        case 1: return p.kind == 'i' ? static_cast<double>(static_cast<std::int8_t>(b[0])) : static_cast<double>(b[0]);
        case 2: {
            std::uint16_t v;
            std::memcpy(&v, b, 2);
            return p.kind == 'i' ? static_cast<double>(static_cast<std::int16_t>(v)) : static_cast<double>(v);
        }
        case 4: {
            if (p.kind == 'f') {
                float f;
                std::memcpy(&f, b, 4);
                return f;
            }
            std::uint32_t v;
            std::memcpy(&v, b, 4);
            return p.kind == 'i' ? static_cast<double>(static_cast<std::int32_t>(v)) : static_cast<double>(v);
        }
        default: {
            double d;
            std::memcpy(&d, b, 8);
            return d;
        }
    }
}

}  // namespace

std::shared_ptr<FrameDataWithInfo> readPlyPointCloud(const std::string& path, float scale, int scale_code,
                                                     PointCloudReadInfo& info) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(path + ": cannot open the file");
    std::string line;
    if (!std::getline(in, line) || line.rfind("ply", 0) != 0) throw std::runtime_error(path + ": not a PLY file");
    Format format = Format::Ascii;
    bool have_format = false, in_vertex = false, vertex_seen = false;
    long vertices = -1;
    std::vector<Property> properties;
    while (true) {
        if (!std::getline(in, line)) throw std::runtime_error(path + ": the PLY header has no end_header");
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::istringstream words(line);
        std::string keyword;
        words >> keyword;
        if (keyword == "format") {
            std::string name;
            words >> name;
            if (name == "ascii") format = Format::Ascii;
            else if (name == "binary_little_endian") format = Format::BinaryLittle;
            else if (name == "binary_big_endian") format = Format::BinaryBig;
            else throw std::runtime_error(path + ": unknown PLY format '" + name + "'");
            have_format = true;
        } else if (keyword == "element") {
            std::string name;
            long count = 0;
            words >> name >> count;
            if (name == "vertex") {
                if (vertex_seen) throw std::runtime_error(path + ": two vertex elements");
                vertex_seen = true;
                in_vertex = true;
                vertices = count;
            } else {
                if (!vertex_seen) throw std::runtime_error(path + ": the vertex element must come first");
                in_vertex = false;
            }
        } else if (keyword == "property" && in_vertex) {
            std::string type, name;
            words >> type >> name;
            Property p;
            if (type == "list") throw std::runtime_error(path + ": list properties in the vertex element");
            if (!propertyType(type, p)) throw std::runtime_error(path + ": unknown property type '" + type + "'");
            p.name = name;
            properties.push_back(p);
        } else if (keyword == "end_header") {
            break;
        }
    }
    if (!have_format) throw std::runtime_error(path + ": the PLY header names no format");
    if (!vertex_seen || vertices < 0) throw std::runtime_error(path + ": no vertex element");
    int column[6] = {-1, -1, -1, -1, -1, -1};
    const char* names[6] = {"x", "y", "z", "nx", "ny", "nz"};
    for (std::size_t i = 0; i < properties.size(); ++i)
        for (int k = 0; k < 6; ++k)
            if (properties[i].name == names[k]) column[k] = static_cast<int>(i);
    if (column[0] < 0 || column[1] < 0 || column[2] < 0) throw std::runtime_error(path + ": no x, y, z properties");
    if (column[3] < 0 || column[4] < 0 || column[5] < 0) throw std::runtime_error(path + ": no normals (nx, ny, nz)");

    auto frame = std::make_shared<FrameDataWithInfo>();
    frame->xyz.reserve(static_cast<std::size_t>(vertices));
    frame->nor.reserve(static_cast<std::size_t>(vertices));
    std::vector<double> values(properties.size());
    int record_size = 0;
    for (const Property& p : properties) record_size += p.size;
    std::vector<unsigned char> record(static_cast<std::size_t>(record_size));
    for (long v = 0; v < vertices; ++v) {
        if (format == Format::Ascii) {
            if (!std::getline(in, line)) throw std::runtime_error(path + ": truncated data (" + std::to_string(v) + " of " +
                                                                  std::to_string(vertices) + " points)");
            std::istringstream fields(line);
            for (double& value : values) {
                std::string token;
                if (!(fields >> token)) throw std::runtime_error(path + ": truncated point " + std::to_string(v));
                value = std::strtod(token.c_str(), nullptr);  // accepts nan and inf
            }
        } else {
            if (!in.read(reinterpret_cast<char*>(record.data()), record_size))
                throw std::runtime_error(path + ": truncated data (" + std::to_string(v) + " of " + std::to_string(vertices) +
                                         " points)");
            int offset = 0;
            for (std::size_t i = 0; i < properties.size(); ++i) {
                values[i] = decode(record.data() + offset, properties[i], format == Format::BinaryBig);
                offset += properties[i].size;
            }
        }
        double p[6];
        for (int k = 0; k < 6; ++k) p[k] = values[static_cast<std::size_t>(column[k])];
        const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
        bool usable = length > 0;
        for (double c : p) usable = usable && std::isfinite(c);
        if (!usable) {
            ++info.dropped;
            continue;
        }
        frame->xyz.push_back({static_cast<float>(p[0] * scale), static_cast<float>(p[1] * scale), static_cast<float>(p[2] * scale)});
        frame->nor.push_back({static_cast<float>(p[3] / length), static_cast<float>(p[4] / length), static_cast<float>(p[5] / length)});
        frame->w.push_back(scale_code);
    }
    return frame;
}

}  // namespace tessaline_tools
