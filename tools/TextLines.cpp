// A text file a piece of whole lines at a time, and the numbers of a line parsed with std::from_chars.
#include "TextLines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "PlyReader.h"

namespace tessaline_tools {

namespace {

// Bytes of lines handed out at a time.
constexpr std::size_t PIECE_BYTES = std::size_t(16) << 20;
// A header line longer than this is taken for a damaged or binary file.
constexpr std::size_t MAX_LINE_BYTES = std::size_t(1) << 20;

bool isSeparator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == ',' || c == '\f' || c == '\v'; }

const char* skipSeparators(const char* p) {
    while (isSeparator(*p)) ++p;
    return p;
}

}  // namespace

TextLines::TextLines(const std::string& path) : m_path(path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) throw std::runtime_error(path + ": cannot open the file");
    refuseIrregularFile(path);
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) throw std::runtime_error(path + ": cannot open the file");
    m_unread = static_cast<std::uint64_t>(info.st_size);
    m_size = m_unread;
}

TextLines::~TextLines() {
    if (m_fd >= 0) close(m_fd);
}

void TextLines::fail(long line, const std::string& text) const {
    throw std::runtime_error(m_path + ": line " + std::to_string(line) + ": " + text);
}

std::size_t TextLines::fill(std::size_t bytes) {
    bytes = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, (m_end - m_begin) + m_unread));
    if (m_end - m_begin >= bytes || m_eof) {
        if (!m_eof && m_unread == 0) {
            m_eof = true;
            closeLastLine();
        }
        return m_end - m_begin;
    }
    readAtLeast(m_fd, m_path, bytes, m_buffer, m_capacity, m_begin, m_end, m_unread);
    if (m_end < bytes || m_unread == 0) {
        m_eof = true;
        closeLastLine();
    }
    return m_end - m_begin;
}

void TextLines::closeLastLine() {
    if (m_end > m_begin && m_buffer[m_end - 1] == '\n') return;
    if (m_end == m_begin) return;  // nothing left: no line to close
    if (m_end + 1 > m_capacity) {
        std::unique_ptr<char[]> larger(new char[m_end - m_begin + 1]);
        std::memcpy(larger.get(), m_buffer.get() + m_begin, m_end - m_begin);
        m_buffer = std::move(larger);
        m_end -= m_begin;
        m_begin = 0;
        m_capacity = m_end + 1;
    }
    m_buffer[m_end++] = '\n';
    m_closed = true;
}

const char* TextLines::peekBytes(std::size_t bytes, std::size_t& available) {
    available = fill(bytes);
    if (m_closed) available = m_end > m_begin ? std::min(available, m_end - 1 - m_begin) : 0;  // not the line end added
    available = std::min(available, bytes);
    return m_buffer.get() + m_begin;
}

bool TextLines::nextLine(std::string& line) {
    for (;;) {
        const char* start = m_buffer.get() + m_begin;
        const void* end = m_end > m_begin ? std::memchr(start, '\n', m_end - m_begin) : nullptr;
        if (end != nullptr) {
            const std::size_t length = static_cast<std::size_t>(static_cast<const char*>(end) - start);
            line.assign(start, length);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            m_begin += length + 1;
            ++m_line;
            return true;
        }
        if (m_eof) return false;
        if (m_end - m_begin >= MAX_LINE_BYTES) fail(m_line + 1, "a line longer than 1 MiB (not a text file?)");
        fill(m_end - m_begin + 65536);
    }
}

std::size_t TextLines::nextLines(std::size_t max_lines, TextPiece& piece, bool comments) {
    piece.starts.clear();
    piece.numbers.clear();
    if (max_lines == 0) return 0;
    for (;;) {
        const std::size_t available = fill(PIECE_BYTES);
        const char* const start = m_buffer.get() + m_begin;
        const char* const end = start + available;
        const char* p = start;
        long line = m_line;
        while (piece.starts.size() < max_lines && p < end) {
            const char* newline = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
            if (newline == nullptr) break;
            ++line;
            const char* first = skipSeparators(p);
            const bool skip = *first == '\n' || (comments && (*first == '#' || (first[0] == '/' && first[1] == '/')));
            if (!skip) {
                piece.starts.push_back(p);
                piece.numbers.push_back(line);
            }
            p = newline + 1;
        }
        // Lines passed over (blank ones, comments) go with the piece.
        m_begin = static_cast<std::size_t>(p - m_buffer.get());
        m_line = line;
        if (!piece.starts.empty()) return piece.starts.size();
        if (m_eof) return 0;  // at the end every line has its line end: all are read
        if (p == start) fail(m_line + 1, "a line longer than 16 MiB (not a text file?)");
    }
}

std::size_t parseLine(const TextLines& lines, const char* line, long number, double* values, std::size_t max) {
    // std::from_chars reads each number straight up to the line's end and stops where it ends; what stops it
    // must be a separator, or the token is not a number.
    const char* const end = static_cast<const char*>(rawmemchr(line, '\n'));  // every line has its end
    std::size_t count = 0;
    const char* p = skipSeparators(line);
    while (p != end) {
        if (count < max) {
            const char* start = *p == '+' ? p + 1 : p;  // as strtod takes it
            const std::from_chars_result r = std::from_chars(start, end, values[count]);
            if (r.ptr != start && (r.ptr == end || isSeparator(*r.ptr)) &&
                (r.ec == std::errc() || r.ec == std::errc::result_out_of_range)) {
                if (r.ec == std::errc::result_out_of_range)  // beyond a double: infinity or zero, as strtod gives
                    values[count] = std::strtod(std::string(p, r.ptr).c_str(), nullptr);
                p = r.ptr;
            } else {
                const char* token_end = p;
                while (token_end != end && !isSeparator(*token_end)) ++token_end;
                lines.fail(number,
                           "'" + std::string(p, std::min<std::size_t>(40, token_end - p)) + "' is not a number");
            }
        } else {
            while (p != end && !isSeparator(*p)) ++p;
        }
        ++count;
        p = skipSeparators(p);
    }
    return count;
}

}  // namespace tessaline_tools
