// Text scan files (PTX, PTS and XYZ, PCD's ASCII body) read a piece at a time: header lines one by one,
// then many whole lines at once, whose numbers are parsed with std::from_chars on all cores. Every error
// names the file and, for a line, its number.
#pragma once

#include <omp.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace tessaline_tools {

// Whole lines of a text file, each ending in '\n' inside the reader's buffer.
struct TextPiece {
    std::vector<const char*> starts;
    std::vector<long> numbers;  // each line's number in the file, from 1
    std::size_t size() const { return starts.size(); }
};

class TextLines {
public:
    // Opens `path` (a regular file). Throws std::runtime_error "PATH: cannot open the file" and the like.
    explicit TextLines(const std::string& path);
    ~TextLines();
    TextLines(const TextLines&) = delete;
    TextLines& operator=(const TextLines&) = delete;

    const std::string& path() const { return m_path; }
    // Bytes of the file not yet handed out: what a count read from a header must fit in.
    std::uint64_t remainingBytes() const { return (m_end - m_begin) + m_unread; }
    std::uint64_t fileBytes() const { return m_size; }
    // The number of the line handed out last.
    long lineNumber() const { return m_line; }

    // The next line whole, blank or not, without its line end; false at the end of the file. The text
    // stays valid until the next call. A line beyond 1 MiB is refused.
    bool nextLine(std::string& line);
    // The next lines that are neither blank nor, with `comments`, comments ('#' or '//' first), as many of
    // `max_lines` as the next piece of the file holds (at least one unless the file ends). Their text stays
    // valid until the next call.
    std::size_t nextLines(std::size_t max_lines, TextPiece& piece, bool comments = false);

    // Binary data after the lines read: up to `bytes` of it in the buffer, from the returned pointer; how many
    // are there (fewer at the end of the file) goes to `available`. consume(n) passes over n of them.
    const char* peekBytes(std::size_t bytes, std::size_t& available);
    void consume(std::size_t bytes) { m_begin += bytes; }

    [[noreturn]] void fail(long line, const std::string& text) const;

private:
    std::size_t fill(std::size_t bytes);
    void closeLastLine();

    std::string m_path;
    int m_fd = -1;
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0, m_end = 0;  // the unread bytes in the buffer
    std::uint64_t m_unread = 0;          // bytes of the file not yet in the buffer
    std::uint64_t m_size = 0;
    bool m_eof = false;
    bool m_closed = false;  // a line end was added after the file's last byte
    long m_line = 0;
};

// The values of one line, separated by spaces, tabs or commas. Reads up to `max` numbers into `values`
// and returns how many values the line holds in all (those beyond `max` are counted, not read). Throws
// "PATH: line N: 'TOKEN' is not a number" through `lines` when one of the first `max` is not a number.
std::size_t parseLine(const TextLines& lines, const char* line, long number, double* values, std::size_t max);

// body(i) for every line of `piece` on all cores (a small piece on the calling thread); of several failures
// the one of the first line comes out, once all have run.
template <class Body>
void forEachLine(const TextPiece& piece, Body&& body) {
    const std::int64_t n = static_cast<std::int64_t>(piece.size());
    std::int64_t failed_at = n;
    std::exception_ptr failure;
#pragma omp parallel for schedule(static) if (n >= 8192)
    for (std::int64_t i = 0; i < n; ++i) {
        try {
            body(static_cast<std::size_t>(i));
        } catch (...) {
#pragma omp critical(tessaline_text_failure)
            if (i < failed_at) {
                failed_at = i;
                failure = std::current_exception();
            }
        }
    }
    if (failure) std::rethrow_exception(failure);
}

}  // namespace tessaline_tools
