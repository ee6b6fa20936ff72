// PLY header parsing and record decoding.
#include "PlyReader.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace tessaline_tools {

namespace {

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

double decode(const unsigned char* bytes, int size, char kind, bool big_endian) {
    unsigned char b[8];
    for (int i = 0; i < size; ++i) b[i] = bytes[big_endian ? size - 1 - i : i];
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

// Lists longer than this are taken for a damaged file rather than allocated.
constexpr double MAX_LIST_LENGTH = 1 << 20;

}  // namespace

int PlyElement::find(const std::string& property) const {
    for (std::size_t i = 0; i < properties.size(); ++i)
        if (properties[i].name == property) return static_cast<int>(i);
    return -1;
}

void refuseIrregularFile(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode))
        throw std::runtime_error(path + ": not a regular file");
}

PlyReader::PlyReader(const std::string& path) : m_path(path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) throw std::runtime_error(path + ": cannot open the file");
    refuseIrregularFile(path);
    m_in.open(path, std::ios::binary);
    if (!m_in) throw std::runtime_error(path + ": cannot open the file");
    std::string line;
    if (!std::getline(m_in, line) || line.rfind("ply", 0) != 0) throw std::runtime_error(path + ": not a PLY file");
    bool have_format = false;
    while (true) {
        if (!std::getline(m_in, line)) throw std::runtime_error(path + ": the PLY header has no end_header");
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::istringstream words(line);
        std::string keyword;
        words >> keyword;
        if (keyword == "format") {
            std::string name;
            words >> name;
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
            if (!(words >> element.name >> element.count) || element.count < 0)
                throw std::runtime_error(path + ": bad element line '" + line + "'");
            if (find(element.name) != nullptr) throw std::runtime_error(path + ": two " + element.name + " elements");
            m_elements.push_back(element);
        } else if (keyword == "property") {
            if (m_elements.empty()) throw std::runtime_error(path + ": a property before any element");
            PlyProperty p;
            std::string type;
            words >> type;
            if (type == "list") {
                std::string count_type;
                words >> count_type >> type;
                if (!propertyType(count_type, p.count_size, p.count_kind) || p.count_kind == 'f')
                    throw std::runtime_error(path + ": bad list length type '" + count_type + "'");
                p.list = true;
            }
            if (!propertyType(type, p.size, p.kind))
                throw std::runtime_error(path + ": unknown property type '" + type + "'");
            if (!(words >> p.name)) throw std::runtime_error(path + ": a property without a name");
            m_elements.back().properties.push_back(p);
        } else if (keyword == "obj_info") {
            std::string key;
            long value = 0;
            if (words >> key >> value) m_obj_info.emplace_back(key, value);
        } else if (keyword == "end_header") {
            break;
        }
    }
    if (!have_format) throw std::runtime_error(path + ": the PLY header names no format");
    // Every record of an element with properties takes at least a byte (two in ASCII): a header that
    // promises more records than the file can hold is damaged, and nothing is sized after it.
    const double body = static_cast<double>(info.st_size) - static_cast<double>(m_in.tellg());
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

void PlyReader::truncated(const PlyElement& element) const {
    throw std::runtime_error(m_path + ": truncated data (" + element.name + " " + std::to_string(m_record) + " of " +
                             std::to_string(element.count) + ")");
}

double PlyReader::readValue(int size, char kind, const PlyElement& element) {
    if (m_format == Format::Ascii) {
        std::string token;
        if (!(m_in >> token)) truncated(element);
        char* end = nullptr;
        const double value = std::strtod(token.c_str(), &end);  // accepts nan and inf
        if (end == token.c_str()) throw std::runtime_error(m_path + ": '" + token + "' is not a number");
        return value;
    }
    unsigned char bytes[8];
    if (!m_in.read(reinterpret_cast<char*>(bytes), size)) truncated(element);
    return decode(bytes, size, kind, m_format == Format::BinaryBig);
}

void PlyReader::read(const PlyElement& element, PlyRecord& record) {
    const std::size_t index = static_cast<std::size_t>(&element - m_elements.data());
    if (index >= m_elements.size() || index < m_current) throw std::logic_error("PLY elements read out of order");
    skipTo(element);
    if (m_record >= element.count) throw std::logic_error("PLY element read past its end");
    const std::size_t n = element.properties.size();
    record.scalars.resize(n);
    record.lists.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        const PlyProperty& p = element.properties[i];
        if (!p.list) {
            record.scalars[i] = readValue(p.size, p.kind, element);
            continue;
        }
        const double length = readValue(p.count_size, p.count_kind, element);
        if (!(length >= 0 && length <= MAX_LIST_LENGTH))
            throw std::runtime_error(m_path + ": bad list length in " + element.name + " " + std::to_string(m_record));
        record.lists[i].resize(static_cast<std::size_t>(length));
        for (double& value : record.lists[i]) value = readValue(p.size, p.kind, element);
    }
    if (++m_record == element.count) {
        ++m_current;
        m_record = 0;
    }
}

void PlyReader::skipTo(const PlyElement& element) {
    const std::size_t index = static_cast<std::size_t>(&element - m_elements.data());
    PlyRecord scratch;
    while (m_current < index) {
        const PlyElement& skipped = m_elements[m_current];
        if (skipped.count == 0) {
            ++m_current;
            continue;
        }
        read(skipped, scratch);
    }
}

}  // namespace tessaline_tools
