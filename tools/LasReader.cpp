// LAS point clouds (airborne and terrestrial lidar, 1.0-1.4): the public header, then fixed-length point
// records read a piece at a time and decoded on all cores, x = X * scale + offset in double precision with
// the run's origin taken off before the rounding to float.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "FrameBuilder.h"
#include "PlyReader.h"
#include "ScanFormats.h"

namespace tessaline_tools {

namespace {

constexpr std::size_t PIECE_BYTES = std::size_t(16) << 20;
// Bytes of the public header that this reader needs: up to the 1.4 point count.
constexpr std::size_t HEADER_1_2 = 227, HEADER_1_4 = 375;

// Bytes of a record of each point data record format, and where its colour lies (0: none).
constexpr std::size_t RECORD_BYTES[11] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};
constexpr std::size_t COLOUR_AT[11] = {0, 0, 20, 28, 0, 28, 0, 30, 30, 0, 30};

template <class T>
T at(const unsigned char* bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes + offset, sizeof(T));  // LAS is little endian, as this machine
    return value;
}

class LasFile {
public:
    explicit LasFile(const std::string& path) : m_path(path) {
        struct stat info;
        if (stat(path.c_str(), &info) != 0) throw std::runtime_error(path + ": cannot open the file");
        refuseIrregularFile(path);
        m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0) throw std::runtime_error(path + ": cannot open the file");
        m_size = static_cast<std::uint64_t>(info.st_size);
    }
    ~LasFile() { close(m_fd); }
    LasFile(const LasFile&) = delete;
    LasFile& operator=(const LasFile&) = delete;

    std::uint64_t size() const { return m_size; }
    // Reads up to `bytes` from `offset`; returns how many the file had.
    std::size_t read(std::uint64_t offset, std::size_t bytes, unsigned char* out) const {
        std::size_t done = 0;
        while (done < bytes) {
            const ssize_t n = pread(m_fd, out + done, bytes - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw std::runtime_error(m_path + ": cannot read the file (" + std::strerror(errno) + ")");
            if (n == 0) break;
            done += static_cast<std::size_t>(n);
        }
        return done;
    }

private:
    std::string m_path;
    int m_fd = -1;
    std::uint64_t m_size = 0;
};

struct LasHeader {
    int major = 1, minor = 2;
    int format = 0;
    std::size_t record_bytes = 0;
    std::uint64_t points = 0, data_offset = 0;
    double scale[3], offset[3], max[3], min[3];
};

LasHeader readHeader(const LasFile& file, const std::string& path) {
    unsigned char b[HEADER_1_4] = {};
    const std::size_t got = file.read(0, HEADER_1_4, b);
    if (got < 4 || std::memcmp(b, "LASF", 4) != 0) throw std::runtime_error(path + ": not a LAS file (no LASF)");
    if (got < HEADER_1_2) throw std::runtime_error(path + ": truncated data (the LAS header is cut short)");
    LasHeader h;
    h.major = b[24];
    h.minor = b[25];
    if (h.major != 1 || h.minor > 4)
        throw std::runtime_error(path + ": LAS version " + std::to_string(h.major) + "." + std::to_string(h.minor) +
                                 " (1.0 to 1.4 are read)");
    const std::size_t header_bytes = at<std::uint16_t>(b, 94);
    h.data_offset = at<std::uint32_t>(b, 96);
    const int format = b[104];
    if (format & 0xC0)
        throw std::runtime_error(path +
                                 ": compressed point records (LAZ data in a .las file); decompress them with "
                                 "laszip or PDAL (pdal translate in.laz out.las), then read the .las");
    if (format > 10)
        throw std::runtime_error(path + ": point data record format " + std::to_string(format) +
                                 " is not a LAS format (0 to 10)");
    h.format = format;
    h.record_bytes = at<std::uint16_t>(b, 105);
    if (h.record_bytes < RECORD_BYTES[format])
        throw std::runtime_error(path + ": records of " + std::to_string(h.record_bytes) + " bytes, shorter than the " +
                                 std::to_string(RECORD_BYTES[format]) + " of point data record format " +
                                 std::to_string(format));
    h.points = at<std::uint32_t>(b, 107);
    // 1.4 keeps a 64-bit count (the 32-bit one is 0 for formats 6-10 and beyond 4 billion points).
    if (h.minor >= 4 && header_bytes >= HEADER_1_4 && got >= HEADER_1_4) {
        const std::uint64_t count = at<std::uint64_t>(b, 247);
        if (count != 0) h.points = count;
    }
    for (int k = 0; k < 3; ++k) {
        h.scale[k] = at<double>(b, 131 + 8 * k);
        h.offset[k] = at<double>(b, 155 + 8 * k);
        h.max[k] = at<double>(b, 179 + 16 * k);
        h.min[k] = at<double>(b, 187 + 16 * k);
        if (!(std::isfinite(h.scale[k]) && h.scale[k] != 0 && std::isfinite(h.offset[k])))
            throw std::runtime_error(path + ": the header's scale or offset of " + "xyz"[k] +
                                     " is zero or not a finite number");
    }
    if (header_bytes < HEADER_1_2 || h.data_offset < header_bytes || h.data_offset > file.size())
        throw std::runtime_error(path + ": the header's size or its offset to the points is wrong");
    // Every record takes its bytes: a count beyond the file is refused before anything is sized after it.
    if (h.points > (file.size() - h.data_offset) / h.record_bytes)
        throw std::runtime_error(path + ": truncated data (the header counts " + std::to_string(h.points) +
                                 " points of " + std::to_string(h.record_bytes) + " bytes, the file holds " +
                                 std::to_string(file.size() - h.data_offset) + " bytes of them)");
    return h;
}

}  // namespace

Origin lasOrigin(const std::string& path, float scale) {
    const LasFile file(path);
    const LasHeader h = readHeader(file, path);
    double middle[3];
    bool bounds = true;
    for (int k = 0; k < 3; ++k) {
        middle[k] = 0.5 * (h.min[k] + h.max[k]);
        bounds = bounds && std::isfinite(middle[k]) && h.min[k] <= h.max[k];
    }
    if (!bounds && h.points > 0) {  // the first point instead
        unsigned char record[12];
        if (file.read(h.data_offset, 12, record) == 12)
            for (int k = 0; k < 3; ++k) middle[k] = at<std::int32_t>(record, 4 * k) * h.scale[k] + h.offset[k];
        bounds = true;
    }
    Origin origin = {0.0, 0.0, 0.0};
    if (bounds)
        for (int k = 0; k < 3; ++k) origin[k] = 1000.0 * std::round(middle[k] * scale / 1000.0);  // whole metres
    return origin;
}

void readLas(const std::string& path, const ScanReadOptions& options, ScanInput& out, ScanReadNotes& notes) {
    const LasFile file(path);
    const LasHeader h = readHeader(file, path);
    const std::size_t n = static_cast<std::size_t>(h.points);
    const std::size_t colour_at = COLOUR_AT[h.format];
    FrameBuilder builder(n, options, colour_at > 0);
    // Colours as 16-bit values, scaled to bytes once all are read: files that hold 8-bit values in them
    // (none above 255) keep them as they are.
    std::vector<std::array<std::uint16_t, 3>> wide(colour_at > 0 ? n : 0);
    std::vector<unsigned char> buffer;
    const std::size_t record = h.record_bytes;
    const std::size_t per_piece = std::max<std::size_t>(1, PIECE_BYTES / record);
    for (std::size_t done = 0; done < n;) {
        const std::size_t want = std::min(per_piece, n - done);
        buffer.resize(want * record);
        if (file.read(h.data_offset + static_cast<std::uint64_t>(done) * record, want * record, buffer.data()) !=
            want * record)
            throw std::runtime_error(path + ": truncated data (the file ended while it was read)");
        const std::int64_t count = static_cast<std::int64_t>(want);
#pragma omp parallel for schedule(static) if (count >= 8192)
        for (std::int64_t s = 0; s < count; ++s) {
            const unsigned char* r = buffer.data() + static_cast<std::size_t>(s) * record;
            const std::size_t i = done + static_cast<std::size_t>(s);
            double p[3];
            for (int k = 0; k < 3; ++k) p[k] = at<std::int32_t>(r, 4 * k) * h.scale[k] + h.offset[k];
            builder.position(i, p);
            if (colour_at > 0)
                for (int k = 0; k < 3; ++k) wide[i][k] = at<std::uint16_t>(r, colour_at + 2 * k);
        }
        done += want;
    }
    if (colour_at > 0) {
        std::uint16_t largest = 0;
        for (const auto& c : wide) largest = std::max({largest, c[0], c[1], c[2]});
        const bool bytes = largest <= 255;
        for (std::size_t i = 0; i < n; ++i) {
            Colour c;
            for (int k = 0; k < 3; ++k)
                c[k] = bytes ? static_cast<std::uint8_t>(wide[i][k]) : static_cast<std::uint8_t>(wide[i][k] >> 8);
            builder.colour(i, c);
        }
    }
    FrameExtras extras;
    extras.source = path;
    extras.normals = false;
    auto frame = builder.finish(extras, &notes.dropped);
    out.add(std::move(frame), std::move(extras));
}

}  // namespace tessaline_tools
