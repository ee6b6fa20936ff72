// PCD point clouds (PCL, Open3D): the header, then the points as ASCII lines, binary records or LZF-compressed
// columns; points with a NaN coordinate (the holes of an organized cloud) are left out.
#include <lzf.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "FrameBuilder.h"
#include "ScanFormats.h"
#include "TextLines.h"

namespace tessaline_tools {

namespace {

// Records decoded at a time from a binary body.
constexpr std::size_t PIECE_BYTES = std::size_t(16) << 20;
// LZF writes at most 264 bytes a 3-byte back reference: no stream expands further than this.
constexpr std::uint64_t MAX_LZF_EXPANSION = 100;

struct PcdField {
    std::string name;
    int size = 4;
    char type = 'F';  // F float, I signed, U unsigned
    long count = 1;
    std::size_t offset = 0;  // bytes into a binary record
    std::size_t column = 0;  // the first of its values on an ASCII line
};

enum class PcdData { Ascii, Binary, Compressed };

struct PcdHeader {
    std::vector<PcdField> fields;
    std::size_t record_bytes = 0, values_per_line = 0;
    std::uint64_t points = 0;
    long height = 1;
    double viewpoint[7] = {0, 0, 0, 1, 0, 0, 0};
    PcdData data = PcdData::Ascii;
};

std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::size_t at = 0;
    while ((at = line.find_first_not_of(" \t\r", at)) != std::string::npos) {
        const std::size_t end = line.find_first_of(" \t\r", at);
        out.push_back(line.substr(at, end == std::string::npos ? std::string::npos : end - at));
        at = end;
    }
    return out;
}

// A count: digits only, below 2^53.
bool plainNumber(const std::string& text, std::uint64_t& value) {
    if (text.empty() || text.size() > 15) return false;
    value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return true;
}

PcdHeader readHeader(TextLines& text) {
    const std::string& path = text.path();
    PcdHeader h;
    std::vector<std::string> sizes, types, counts;
    std::uint64_t width = 0, height = 1, points = 0;
    bool have_width = false, have_points = false, have_data = false;
    std::string line;
    while (!have_data) {
        if (!text.nextLine(line)) throw std::runtime_error(path + ": the PCD header has no DATA line");
        const std::vector<std::string> w = words(line);
        if (w.empty() || w[0][0] == '#') continue;
        const std::string& key = w[0];
        const std::vector<std::string> rest(w.begin() + 1, w.end());
        const auto number = [&](std::uint64_t& value) {
            if (rest.size() != 1 || !plainNumber(rest[0], value))
                text.fail(text.lineNumber(), key + " must be one whole number");
        };
        if (key == "VERSION") {
        } else if (key == "FIELDS" || key == "COLUMNS") {
            for (const std::string& name : rest) h.fields.push_back({name});
        } else if (key == "SIZE") {
            sizes = rest;
        } else if (key == "TYPE") {
            types = rest;
        } else if (key == "COUNT") {
            counts = rest;
        } else if (key == "WIDTH") {
            number(width);
            have_width = true;
        } else if (key == "HEIGHT") {
            number(height);
        } else if (key == "POINTS") {
            number(points);
            have_points = true;
        } else if (key == "VIEWPOINT") {
            std::string joined;
            for (const std::string& word : rest) joined += word + " ";
            joined += '\n';
            if (parseLine(text, joined.c_str(), text.lineNumber(), h.viewpoint, 7) != 7)
                text.fail(text.lineNumber(), "VIEWPOINT needs 7 numbers (tx ty tz qw qx qy qz)");
        } else if (key == "DATA") {
            const std::string kind = rest.empty() ? std::string() : rest[0];
            if (kind == "ascii")
                h.data = PcdData::Ascii;
            else if (kind == "binary")
                h.data = PcdData::Binary;
            else if (kind == "binary_compressed")
                h.data = PcdData::Compressed;
            else
                text.fail(text.lineNumber(), "unknown DATA '" + kind + "' (ascii, binary or binary_compressed)");
            have_data = true;
        } else {
            text.fail(text.lineNumber(), "'" + key + "' is not a PCD header line (is this a PCD file?)");
        }
    }
    if (h.fields.empty()) throw std::runtime_error(path + ": the PCD header has no FIELDS");
    if (sizes.size() != h.fields.size() || types.size() != h.fields.size() ||
        (!counts.empty() && counts.size() != h.fields.size()))
        throw std::runtime_error(path + ": the PCD header's SIZE, TYPE and COUNT need one entry a field (" +
                                 std::to_string(h.fields.size()) + " fields)");
    for (std::size_t f = 0; f < h.fields.size(); ++f) {
        PcdField& field = h.fields[f];
        std::uint64_t size = 0, count = 1;
        if (!plainNumber(sizes[f], size) || (!counts.empty() && !plainNumber(counts[f], count)) || count == 0 ||
            count > 1000000)
            throw std::runtime_error(path + ": bad SIZE or COUNT of the field " + field.name);
        field.size = static_cast<int>(size);
        field.type = types[f].size() == 1 ? types[f][0] : '?';
        field.count = static_cast<long>(count);
        const bool known =
            (field.type == 'F' && (size == 4 || size == 8)) ||
            ((field.type == 'I' || field.type == 'U') && (size == 1 || size == 2 || size == 4 || size == 8));
        if (!known)
            throw std::runtime_error(path + ": the field " + field.name + " has TYPE " + types[f] + " and SIZE " +
                                     sizes[f] + ", which PCD does not have");
        field.offset = h.record_bytes;
        field.column = h.values_per_line;
        h.record_bytes += static_cast<std::size_t>(size * count);
        h.values_per_line += static_cast<std::size_t>(count);
    }
    if (!have_width) throw std::runtime_error(path + ": the PCD header has no WIDTH");
    if (height == 0 || (width > 0 && height > (std::uint64_t(1) << 53) / width))
        throw std::runtime_error(path + ": bad WIDTH x HEIGHT");
    if (have_points && points != width * height)
        throw std::runtime_error(path + ": POINTS " + std::to_string(points) + " is not WIDTH x HEIGHT " +
                                 std::to_string(width * height));
    h.points = width * height;
    h.height = static_cast<long>(std::min<std::uint64_t>(height, 2147483647));
    return h;
}

// Where the values a point cloud uses are, by field: -1 for none.
struct PcdColumns {
    int xyz[3] = {-1, -1, -1}, normal[3] = {-1, -1, -1}, colour = -1;
};

int fieldIndex(const PcdHeader& h, std::initializer_list<const char*> names) {
    for (const char* name : names)
        for (std::size_t f = 0; f < h.fields.size(); ++f)
            if (h.fields[f].name == name) return static_cast<int>(f);
    return -1;
}

double decodeValue(const char* bytes, int size, char type) {
    switch (type) {
        case 'F':
            if (size == 4) {
                float f;
                std::memcpy(&f, bytes, 4);
                return f;
            } else {
                double d;
                std::memcpy(&d, bytes, 8);
                return d;
            }
        case 'I': {
            std::int64_t v = 0;
            if (size == 1) v = static_cast<std::int8_t>(bytes[0]);
            if (size == 2)
                v = [&] {
                    std::int16_t x;
                    std::memcpy(&x, bytes, 2);
                    return x;
                }();
            if (size == 4)
                v = [&] {
                    std::int32_t x;
                    std::memcpy(&x, bytes, 4);
                    return x;
                }();
            if (size == 8) std::memcpy(&v, bytes, 8);
            return static_cast<double>(v);
        }
        default: {
            std::uint64_t v = 0;
            std::memcpy(&v, bytes, static_cast<std::size_t>(size));  // little endian
            return static_cast<double>(v);
        }
    }
}

Colour unpack(std::uint32_t packed) {
    return {static_cast<std::uint8_t>((packed >> 16) & 0xFF), static_cast<std::uint8_t>((packed >> 8) & 0xFF),
            static_cast<std::uint8_t>(packed & 0xFF)};
}

// A packed colour written as text: PCL writes the 32 bits as an unsigned integer, others the float they
// make (a tiny number, or one that prints as an integer only beyond 2^24 with its top bits set).
Colour colourFromText(double value, char type) {
    if (type != 'F' || (value >= 1 && value <= 4294967295.0 && value == std::floor(value)))
        return unpack(value >= 0 && value <= 4294967295.0 ? static_cast<std::uint32_t>(value) : 0);
    const float f = static_cast<float>(value);
    std::uint32_t bits;
    std::memcpy(&bits, &f, 4);
    return unpack(bits);
}

}  // namespace

void readPcd(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes) {
    TextLines text(path);
    const PcdHeader h = readHeader(text);
    PcdColumns c;
    const char* axes[3][3] = {{"x"}, {"y"}, {"z"}};
    for (int k = 0; k < 3; ++k) c.xyz[k] = fieldIndex(h, {axes[k][0]});
    if (c.xyz[0] < 0 || c.xyz[1] < 0 || c.xyz[2] < 0) throw std::runtime_error(path + ": no x, y, z fields");
    c.normal[0] = fieldIndex(h, {"normal_x", "nx"});
    c.normal[1] = fieldIndex(h, {"normal_y", "ny"});
    c.normal[2] = fieldIndex(h, {"normal_z", "nz"});
    const bool normals = c.normal[0] >= 0 && c.normal[1] >= 0 && c.normal[2] >= 0;
    c.colour = fieldIndex(h, {"rgb", "rgba"});
    if (c.colour >= 0 && h.fields[static_cast<std::size_t>(c.colour)].size != 4) c.colour = -1;
    for (const int f : {c.xyz[0], c.xyz[1], c.xyz[2], normals ? c.normal[0] : c.xyz[0],
                        normals ? c.normal[1] : c.xyz[0], normals ? c.normal[2] : c.xyz[0]})
        if (h.fields[static_cast<std::size_t>(f)].count != 1)
            throw std::runtime_error(path + ": the field " + h.fields[static_cast<std::size_t>(f)].name +
                                     " has COUNT " + std::to_string(h.fields[static_cast<std::size_t>(f)].count) +
                                     " (one value a point expected)");
    const std::uint64_t remaining = text.remainingBytes();
    // Every point takes room in the file: a header that promises more than the file holds is refused
    // before anything is sized after it.
    if (h.data == PcdData::Ascii && h.points > (remaining + 1) / (2 * h.values_per_line))
        throw std::runtime_error(path + ": truncated data (" + std::to_string(h.points) +
                                 " points promised, more than the file holds)");
    if (h.data == PcdData::Binary && h.record_bytes > 0 && h.points > remaining / h.record_bytes)
        throw std::runtime_error(path + ": truncated data (" + std::to_string(h.points) + " points of " +
                                 std::to_string(h.record_bytes) + " bytes promised, the file holds " +
                                 std::to_string(remaining) + " bytes of data)");
    std::uint32_t packed_bytes = 0, unpacked_bytes = 0;
    if (h.data == PcdData::Compressed) {
        std::size_t available = 0;
        const char* sizes = text.peekBytes(8, available);
        if (available < 8) throw std::runtime_error(path + ": truncated data (no compressed sizes after DATA)");
        std::memcpy(&packed_bytes, sizes, 4);
        std::memcpy(&unpacked_bytes, sizes + 4, 4);
        text.consume(8);
        if (h.points > 0xFFFFFFFFull / h.record_bytes || unpacked_bytes != h.points * h.record_bytes)
            throw std::runtime_error(path + ": the compressed data unpacks to " + std::to_string(unpacked_bytes) +
                                     " bytes, not " + std::to_string(h.points) + " points of " +
                                     std::to_string(h.record_bytes) + " bytes");
        if (packed_bytes > text.remainingBytes())
            throw std::runtime_error(path + ": truncated data (" + std::to_string(packed_bytes) +
                                     " compressed bytes promised, the file holds " +
                                     std::to_string(text.remainingBytes()) + ")");
        if (unpacked_bytes > MAX_LZF_EXPANSION * packed_bytes + 64)
            throw std::runtime_error(path + ": " + std::to_string(packed_bytes) +
                                     " compressed bytes cannot unpack to " + std::to_string(unpacked_bytes));
    }
    const std::size_t n = static_cast<std::size_t>(h.points);

    FrameBuilder builder(n, options, c.colour >= 0);
    const auto field = [&](int f) -> const PcdField& { return h.fields[static_cast<std::size_t>(f)]; };
    // One point from its record's bytes: `at(f)` is where field f's value lies.
    const auto fromBytes = [&](std::size_t i, auto&& at) {
        double p[3], q[3];
        for (int k = 0; k < 3; ++k) p[k] = decodeValue(at(c.xyz[k]), field(c.xyz[k]).size, field(c.xyz[k]).type);
        builder.position(i, p);
        if (normals && !builder.isMissing(i)) {
            for (int k = 0; k < 3; ++k)
                q[k] = decodeValue(at(c.normal[k]), field(c.normal[k]).size, field(c.normal[k]).type);
            builder.normal(i, q);
        }
        if (c.colour >= 0) {
            std::uint32_t packed;
            std::memcpy(&packed, at(c.colour), 4);
            builder.colour(i, unpack(packed));
        }
    };

    if (h.data == PcdData::Ascii) {
        TextPiece piece;
        for (std::size_t done = 0; done < n;) {
            if (text.nextLines(n - done, piece) == 0)
                throw std::runtime_error(path + ": truncated data (" + std::to_string(done) + " of " +
                                         std::to_string(n) + " points)");
            forEachLine(piece, [&](std::size_t l) {
                double stack[32];
                std::vector<double> heap;
                double* v = stack;
                if (h.values_per_line > 32) {
                    heap.resize(h.values_per_line);
                    v = heap.data();
                }
                const std::size_t found = parseLine(text, piece.starts[l], piece.numbers[l], v, h.values_per_line);
                if (found != h.values_per_line)
                    text.fail(piece.numbers[l],
                              std::to_string(found) + " values where a point has " + std::to_string(h.values_per_line));
                const std::size_t i = done + l;
                double p[3], q[3];
                for (int k = 0; k < 3; ++k) p[k] = v[field(c.xyz[k]).column];
                builder.position(i, p);
                if (normals && !builder.isMissing(i)) {
                    for (int k = 0; k < 3; ++k) q[k] = v[field(c.normal[k]).column];
                    builder.normal(i, q);
                }
                if (c.colour >= 0) builder.colour(i, colourFromText(v[field(c.colour).column], field(c.colour).type));
            });
            done += piece.size();
        }
    } else if (h.data == PcdData::Binary) {
        const std::size_t record = h.record_bytes;
        const std::size_t per_piece = std::max<std::size_t>(1, PIECE_BYTES / std::max<std::size_t>(1, record));
        for (std::size_t done = 0; done < n;) {
            const std::size_t want = std::min(per_piece, n - done);
            std::size_t available = 0;
            const char* bytes = text.peekBytes(want * record, available);
            if (available < want * record)
                throw std::runtime_error(path + ": truncated data (point " + std::to_string(done + available / record) +
                                         " of " + std::to_string(n) + ")");
            const std::int64_t count = static_cast<std::int64_t>(want);
#pragma omp parallel for schedule(static) if (count >= 8192)
            for (std::int64_t s = 0; s < count; ++s) {
                const char* base = bytes + static_cast<std::size_t>(s) * record;
                fromBytes(done + static_cast<std::size_t>(s), [&](int f) { return base + field(f).offset; });
            }
            text.consume(want * record);
            done += want;
        }
    } else {
        std::size_t available = 0;
        const char* packed = text.peekBytes(packed_bytes, available);
        std::vector<char> columns(unpacked_bytes);
        if (unpacked_bytes > 0 &&
            lzf_decompress(packed, packed_bytes, columns.data(), unpacked_bytes) != unpacked_bytes)
            throw std::runtime_error(path + ": the compressed data is damaged (LZF)");
        text.consume(packed_bytes);
        // Field after field: all points' values of a field, then the next field's.
        const std::int64_t count = static_cast<std::int64_t>(n);
#pragma omp parallel for schedule(static) if (count >= 8192)
        for (std::int64_t s = 0; s < count; ++s) {
            const std::size_t i = static_cast<std::size_t>(s);
            fromBytes(i, [&](int f) {
                const PcdField& pf = field(f);
                return columns.data() + n * pf.offset + i * static_cast<std::size_t>(pf.size * pf.count);
            });
        }
    }

    FrameExtras extras;
    extras.source = path;
    extras.normals = normals;
    const double* v = h.viewpoint;
    const bool default_view = v[0] == 0 && v[1] == 0 && v[2] == 0 && v[3] == 1 && v[4] == 0 && v[5] == 0 && v[6] == 0;
    extras.sensor = h.height > 1 || !default_view;
    for (int k = 0; k < 3; ++k)
        extras.sensor_position[k] = v[k] * static_cast<double>(options.scale) - options.origin[k];
    auto frame = builder.finish(extras, &notes.dropped);
    out.add(std::move(frame), std::move(extras));
}

}  // namespace tessaline_tools
