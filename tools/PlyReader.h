// One PLY reader for every file the command-line program reads: point clouds, range images and meshes,
// in ASCII or binary of either byte order. The header is parsed on opening; the body is then read element
// by element in header order, a large piece at a time: binary records are decoded and ASCII lines parsed
// on all cores, and each ASCII record must be one line holding exactly the values its properties ask for.
#pragma once

#include <omp.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tessaline_tools {

struct PlyProperty {
    std::string name;
    int size = 0;       // bytes of a value in binary files
    char kind = 'f';    // 'i' signed, 'u' unsigned, 'f' floating
    bool list = false;  // a list: `count_size`/`count_kind` give the type of its length
    int count_size = 0;
    char count_kind = 'u';
    std::size_t offset = 0;  // binary: where the value lies in a record of an element without lists
};

struct PlyElement {
    std::string name;
    long count = 0;
    std::vector<PlyProperty> properties;
    // Bytes of one binary record when the element has no lists (0 when it has).
    std::size_t record_bytes = 0;

    // Index of the property called `name`, or -1.
    int find(const std::string& name) const;
};

// One record of an element read whole: scalars[i] holds property i when it is a scalar, lists[i] when a list.
struct PlyRecord {
    std::vector<double> scalars;
    std::vector<std::vector<double>> lists;
};

// Throws "PATH: not a regular file" for a path that names a device, a pipe or a folder: such a file
// could feed a reader without end. A path that does not exist passes, for the reader's own text.
void refuseIrregularFile(const std::string& path);
// Asks the kernel to back the whole pages of [data, data + bytes) with huge pages where it holds 4 MB or
// more (before they are first touched): filling them then takes a few page faults, not one every 4 KB.
void adviseHugePages(const void* data, std::size_t bytes);

// The buffered reads of the readers: the unread bytes [begin, end) moved to the front of the buffer (a
// larger one when `bytes` do not fit, always with a byte to spare), then read from `fd` until `bytes` are
// there or the file ends; `unread` counts what the file still holds.
void readAtLeast(int fd, const std::string& path, std::size_t bytes, std::unique_ptr<char[]>& buffer,
                 std::size_t& capacity, std::size_t& begin, std::size_t& end, std::uint64_t& unread);

class PlyReader {
public:
    // Bytes of the body held at a time (two such buffers while text is parsed): a few MB, so that a piece
    // is still in the processor's cache when its records are decoded after their reading.
    static constexpr std::size_t PIECE_BYTES = std::size_t(4) << 20;

    // Opens `path` and reads its header. Throws std::runtime_error naming the file and the problem.
    // `piece_bytes`: how much of the body is read and parsed at a time.
    explicit PlyReader(const std::string& path, std::size_t piece_bytes = PIECE_BYTES);
    ~PlyReader();
    PlyReader(const PlyReader&) = delete;
    PlyReader& operator=(const PlyReader&) = delete;

    const std::vector<PlyElement>& elements() const { return m_elements; }
    // The element called `name`, or null.
    const PlyElement* find(const std::string& name) const;
    // The number after `obj_info KEY`, or `fallback`.
    long objInfo(const std::string& key, long fallback) const;
    const std::string& path() const { return m_path; }

    // Reads every record of `element`, whose properties must all be scalars, and calls
    // sink(record, values) for each, values[k] holding property columns[k] as a double. Large elements
    // are read on all cores: the sink is then called from several threads at once, each record once.
    // Elements are read in header order, each once; the ones before `element` are skipped. Throws
    // std::runtime_error naming the file (and for ASCII the line) on a record that cannot be read; of
    // several, the first in the file; an exception of the sink comes out likewise.
    template <class Sink>
    void readScalars(const PlyElement& element, const std::vector<int>& columns, Sink&& sink);

    // readScalars a piece at a time: start(first, count) on the calling thread before the records [first,
    // first + count) go to the sink, done(first, count) once they all have; memory for a piece's records
    // suffices however large the element.
    template <class Start, class Sink, class Done>
    void readScalarPieces(const PlyElement& element, const std::vector<int>& columns, Start&& start, Sink&& sink,
                          Done&& done);

    // Reads every record of `element` in order on the calling thread and calls sink(record, PlyRecord).
    template <class Sink>
    void readRecords(const PlyElement& element, Sink&& sink);

    // The records of `element` as they lie in a binary little-endian file, a piece at a time on the calling
    // thread: sink(first, count, data) for `count` whole records of element.record_bytes bytes from
    // `data`, in file order. False, with nothing read, for an ASCII or big-endian file or an element with
    // lists, which readScalars reads.
    template <class Sink>
    bool readLittleEndianPieces(const PlyElement& element, Sink&& sink);

private:
    // Records decoded together before they go to the sink.
    static constexpr std::size_t BLOCK_RECORDS = 128;
    void endElement() {
        ++m_current;
        m_record = 0;
    }
    enum class Format { Ascii, BinaryLittle, BinaryBig };
    // A piece of whole records of the element being read, in the buffer.
    struct Piece {
        std::size_t records = 0;
        const char* data = nullptr;      // binary: the first record
        std::vector<const char*> lines;  // ASCII: where each record's line starts
        std::vector<long> line_numbers;  // ASCII: their lines in the file
        const char* limit = nullptr;     // ASCII: the end of what may be read past a line
    };

    // Moves to `element`, skipping the elements before it; refuses an element read twice or out of order.
    void begin(const PlyElement& element);
    // The next records of the current element that the buffer holds whole (at least one); 0 when all are read.
    std::size_t nextPiece(const PlyElement& element, Piece& piece);
    // Moves the unread bytes into a buffer of their own, so that the one holding the piece just handed out
    // stays as it is while the next piece is read (the two take turns).
    void keepPieceBuffer();
    // At the end of the file the last line of an ASCII body gets its line end, like every other line.
    void closeAsciiBody();
    void donePiece(const PlyElement& element, const Piece& piece);
    // Makes at least `bytes` bytes available from the read position unless the file ends before; returns
    // how many are.
    void readHeader(std::size_t size);
    std::size_t fill(std::size_t bytes);
    [[noreturn]] void truncated(const PlyElement& element, long record) const;
    [[noreturn]] void lineError(long line, const std::string& text) const;
    void decodeRecord(const PlyElement& element, const char* data, const int* columns, std::size_t count,
                      double* values) const;
    // `limit`: the end of the characters that may be read past the line.
    void parseLine(const PlyElement& element, const char* line, long number, const char* limit, const int* columns,
                   std::size_t count, double* values) const;
    void readRecordBinary(const PlyElement& element, PlyRecord& record, long index);
    void readRecordAscii(const PlyElement& element, PlyRecord& record);
    // The next line as the list of a record whose one property is a list, where it reads "n v1 ... vn" in
    // whole numbers of up to 15 digits (a range grid's pixels, a mesh's faces), read as readRecordAscii
    // reads them; false, with nothing read, for any other line (signs, fractions, blank) or one that the
    // buffer does not hold whole.
    bool readWholeNumberList(std::vector<double>& list);

    std::string m_path;
    std::size_t m_piece_bytes = PIECE_BYTES;
    int m_fd = -1;
    Format m_format = Format::Ascii;
    std::vector<PlyElement> m_elements;
    std::vector<std::pair<std::string, long>> m_obj_info;
    std::size_t m_current = 0;         // the element being read
    long m_record = 0;                 // records of it read so far
    std::unique_ptr<char[]> m_buffer;  // not zeroed: only what the file gives is read
    std::size_t m_capacity = 0;
    std::unique_ptr<char[]> m_spare;  // the buffer of the piece being parsed, or the next one's
    std::size_t m_spare_capacity = 0;
    std::size_t m_begin = 0, m_end = 0;  // the unread bytes in the buffer
    std::uint64_t m_unread = 0;          // bytes of the file not yet in the buffer
    bool m_eof = false;
    bool m_in_body = false;
    long m_line = 0;  // ASCII: the line that starts at m_begin
};

// A little-endian value of four bytes of `kind` ('f', 'i' or 'u'), as decodeRecord reads it.
inline double decodeFour(const char* bytes, char kind) {
    if (kind == 'f') {
        float f;
        std::memcpy(&f, bytes, 4);
        return f;
    }
    std::uint32_t v;
    std::memcpy(&v, bytes, 4);
    return kind == 'i' ? static_cast<double>(static_cast<std::int32_t>(v)) : static_cast<double>(v);
}

template <class Sink>
void PlyReader::readScalars(const PlyElement& element, const std::vector<int>& columns, Sink&& sink) {
    readScalarPieces(
        element, columns, [](long, long) {}, sink, [](long, long) {});
}

template <class Start, class Sink, class Done>
void PlyReader::readScalarPieces(const PlyElement& element, const std::vector<int>& columns, Start&& start, Sink&& sink,
                                 Done&& done) {
    bool lists = false;
    for (const PlyProperty& p : element.properties) lists = lists || p.list;
    if (lists) {  // records of varying length: one after the other
        std::vector<double> values(columns.size());
        readRecords(element, [&](long r, const PlyRecord& record) {
            for (std::size_t k = 0; k < columns.size(); ++k)
                values[k] = record.scalars[static_cast<std::size_t>(columns[k])];
            start(r, 1L);
            sink(r, static_cast<const double*>(values.data()));
            done(r, 1L);
        });
        return;
    }
    // Little-endian values of four bytes (most binary point clouds: floats and a word), each read from its
    // place without the general decoder's steps.
    std::vector<std::pair<std::size_t, char>> four_at;
    if (m_format == Format::BinaryLittle) {
        for (const int c : columns) {
            const PlyProperty& p = element.properties[static_cast<std::size_t>(c)];
            if (p.size != 4) break;
            four_at.emplace_back(p.offset, p.kind);
        }
        if (four_at.size() != columns.size()) four_at.clear();
    }
    begin(element);
    // Text: while a piece's lines are parsed, one thread first makes the next piece (the file's next bytes
    // read into a buffer of their own, their lines found), then joins the others.
    const bool ahead = m_format == Format::Ascii;
    Piece pieces[2];
    std::size_t at = 0;  // the piece being parsed
    bool more = nextPiece(element, pieces[0]) > 0;
    while (more) {
        const Piece& piece = pieces[at];
        const long first = m_record;
        const std::int64_t n = static_cast<std::int64_t>(piece.records);
        start(first, static_cast<long>(n));
        // Of the failures the first in the file comes out: the lowest record's, then the next piece's.
        std::int64_t failed_at = n;
        std::exception_ptr failure, next_failure;
        bool next_made = false;
        const auto makeNext = [&] {
            try {
                donePiece(element, piece);
                if (m_record < element.count) keepPieceBuffer();  // more of its lines to come
                next_made = nextPiece(element, pieces[1 - at]) > 0;
            } catch (...) {
                next_failure = std::current_exception();
            }
        };
        // Each thread's values of a block of records, allocated before the team: nothing there can fail but
        // a record. A block's records are all decoded before the first goes to the sink, so that the
        // processor works on several at once (a text record's last numbers are not waited for).
        const std::size_t block_values = columns.size() * BLOCK_RECORDS;
        std::vector<double> all_values(block_values * static_cast<std::size_t>(omp_get_max_threads()));
        const std::int64_t blocks =
            (n + static_cast<std::int64_t>(BLOCK_RECORDS) - 1) / static_cast<std::int64_t>(BLOCK_RECORDS);
#pragma omp parallel if (n >= 8192)
        {
            if (ahead) {
#pragma omp single nowait
                makeNext();
            }
            double* const values = all_values.data() + block_values * static_cast<std::size_t>(omp_get_thread_num());
            const auto fail = [&](std::int64_t i) {
#pragma omp critical(tessaline_ply_failure)
                if (i < failed_at) {
                    failed_at = i;
                    failure = std::current_exception();
                }
            };
#pragma omp for schedule(dynamic, 2048 / BLOCK_RECORDS)
            for (std::int64_t b = 0; b < blocks; ++b) {
                const std::int64_t from = b * static_cast<std::int64_t>(BLOCK_RECORDS);
                const std::int64_t to = std::min(n, from + static_cast<std::int64_t>(BLOCK_RECORDS));
                std::int64_t decoded = to;  // the records before it are decoded
                for (std::int64_t i = from; i < to; ++i) {
                    try {
                        const std::size_t r = static_cast<std::size_t>(i);
                        double* const v = values + columns.size() * static_cast<std::size_t>(i - from);
                        if (m_format == Format::Ascii) {
                            parseLine(element, piece.lines[r], piece.line_numbers[r], piece.limit, columns.data(),
                                      columns.size(), v);
                        } else if (!four_at.empty()) {
                            const char* data = piece.data + r * element.record_bytes;
                            for (std::size_t k = 0; k < four_at.size(); ++k)
                                v[k] = decodeFour(data + four_at[k].first, four_at[k].second);
                        } else {
                            decodeRecord(element, piece.data + r * element.record_bytes, columns.data(), columns.size(),
                                         v);
                        }
                    } catch (...) {
                        fail(i);  // the records after it are of no use: the reading fails
                        decoded = i;
                        break;
                    }
                }
                for (std::int64_t i = from; i < decoded; ++i) {
                    try {
                        sink(first + static_cast<long>(i),
                             static_cast<const double*>(values + columns.size() * static_cast<std::size_t>(i - from)));
                    } catch (...) {
                        fail(i);
                        break;
                    }
                }
            }
        }
        if (failure) std::rethrow_exception(failure);
        done(first, static_cast<long>(n));
        if (ahead) {
            if (next_failure) std::rethrow_exception(next_failure);
            more = next_made;
            at = 1 - at;
        } else {
            donePiece(element, pieces[at]);
            more = nextPiece(element, pieces[at]) > 0;
        }
    }
    // The element is read: the buffer its pieces took turns with is not needed for what follows.
    m_spare.reset();
    m_spare_capacity = 0;
}

template <class Sink>
bool PlyReader::readLittleEndianPieces(const PlyElement& element, Sink&& sink) {
    if (m_format != Format::BinaryLittle) return false;
    for (const PlyProperty& p : element.properties)
        if (p.list) return false;
    begin(element);
    Piece piece;
    while (nextPiece(element, piece) > 0) {
        sink(m_record, piece.records, static_cast<const char*>(piece.data));
        donePiece(element, piece);
    }
    return true;
}

template <class Sink>
void PlyReader::readRecords(const PlyElement& element, Sink&& sink) {
    begin(element);
    PlyRecord record;
    record.scalars.resize(element.properties.size());
    record.lists.resize(element.properties.size());
    const bool one_list =
        m_format == Format::Ascii && element.properties.size() == 1 && element.properties.front().list;
    while (m_record < element.count) {
        if (one_list && readWholeNumberList(record.lists.front())) {
            // read straight from the line
        } else if (m_format == Format::Ascii) {
            readRecordAscii(element, record);
        } else {
            readRecordBinary(element, record, m_record);
        }
        sink(m_record, static_cast<const PlyRecord&>(record));
        ++m_record;
    }
    endElement();
}

}  // namespace tessaline_tools
