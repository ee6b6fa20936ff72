// PLY header parsing, and the body read a piece at a time: binary records decoded field by field, ASCII
// numbers of up to 15 digits read eight characters at a time, any other with std::from_chars.
#include "PlyReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tessaline_tools {

namespace {

// Bytes a header may take.
constexpr std::size_t MAX_HEADER_BYTES = std::size_t(16) << 20;
// Lists longer than this are taken for a damaged file rather than allocated.
constexpr double MAX_LIST_LENGTH = 1 << 20;

bool propertyType(const std::string& type, int& size, char& kind) {
    static const struct {
        const char* name;
        int size;
        char kind;
    } TYPES[] = {{"char", 1, 'i'},  {"int8", 1, 'i'},    {"uchar", 1, 'u'},  {"uint8", 1, 'u'},
                 {"short", 2, 'i'}, {"int16", 2, 'i'},   {"ushort", 2, 'u'}, {"uint16", 2, 'u'},
                 {"int", 4, 'i'},   {"int32", 4, 'i'},   {"uint", 4, 'u'},   {"uint32", 4, 'u'},
                 {"float", 4, 'f'}, {"float32", 4, 'f'}, {"double", 8, 'f'}, {"float64", 8, 'f'}};
    for (const auto& t : TYPES) {
        if (type == t.name) {
            size = t.size;
            kind = t.kind;
            return true;
        }
    }
    return false;
}

double decode(const char* bytes, int size, char kind, bool big_endian) {
    if (!big_endian && size == 4) return decodeFour(bytes, kind);  // the common case
    unsigned char b[8] = {};
    if (big_endian) {
        for (int i = 0; i < size; ++i) b[i] = static_cast<unsigned char>(bytes[size - 1 - i]);
    } else if (size == 8) {  // a copy of a known size (no call a value)
        std::memcpy(b, bytes, 8);
    } else if (size == 2) {
        std::memcpy(b, bytes, 2);
    } else {
        b[0] = static_cast<unsigned char>(bytes[0]);
    }
    switch (size) {
        case 1:
            return kind == 'i' ? static_cast<double>(static_cast<std::int8_t>(b[0])) : static_cast<double>(b[0]);
        case 2: {
            std::uint16_t v;
            std::memcpy(&v, b, 2);
            return kind == 'i' ? static_cast<double>(static_cast<std::int16_t>(v)) : static_cast<double>(v);
        }
        case 4: {
            if (kind == 'f') {
                float f;
                std::memcpy(&f, b, 4);
                return f;
            }
            std::uint32_t v;
            std::memcpy(&v, b, 4);
            return kind == 'i' ? static_cast<double>(static_cast<std::int32_t>(v)) : static_cast<double>(v);
        }
        default: {
            double d;
            std::memcpy(&d, b, 8);
            return d;
        }
    }
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

const char* skipSpaces(const char* p) {
    while (isSpace(*p)) ++p;
    return p;
}

// The words of a header line.
std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    const char* p = line.c_str();
    while (*(p = skipSpaces(p)) != '\0') {
        const char* start = p;
        while (*p != '\0' && !isSpace(*p)) ++p;
        out.emplace_back(start, p);
    }
    return out;
}

// A count of records: digits only, within a long.
bool plainCount(const std::string& text, long& value) {
    if (text.empty() || text.size() > 18) return false;
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

}  // namespace

int PlyElement::find(const std::string& property) const {
    for (std::size_t i = 0; i < properties.size(); ++i)
        if (properties[i].name == property) return static_cast<int>(i);
    return -1;
}

void adviseHugePages(const void* data, std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
    if (bytes < (std::size_t(4) << 20)) return;
    const std::uintptr_t at = (reinterpret_cast<std::uintptr_t>(data) + 4095) & ~std::uintptr_t(4095);
    const std::uintptr_t end = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~std::uintptr_t(4095);
    madvise(reinterpret_cast<void*>(at), end - at, MADV_HUGEPAGE);  // advice only: refused, nothing changes
#else
    (void)data;
    (void)bytes;
#endif
}

void refuseIrregularFile(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        throw std::runtime_error(path + ": not a regular file");
}

// A buffer of `bytes`, not zeroed, backed by huge pages from 4 MB on.
std::unique_ptr<char[]> largeBuffer(std::size_t bytes) {
    std::unique_ptr<char[]> buffer(new char[bytes]);
    adviseHugePages(buffer.get(), bytes);
    return buffer;
}

void readAtLeast(int fd, const std::string& path, std::size_t bytes, std::unique_ptr<char[]>& buffer,
                 std::size_t& capacity, std::size_t& begin, std::size_t& end, std::uint64_t& unread) {
    if (capacity < bytes + 1) {  // one byte more: room for the closing line end of a text without one
        std::unique_ptr<char[]> larger = largeBuffer(bytes + 1);
        if (end > begin) std::memcpy(larger.get(), buffer.get() + begin, end - begin);
        buffer = std::move(larger);
        capacity = bytes + 1;
        end -= begin;
        begin = 0;
    } else if (begin > 0) {
        std::memmove(buffer.get(), buffer.get() + begin, end - begin);
        end -= begin;
        begin = 0;
    }
    while (end < bytes) {
        const ssize_t n = read(fd, buffer.get() + end, capacity - 1 - end);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw std::runtime_error(path + ": cannot read the file (" + std::strerror(errno) + ")");
        if (n == 0) break;  // shorter than it was: the end is now
        end += static_cast<std::size_t>(n);
        unread -= std::min<std::uint64_t>(unread, static_cast<std::uint64_t>(n));
    }
}

PlyReader::PlyReader(const std::string& path, std::size_t piece_bytes)
    : m_path(path), m_piece_bytes(std::max<std::size_t>(piece_bytes, 1)) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) throw std::runtime_error(path + ": cannot open the file");
    refuseIrregularFile(path);
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) throw std::runtime_error(path + ": cannot open the file");
    // A file within a piece's size is read with one call, header and body together.
    const std::size_t size = static_cast<std::size_t>(info.st_size);
    m_unread = size;
    // A refused header leaves no descriptor open: the destructor of a half-built reader never runs.
    try {
        readHeader(size);
    } catch (...) {
        close(m_fd);
        m_fd = -1;
        throw;
    }
}

void PlyReader::readHeader(std::size_t size) {
    const std::string& path = m_path;

    // The header, line by line.
    std::size_t header_bytes = 0;
    const auto nextLine = [&](std::string& line) {
        for (;;) {
            const char* start = m_buffer.get() + m_begin;
            const void* end = m_end > m_begin ? std::memchr(start, '\n', m_end - m_begin) : nullptr;
            if (end != nullptr) {
                const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(end) - start);
                line.assign(start, length);
                if (!line.empty() && line.back() == '\r') line.pop_back();
                m_begin += length + 1;
                header_bytes += length + 1;
                ++m_line;
                return true;
            }
            if (m_eof || m_end - m_begin >= MAX_HEADER_BYTES) return false;
            fill(m_end - m_begin + 65536);
        }
    };
    std::string line;
    if (!nextLine(line) || line.rfind("ply", 0) != 0) throw std::runtime_error(path + ": not a PLY file");
    bool have_format = false;
    while (true) {
        if (!nextLine(line)) throw std::runtime_error(path + ": the PLY header has no end_header");
        const std::vector<std::string> w = words(line);
        const std::string keyword = w.empty() ? std::string() : w[0];
        if (keyword == "format") {
            const std::string name = w.size() > 1 ? w[1] : std::string();
            if (name == "ascii")
                m_format = Format::Ascii;
            else if (name == "binary_little_endian")
                m_format = Format::BinaryLittle;
            else if (name == "binary_big_endian")
                m_format = Format::BinaryBig;
            else
                throw std::runtime_error(path + ": unknown PLY format '" + name + "'");
            have_format = true;
        } else if (keyword == "element") {
            PlyElement element;
            if (w.size() != 3 || !plainCount(w[2], element.count))
                throw std::runtime_error(path + ": bad element line '" + line +
                                         "' (a name, then the count as a whole number)");
            element.name = w[1];
            if (find(element.name) != nullptr) throw std::runtime_error(path + ": two " + element.name + " elements");
            m_elements.push_back(element);
        } else if (keyword == "property") {
            if (m_elements.empty()) throw std::runtime_error(path + ": a property before any element");
            PlyProperty p;
            std::size_t next = 1;
            std::string type = w.size() > next ? w[next++] : std::string();
            if (type == "list") {
                const std::string count_type = w.size() > next ? w[next++] : std::string();
                type = w.size() > next ? w[next++] : std::string();
                if (!propertyType(count_type, p.count_size, p.count_kind) || p.count_kind == 'f')
                    throw std::runtime_error(path + ": bad list length type '" + count_type + "'");
                p.list = true;
            }
            if (!propertyType(type, p.size, p.kind))
                throw std::runtime_error(path + ": unknown property type '" + type + "'");
            if (w.size() <= next) throw std::runtime_error(path + ": a property without a name");
            p.name = w[next];
            m_elements.back().properties.push_back(p);
        } else if (keyword == "obj_info") {
            long value = 0;
            if (w.size() >= 3) {
                char* end = nullptr;
                value = std::strtol(w[2].c_str(), &end, 10);
                if (end != w[2].c_str()) m_obj_info.emplace_back(w[1], value);
            }
        } else if (keyword == "end_header") {
            break;
        }
    }
    if (!have_format) throw std::runtime_error(path + ": the PLY header names no format");
    for (PlyElement& e : m_elements) {
        std::size_t bytes = 0;
        bool lists = false;
        for (PlyProperty& p : e.properties) {
            lists = lists || p.list;
            p.offset = bytes;
            bytes += static_cast<std::size_t>(p.size);
        }
        e.record_bytes = lists ? 0 : bytes;
    }
    // Every record of an element with properties takes at least a byte (two in ASCII): a header that
    // promises more records than the file can hold is damaged, and nothing is sized after it.
    const double body = static_cast<double>(size) - static_cast<double>(header_bytes);
    double records = 0;
    for (const PlyElement& e : m_elements) {
        // Records without properties take no bytes at all: skipping 2^40 of them would never end.
        if (e.properties.empty()) {
            if (e.count > 0)
                throw std::runtime_error(path + ": the element " + e.name + " has " + std::to_string(e.count) +
                                         " records but no properties");
            continue;
        }
        records += static_cast<double>(e.count) * (m_format == Format::Ascii ? 2.0 : 1.0);
        if (records > body + 1)
            throw std::runtime_error(path + ": truncated data (the header promises " + std::to_string(e.count) + " " +
                                     e.name + " records, more than the file holds)");
    }
    ++m_line;  // the body's first line
    m_in_body = true;
    if (m_eof) closeAsciiBody();
}

PlyReader::~PlyReader() {
    if (m_fd >= 0) close(m_fd);
}

const PlyElement* PlyReader::find(const std::string& name) const {
    for (const PlyElement& e : m_elements)
        if (e.name == name) return &e;
    return nullptr;
}

long PlyReader::objInfo(const std::string& key, long fallback) const {
    for (const auto& entry : m_obj_info)
        if (entry.first == key) return entry.second;
    return fallback;
}

std::size_t PlyReader::fill(std::size_t bytes) {
    // Never more than the file still holds: a small file gets a buffer of its own size.
    bytes = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, (m_end - m_begin) + m_unread));
    if (m_end - m_begin >= bytes || m_eof) {
        if (!m_eof && m_unread == 0) {
            m_eof = true;
            if (m_in_body) closeAsciiBody();
        }
        return m_end - m_begin;
    }
    readAtLeast(m_fd, m_path, bytes, m_buffer, m_capacity, m_begin, m_end, m_unread);
    if (m_end < bytes || m_unread == 0) {
        m_eof = true;
        if (m_in_body) closeAsciiBody();
    }
    return m_end - m_begin;
}

void PlyReader::keepPieceBuffer() {
    if (m_spare_capacity < m_capacity) {
        m_spare = largeBuffer(m_capacity);
        m_spare_capacity = m_capacity;
    }
    if (m_end > m_begin) std::memcpy(m_spare.get(), m_buffer.get() + m_begin, m_end - m_begin);
    std::swap(m_buffer, m_spare);
    std::swap(m_capacity, m_spare_capacity);
    m_end -= m_begin;
    m_begin = 0;
}

void PlyReader::closeAsciiBody() {
    if (m_format != Format::Ascii || (m_end > m_begin && m_buffer[m_end - 1] == '\n')) return;
    if (m_end + 1 > m_capacity) {
        std::unique_ptr<char[]> larger(new char[m_end - m_begin + 1]);
        if (m_end > m_begin) std::memcpy(larger.get(), m_buffer.get() + m_begin, m_end - m_begin);
        m_buffer = std::move(larger);
        m_end -= m_begin;
        m_begin = 0;
        m_capacity = m_end + 1;
    }
    m_buffer[m_end++] = '\n';
}

void PlyReader::truncated(const PlyElement& element, long record) const {
    throw std::runtime_error(m_path + ": truncated data (" + element.name + " " + std::to_string(record) + " of " +
                             std::to_string(element.count) + ")");
}

void PlyReader::lineError(long line, const std::string& text) const {
    throw std::runtime_error(m_path + ": line " + std::to_string(line) + ": " + text);
}

void PlyReader::begin(const PlyElement& element) {
    const std::size_t index = static_cast<std::size_t>(&element - m_elements.data());
    if (index >= m_elements.size() || index < m_current || (index == m_current && m_record != 0))
        throw std::logic_error("PLY elements read out of order");
    while (m_current < index) {
        const PlyElement& skipped = m_elements[m_current];
        if (m_format != Format::Ascii && skipped.record_bytes > 0) {
            // Fixed records: passed over without decoding.
            for (long left = skipped.count; left > 0;) {
                const std::size_t want = static_cast<std::size_t>(std::min<long>(
                    left, static_cast<long>(std::max<std::size_t>(1, m_piece_bytes / skipped.record_bytes))));
                const std::size_t n = std::min(want, fill(want * skipped.record_bytes) / skipped.record_bytes);
                if (n == 0) truncated(skipped, skipped.count - left);
                m_begin += n * skipped.record_bytes;
                left -= static_cast<long>(n);
            }
            endElement();
        } else {
            readRecords(skipped, [](long, const PlyRecord&) {});
        }
    }
}

std::size_t PlyReader::nextPiece(const PlyElement& element, Piece& piece) {
    piece.records = 0;
    if (m_record >= element.count) {
        endElement();
        return 0;
    }
    const long remaining = element.count - m_record;
    if (m_format != Format::Ascii) {
        const std::size_t bytes = element.record_bytes;
        const std::size_t want = static_cast<std::size_t>(
            std::min<long>(remaining, static_cast<long>(std::max<std::size_t>(1, m_piece_bytes / bytes))));
        const std::size_t n = std::min(want, fill(want * bytes) / bytes);
        if (n == 0) truncated(element, m_record);
        piece.records = n;
        piece.data = m_buffer.get() + m_begin;
        return n;
    }
    // ASCII: the whole lines in the buffer, as many as the element still has, blank lines passed over.
    for (std::size_t want = m_piece_bytes;; want += m_piece_bytes) {
        const std::size_t available = fill(want);
        piece.lines.clear();
        piece.line_numbers.clear();
        const char* p = m_buffer.get() + m_begin;
        const char* const end = p + available;
        long line = m_line;
        while (piece.lines.size() < static_cast<std::size_t>(remaining) && p < end) {
            const char* newline = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
            if (newline == nullptr) break;
            if (*skipSpaces(p) != '\n') {
                piece.lines.push_back(p);
                piece.line_numbers.push_back(line);
            }
            ++line;
            p = newline + 1;
        }
        if (!piece.lines.empty()) {
            piece.records = piece.lines.size();
            piece.data = p;  // where the piece ends
            piece.limit = m_buffer.get() + m_end;
            piece.line_numbers.push_back(line);
            return piece.records;
        }
        if (m_eof) truncated(element, m_record);
    }
}

void PlyReader::donePiece(const PlyElement& element, const Piece& piece) {
    if (m_format != Format::Ascii) {
        m_begin += piece.records * element.record_bytes;
    } else {
        m_begin = static_cast<std::size_t>(piece.data - m_buffer.get());
        m_line = piece.line_numbers.back();
    }
    m_record += static_cast<long>(piece.records);
}

void PlyReader::decodeRecord(const PlyElement& element, const char* data, const int* columns, std::size_t count,
                             double* values) const {
    const bool big = m_format == Format::BinaryBig;
    for (std::size_t k = 0; k < count; ++k) {
        const PlyProperty& p = element.properties[static_cast<std::size_t>(columns[k])];
        values[k] = decode(data + p.offset, p.size, p.kind, big);
    }
}

namespace {

constexpr double POWERS_OF_TEN[16] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// Eight characters from p, the first in the lowest byte.
inline std::uint64_t eightAt(const char* p) {
    std::uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// How many of the eight characters in `chars` are digits before the first that is not.
inline int leadingDigits(std::uint64_t chars) {
    const std::uint64_t x = chars ^ 0x3030303030303030u;  // a digit's byte: 0 to 9
    const std::uint64_t high = x & 0xF0F0F0F0F0F0F0F0u;
    const std::uint64_t low_over_nine = ((x & 0x0F0F0F0F0F0F0F0Fu) + 0x0606060606060606u) & 0xF0F0F0F0F0F0F0F0u;
    const std::uint64_t other = high | low_over_nine;
    return other == 0 ? 8 : __builtin_ctzll(other) / 8;
}

// The value of the first `count` (1 to 8) digits in `chars`.
inline std::uint64_t valueOfDigits(std::uint64_t chars, int count) {
    std::uint64_t v = (chars & 0x0F0F0F0F0F0F0F0Fu) << (8 * (8 - count));  // leading zeros before them
    v = (v * 10 + (v >> 8)) & 0x00FF00FF00FF00FFu;
    v = (v * 100 + (v >> 16)) & 0x0000FFFF0000FFFFu;
    return (v * 10000 + (v >> 32)) & 0xFFFFFFFFu;
}

constexpr std::uint64_t POWERS_OF_TEN_WHOLE[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};

// Adds the digits from p on to `whole`, eight at a time, counting them, until one is not a digit or more
// than 15 are counted; p moves past them.
inline void digitsInto(const char*& p, std::uint64_t& whole, int& count) {
    while (true) {
        const std::uint64_t chars = eightAt(p);
        const int n = leadingDigits(chars);
        if (n > 0) {
            whole = whole * POWERS_OF_TEN_WHOLE[n] + valueOfDigits(chars, n);
            p += n;
            count += n;
        }
        if (n < 8 || count > 15) return;
    }
}

// The decimal of `digits` (at most 15 of them, a double exactly) with `after_point` of them after the point:
// their quotient by the power of ten, which is a double exactly too, so the value is rounded once, as
// strtod rounds it. The sign is set without a branch: half the numbers of a scan's file are negative.
inline double decimal(std::uint64_t digits, unsigned after_point, bool minus) {
    const double magnitude = static_cast<double>(digits) / POWERS_OF_TEN[after_point];
    std::uint64_t bits;
    std::memcpy(&bits, &magnitude, sizeof bits);
    bits |= static_cast<std::uint64_t>(minus) << 63;
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// Runs `read` on the characters at p with at least 32 of them readable: where fewer lie before `limit`, on a
// copy of them padded with zeros (a zero ends any number); gives where it stopped, in the buffer, or null.
template <typename Read>
inline const char* readPadded(const char* p, const char* limit, Read read) {
    if (limit - p >= 32) return read(p);
    char copy[32] = {};
    std::memcpy(copy, p, static_cast<std::size_t>(limit - p));
    const char* end = read(static_cast<const char*>(copy));
    return end == nullptr ? nullptr : p + (end - copy);
}

// A number of up to 15 digits, a point among them or none, at p (no spaces before it), read eight
// characters at a time (no further than 25): the digits are a double exactly, as is the power of ten below
// them, and their quotient is the value rounded once, the one from_chars gives. Gives where it ends; null
// for a number of any other form.
__attribute__((always_inline)) inline const char* shortNumber(const char* p, double& value) {
    const bool minus = *p == '-';
    const char* d = p + (static_cast<int>(minus) | static_cast<int>(*p == '+'));  // no branch on the sign
    std::uint64_t whole = 0;
    int count = 0;
    digitsInto(d, whole, count);
    if (count == 0 || count > 15) return nullptr;
    int after_point = 0;
    if (*d == '.') {
        const int before = count;
        ++d;
        digitsInto(d, whole, count);
        after_point = count - before;
        if (after_point == 0) return nullptr;
    }
    if (count > 15 || !(*d == '\n' || isSpace(*d))) return nullptr;
    value = decimal(whole, static_cast<unsigned>(after_point), minus);
    return d;
}

// A number at p (no spaces before it) of any form strtod reads, up to the next space or the line's end;
// null when it is not one.
const char* anyNumber(const char* p, double& value) {
    const char* end = p;
    while (*end != '\n' && !isSpace(*end)) ++end;
    const char* start = *p == '+' ? p + 1 : p;        // as strtod takes it
    if (start != p && *start == '-') return nullptr;  // one sign at most
    const std::from_chars_result r = std::from_chars(start, end, value);
    if (r.ec == std::errc::result_out_of_range && r.ptr == end) {
        // Beyond a double's range: as strtod gives it, infinity or zero with the sign.
        value = std::strtod(std::string(p, end).c_str(), nullptr);
    } else if (r.ec != std::errc() || r.ptr != end) {
        return nullptr;
    }
    return end;
}

// Reads one number at `p` (no spaces before it); null when it is not a number. Most (a range grid's counts
// and indices, faces' lists, coordinates written as text) are short. `limit` is the end of the characters
// that may be read past the line.
inline const char* number(const char* p, double& value, const char* limit) {
    const char* end = readPadded(p, limit, [&](const char* q) { return shortNumber(q, value); });
    return end != nullptr ? end : anyNumber(p, value);
}

#if defined(__SSE2__)
// The line of the common form, `properties` numbers of 1 to 8 digits, then a point and 1 to 8 more or none
// (15 digits at most), each after a minus or none, spaces between: read sixteen characters at a time, each
// number from one look at them (where its digits, point and end lie), into the same values as the numbers
// one by one. False for a line of any other form (or too near `limit`), which the general reading then takes.
__attribute__((always_inline)) inline bool plainLine(const char* p, const char* limit, std::size_t properties,
                                                     double* values) {
    p = skipSpaces(p);
    for (std::size_t k = 0;; ++k) {
        if (limit - p < 40) return false;
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i d = _mm_sub_epi8(x, _mm_set1_epi8('0'));
        const __m128i c = _mm_sub_epi8(x, _mm_set1_epi8('\t'));  // \t \n \v \f \r: 0 to 4
        const __m128i newline_at = _mm_cmpeq_epi8(x, _mm_set1_epi8('\n'));
        const __m128i space_at =
            _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(' ')),
                         _mm_andnot_si128(newline_at, _mm_cmpeq_epi8(_mm_min_epu8(c, _mm_set1_epi8(4)), c)));
        const unsigned digits =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(d, _mm_set1_epi8(9)), d)));
        const unsigned spaces = static_cast<unsigned>(_mm_movemask_epi8(space_at));
        const unsigned newline = static_cast<unsigned>(_mm_movemask_epi8(newline_at));
        const unsigned minus = static_cast<unsigned>(*p == '-');
        const unsigned whole_digits = static_cast<unsigned>(__builtin_ctz(~(digits >> minus)));
        if (whole_digits - 1 >= 8) return false;
        const unsigned point = minus + whole_digits;
        std::uint64_t whole = valueOfDigits(eightAt(p + minus), static_cast<int>(whole_digits));
        unsigned after_point = 0, end = point;
        if (p[point] == '.') {
            after_point = static_cast<unsigned>(__builtin_ctz(~(digits >> (point + 1))));
            if (after_point - 1 >= 8 || whole_digits + after_point > 15) return false;
            whole = whole * POWERS_OF_TEN_WHOLE[after_point] +
                    valueOfDigits(eightAt(p + point + 1), static_cast<int>(after_point));
            end = point + 1 + after_point;
        }
        values[k] = decimal(whole, after_point, minus);
        // Past the spaces after it (those within the sixteen characters: a longer gap is for the general
        // reading), to the next number or the line's end.
        const unsigned next = end + static_cast<unsigned>(__builtin_ctz(~(spaces >> end)));
        if ((newline >> next) & 1) return k + 1 == properties;
        if (next == end || k + 1 == properties) return false;
        p += next;
    }
}
#endif

std::string tokenAt(const char* p) {
    p = skipSpaces(p);
    const char* end = p;
    while (*end != '\n' && !isSpace(*end) && end - p < 40) ++end;
    return std::string(p, end);
}

}  // namespace

void PlyReader::parseLine(const PlyElement& element, const char* line, long number_in_file, const char* limit,
                          const int* columns, std::size_t count, double* values) const {
    // Every value of the line is read, so that a line of too many or too few values is found.
    const std::size_t properties = element.properties.size();
    double scratch[64];
#if defined(__SSE2__)
    if (properties <= 64 && plainLine(line, limit, properties, scratch)) {
        for (std::size_t k = 0; k < count; ++k) values[k] = scratch[columns[k]];
        return;
    }
#endif
    std::vector<double> many;
    double* all = scratch;
    if (properties > 64) {
        many.resize(properties);
        all = many.data();
    }
    const char* p = line;
    std::size_t found = 0;
    for (; found < properties; ++found) {
        p = skipSpaces(p);
        if (*p == '\n') break;
        const char* next = number(p, all[found], limit);
        if (next == nullptr) lineError(number_in_file, "'" + tokenAt(p) + "' is not a number");
        p = next;
    }
    if (found < properties || *skipSpaces(p) != '\n') {
        std::size_t values_on_line = found;
        while (*(p = skipSpaces(p)) != '\n') {
            while (*p != '\n' && !isSpace(*p)) ++p;
            ++values_on_line;
        }
        lineError(number_in_file, std::to_string(values_on_line) + " values where a " + element.name + " record has " +
                                      std::to_string(properties));
    }
    for (std::size_t k = 0; k < count; ++k) values[k] = all[columns[k]];
}

void PlyReader::readRecordBinary(const PlyElement& element, PlyRecord& record, long index) {
    const bool big = m_format == Format::BinaryBig;
    const auto take = [&](int size, char kind) {
        if (fill(static_cast<std::size_t>(size)) < static_cast<std::size_t>(size)) truncated(element, index);
        const double value = decode(m_buffer.get() + m_begin, size, kind, big);
        m_begin += static_cast<std::size_t>(size);
        return value;
    };
    for (std::size_t i = 0; i < element.properties.size(); ++i) {
        const PlyProperty& p = element.properties[i];
        if (!p.list) {
            record.scalars[i] = take(p.size, p.kind);
            continue;
        }
        const double length = take(p.count_size, p.count_kind);
        if (!(length >= 0 && length <= MAX_LIST_LENGTH))
            throw std::runtime_error(m_path + ": bad list length in " + element.name + " " + std::to_string(index));
        std::vector<double>& list = record.lists[i];
        list.resize(static_cast<std::size_t>(length));
        const std::size_t bytes = list.size() * static_cast<std::size_t>(p.size);
        if (fill(bytes) < bytes) truncated(element, index);
        for (std::size_t k = 0; k < list.size(); ++k)
            list[k] = decode(m_buffer.get() + m_begin + k * static_cast<std::size_t>(p.size), p.size, p.kind, big);
        m_begin += bytes;
    }
}

namespace {

// A whole number of 1 to 15 digits at p, before `end`, into `value`; p moves past it. False otherwise.
bool wholeNumber(const char*& p, const char* end, double& value) {
    std::uint64_t whole = 0;
    int count = 0;
    const char* after = readPadded(p, end, [&](const char* q) {
        digitsInto(q, whole, count);
        return q;
    });
    if (count == 0 || count > 15) return false;
    p = after;
    value = static_cast<double>(whole);
    return true;
}

}  // namespace

bool PlyReader::readWholeNumberList(std::vector<double>& list) {
    const char* const end = m_buffer.get() + m_end;
    const char* p = m_buffer.get() + m_begin;
    const auto spaces = [&] {
        while (p != end && isSpace(*p)) ++p;
    };
    // A number ends where a space or the line's end follows it.
    const auto next = [&](double& value) {
        spaces();
        return wholeNumber(p, end, value) && p != end && (*p == '\n' || isSpace(*p));
    };
    double length = 0;
    if (!next(length) || length > MAX_LIST_LENGTH) return false;
    list.resize(static_cast<std::size_t>(length));
    for (double& value : list)
        if (!next(value)) return false;
    spaces();
    if (p == end || *p != '\n') return false;
    m_begin = static_cast<std::size_t>(p + 1 - m_buffer.get());
    ++m_line;
    return true;
}

void PlyReader::readRecordAscii(const PlyElement& element, PlyRecord& record) {
    // The next line that is not blank, whole in the buffer.
    const char* line = nullptr;
    long line_number = 0;
    while (line == nullptr) {
        const char* start = m_buffer.get() + m_begin;
        const char* newline = static_cast<const char*>(std::memchr(start, '\n', m_end - m_begin));
        if (newline == nullptr) {
            if (m_eof) truncated(element, m_record);
            fill(m_end - m_begin + m_piece_bytes);
            continue;
        }
        line_number = m_line++;
        m_begin = static_cast<std::size_t>(newline + 1 - m_buffer.get());
        if (*skipSpaces(start) != '\n') line = start;
    }
    const char* p = line;
    const auto next = [&](double& value, const std::string& what) {
        p = skipSpaces(p);
        if (*p == '\n') lineError(line_number, "the " + element.name + " record ends before its " + what);
        const char* after = number(p, value, m_buffer.get() + m_end);
        if (after == nullptr) lineError(line_number, "'" + tokenAt(p) + "' is not a number");
        p = after;
    };
    for (std::size_t i = 0; i < element.properties.size(); ++i) {
        const PlyProperty& prop = element.properties[i];
        if (!prop.list) {
            next(record.scalars[i], prop.name);
            continue;
        }
        double length = 0;
        next(length, prop.name);
        if (!(length >= 0 && length <= MAX_LIST_LENGTH) || length != std::floor(length))
            throw std::runtime_error(m_path + ": bad list length in " + element.name + " " + std::to_string(m_record));
        std::vector<double>& list = record.lists[i];
        list.resize(static_cast<std::size_t>(length));
        for (double& value : list) next(value, prop.name);
    }
    if (*skipSpaces(p) != '\n') lineError(line_number, "more values than a " + element.name + " record has");
}

}  // namespace tessaline_tools
