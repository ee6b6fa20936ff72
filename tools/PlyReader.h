// One PLY reader for every file the command-line program reads: point clouds, range images and
// meshes, in ASCII or binary of either byte order. The header is parsed on opening; the elements are
// then read in the order the header lists them.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace tessaline_tools {

struct PlyProperty {
    std::string name;
    int size = 0;       // bytes of a value in binary files
    char kind = 'f';    // 'i' signed, 'u' unsigned, 'f' floating
    bool list = false;  // a list: `count_size`/`count_kind` give the type of its length
    int count_size = 0;
    char count_kind = 'u';
};

struct PlyElement {
    std::string name;
    long count = 0;
    std::vector<PlyProperty> properties;

    // Index of the property called `name`, or -1.
    int find(const std::string& name) const;
};

// One record of an element: scalars[i] holds property i when it is a scalar, lists[i] when a list.
struct PlyRecord {
    std::vector<double> scalars;
    std::vector<std::vector<double>> lists;
};

// Throws "PATH: not a regular file" for a path that names a device, a pipe or a folder: such a file
// could feed a reader without end. A path that does not exist passes, for the reader's own text.
void refuseIrregularFile(const std::string& path);

class PlyReader {
public:
    // Opens `path` and reads its header. Throws std::runtime_error naming the file and the problem.
    explicit PlyReader(const std::string& path);

    const std::vector<PlyElement>& elements() const { return m_elements; }
    // The element called `name`, or null.
    const PlyElement* find(const std::string& name) const;
    // The number after `obj_info KEY`, or `fallback`.
    long objInfo(const std::string& key, long fallback) const;

    // Reads the next record of the element `element`. Elements are read one after the other, in header
    // order, each to its end; `skipTo` passes over whole elements that are not wanted.
    void read(const PlyElement& element, PlyRecord& record);
    // Skips every element before `element`.
    void skipTo(const PlyElement& element);
    const std::string& path() const { return m_path; }

private:
    enum class Format { Ascii, BinaryLittle, BinaryBig };

    double readValue(int size, char kind, const PlyElement& element);
    [[noreturn]] void truncated(const PlyElement& element) const;

    std::string m_path;
    std::ifstream m_in;
    Format m_format = Format::Ascii;
    std::vector<PlyElement> m_elements;
    std::vector<std::pair<std::string, long>> m_obj_info;
    std::size_t m_current = 0;  // element being read
    long m_record = 0;          // records of it read so far
};

}  // namespace tessaline_tools
