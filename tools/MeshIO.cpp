// Mesh files: PLY, OBJ and STL read, finished meshes written with their words, normals and colours.
#include "MeshIO.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "OutputFile.h"
#include "PlyReader.h"

namespace tessaline_tools {

using Origin = std::array<double, 3>;

namespace {

// A vertex coordinate read as a double, scaled, the origin taken off.
float vertexCoordinate(double value, float scale, const Origin* origin, int axis) {
    if (origin == nullptr) return static_cast<float>(value) * scale;
    return static_cast<float>(value * scale - (*origin)[axis]);
}

}  // namespace

IndexedMesh readPlyMesh(const std::string& path, float scale, const Origin* origin) {
    PlyReader ply(path);
    const PlyElement* vertex = ply.find("vertex");
    if (vertex == nullptr) throw std::runtime_error(path + ": no vertex element");
    const std::vector<int> columns = {vertex->find("x"), vertex->find("y"), vertex->find("z")};
    if (columns[0] < 0 || columns[1] < 0 || columns[2] < 0) throw std::runtime_error(path + ": no x, y, z properties");
    for (int c : columns)
        if (vertex->properties[static_cast<std::size_t>(c)].list)
            throw std::runtime_error(path + ": the vertex property " +
                                     vertex->properties[static_cast<std::size_t>(c)].name + " is a list");
    IndexedMesh mesh;
    mesh.vertices.resize(static_cast<std::size_t>(vertex->count));
    ply.readScalars(*vertex, columns, [&](long i, const double* p) {
        for (int k = 0; k < 3; ++k)
            mesh.vertices[static_cast<std::size_t>(i)][k] = vertexCoordinate(p[k], scale, origin, k);
    });
    const PlyElement* face = ply.find("face");
    if (face == nullptr || face < vertex) return mesh;
    int indices = face->find("vertex_indices");
    if (indices < 0) indices = face->find("vertex_index");
    if (indices < 0 || !face->properties[static_cast<std::size_t>(indices)].list)
        throw std::runtime_error(path + ": the faces have no vertex_indices list");
    ply.readRecords(*face, [&](long f, const PlyRecord& record) {
        const std::vector<double>& corner = record.lists[static_cast<std::size_t>(indices)];
        for (double c : corner)
            if (!(c >= 0 && c < static_cast<double>(vertex->count)))
                throw std::runtime_error(path + ": face " + std::to_string(f) + " names a vertex that does not exist");
        for (std::size_t k = 1; k + 1 < corner.size(); ++k)
            mesh.triangles.push_back({static_cast<std::uint32_t>(corner[0]), static_cast<std::uint32_t>(corner[k]),
                                      static_cast<std::uint32_t>(corner[k + 1])});
    });
    return mesh;
}

void writePlyMesh(const std::string& path, const SurfaceReconstruction::MultiMeshData& mesh) {
    std::ofstream out(path, std::ios::binary);
    if (!out) throw std::runtime_error("cannot write mesh " + path);
    const std::size_t triangles = mesh.xyz.size();
    out << "ply\nformat binary_little_endian 1.0\ncomment tessaline triangle soup\n"
        << "element vertex " << triangles * 3 << "\nproperty float x\nproperty float y\nproperty float z\n"
        << "property uint word\nelement face " << triangles << "\nproperty list uchar int vertex_indices\nend_header\n";
    for (std::size_t t = 0; t < triangles; ++t) {
        for (int v = 0; v < 3; ++v) {
            out.write(reinterpret_cast<const char*>(&mesh.xyz[t].xyz[3 * v]), 3 * sizeof(float));
            out.write(reinterpret_cast<const char*>(&mesh.w[t].w[v]), sizeof(std::uint32_t));
        }
    }
    for (std::size_t t = 0; t < triangles; ++t) {
        const unsigned char three = 3;
        out.write(reinterpret_cast<const char*>(&three), 1);
        for (int v = 0; v < 3; ++v) {
            const std::int32_t index = static_cast<std::int32_t>(3 * t + static_cast<std::size_t>(v));
            out.write(reinterpret_cast<const char*>(&index), sizeof(index));
        }
    }
    if (!out) throw std::runtime_error("cannot write mesh " + path);
}

namespace {

std::string extensionOf(const std::string& path) {
    const std::size_t dot = path.find_last_of('.');
    std::string ext = dot == std::string::npos ? std::string() : path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

// Reads an OBJ vertex reference ("7", "7/2", "7//3", "-1/2/3") against `count` vertices so far.
std::uint32_t objIndex(const std::string& token, std::size_t count, const std::string& path, long line) {
    char* end = nullptr;
    const long value = std::strtol(token.c_str(), &end, 10);
    const bool number = end != token.c_str() && (*end == '\0' || *end == '/');
    const long index = value < 0 ? static_cast<long>(count) + value : value - 1;
    if (!number || value == 0 || index < 0 || index >= static_cast<long>(count))
        throw std::runtime_error(path + ": line " + std::to_string(line) + ": '" + token +
                                 "' names a vertex that does not exist");
    return static_cast<std::uint32_t>(index);
}

IndexedMesh readObj(const std::string& path, float scale, const Origin* origin) {
    refuseIrregularFile(path);
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot open the file");
    IndexedMesh mesh;
    std::string text;
    long line = 0;
    while (std::getline(in, text)) {
        ++line;
        std::istringstream words(text);
        std::string kind;
        words >> kind;
        if (kind == "v") {
            double p[3];
            if (!(words >> p[0] >> p[1] >> p[2]))
                throw std::runtime_error(path + ": line " + std::to_string(line) + ": a vertex needs x, y and z");
            mesh.vertices.push_back({vertexCoordinate(p[0], scale, origin, 0), vertexCoordinate(p[1], scale, origin, 1),
                                     vertexCoordinate(p[2], scale, origin, 2)});
        } else if (kind == "f") {
            std::vector<std::uint32_t> corners;
            std::string token;
            while (words >> token) corners.push_back(objIndex(token, mesh.vertices.size(), path, line));
            if (corners.size() < 3)
                throw std::runtime_error(path + ": line " + std::to_string(line) + ": a face needs three vertices");
            for (std::size_t k = 1; k + 1 < corners.size(); ++k)
                mesh.triangles.push_back({corners[0], corners[k], corners[k + 1]});
        }
    }
    return mesh;
}

IndexedMesh readStl(const std::string& path, float scale, const Origin* origin) {
    refuseIrregularFile(path);
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error(path + ": cannot open the file");
    const std::streamoff size = in.tellg();
    in.seekg(0);
    IndexedMesh mesh;
    const auto addCorner = [&](const float p[3]) {
        if (origin == nullptr)
            mesh.vertices.push_back({p[0] * scale, p[1] * scale, p[2] * scale});
        else
            mesh.vertices.push_back({vertexCoordinate(p[0], scale, origin, 0), vertexCoordinate(p[1], scale, origin, 1),
                                     vertexCoordinate(p[2], scale, origin, 2)});
    };
    char header[84] = {};
    if (size >= 84 && in.read(header, 84)) {
        std::uint32_t count;
        std::memcpy(&count, header + 80, 4);
        if (size == 84 + 50 * static_cast<std::streamoff>(count)) {  // binary: the size says so exactly
            char record[50];
            for (std::uint32_t t = 0; t < count; ++t) {
                if (!in.read(record, 50)) throw std::runtime_error(path + ": truncated data");
                float p[9];
                std::memcpy(p, record + 12, 36);
                const std::uint32_t first = static_cast<std::uint32_t>(mesh.vertices.size());
                for (int v = 0; v < 3; ++v) addCorner(p + 3 * v);
                mesh.triangles.push_back({first, first + 1, first + 2});
            }
            return mesh;
        }
    }
    in.clear();
    in.seekg(0);
    std::string word;
    if (!(in >> word) || word != "solid") throw std::runtime_error(path + ": not an STL file");
    std::string text;
    std::vector<float> corners;
    while (in >> word) {
        if (word != "vertex") continue;
        float p[3];
        if (!(in >> p[0] >> p[1] >> p[2])) throw std::runtime_error(path + ": a vertex needs x, y and z");
        corners.insert(corners.end(), p, p + 3);
    }
    if (corners.size() % 9 != 0) throw std::runtime_error(path + ": a facet without three vertices");
    for (std::size_t i = 0; i < corners.size(); i += 9) {
        const std::uint32_t first = static_cast<std::uint32_t>(mesh.vertices.size());
        for (int v = 0; v < 3; ++v) addCorner(&corners[i + 3 * static_cast<std::size_t>(v)]);
        mesh.triangles.push_back({first, first + 1, first + 2});
    }
    return mesh;
}

template <class T>
void put(std::ofstream& out, const T& value) {
    out.write(reinterpret_cast<const char*>(&value), sizeof(T));
}

// Bytes gathered in memory and handed to the stream a megabyte at a time; each value copied at its own
// size.
class ByteBuffer {
public:
    explicit ByteBuffer(std::ofstream& out) : m_out(out), m_bytes(new char[CAPACITY]) {}
    ~ByteBuffer() { flush(); }
    template <class T>
    void put(const T& value) {
        if (m_size + sizeof(T) > CAPACITY) flush();
        std::memcpy(m_bytes.get() + m_size, &value, sizeof(T));
        m_size += sizeof(T);
    }
    void flush() {
        m_out.write(m_bytes.get(), static_cast<std::streamsize>(m_size));
        m_size = 0;
    }

private:
    static constexpr std::size_t CAPACITY = std::size_t(1) << 20;
    std::ofstream& m_out;
    std::unique_ptr<char[]> m_bytes;
    std::size_t m_size = 0;
};

void writeBinaryPly(std::ofstream& out, const IndexedMesh& mesh, const Origin* origin) {
    const bool normals = mesh.normals.size() == mesh.vertices.size() && !mesh.vertices.empty();
    const bool words = mesh.words.size() == mesh.vertices.size() && !mesh.vertices.empty();
    const bool colours = mesh.colors.size() == mesh.vertices.size() && !mesh.vertices.empty();
    out << "ply\nformat binary_little_endian 1.0\ncomment tessaline mesh\n";
    if (words)
        out << "comment word: bits 0-7 scale codes, 8-15 flags, 16-31 quality (four equal nibbles); "
               "scale_code, flags and quality repeat its low three bytes\n";
    if (origin != nullptr) {
        char text[160];
        std::snprintf(text, sizeof(text), "comment x y z hold the origin %.17g %.17g %.17g added back\n", (*origin)[0],
                      (*origin)[1], (*origin)[2]);
        out << text;
    }
    const char* coordinate = origin != nullptr ? "double" : "float";
    out << "element vertex " << mesh.vertices.size() << "\nproperty " << coordinate << " x\nproperty " << coordinate
        << " y\nproperty " << coordinate << " z\n";
    if (normals) out << "property float nx\nproperty float ny\nproperty float nz\n";
    if (words) out << "property int word\nproperty uchar scale_code\nproperty uchar flags\nproperty uchar quality\n";
    if (colours) out << "property uchar red\nproperty uchar green\nproperty uchar blue\n";
    out << "element face " << mesh.triangles.size() << "\nproperty list uchar uint vertex_indices\nend_header\n";
    ByteBuffer body(out);
    for (std::size_t i = 0; i < mesh.vertices.size(); ++i) {
        if (origin != nullptr) {
            for (int k = 0; k < 3; ++k) body.put(static_cast<double>(mesh.vertices[i][k]) + (*origin)[k]);
        } else {
            body.put(mesh.vertices[i]);
        }
        if (normals) body.put(mesh.normals[i]);
        if (words) {
            const std::uint32_t w = mesh.words[i];
            body.put(static_cast<std::int32_t>(w));
            body.put(static_cast<std::uint8_t>(w & 0xFF));
            body.put(static_cast<std::uint8_t>((w >> 8) & 0xFF));
            body.put(static_cast<std::uint8_t>((w >> 16) & 0xFF));
        }
        if (colours) body.put(mesh.colors[i]);
    }
    for (const auto& t : mesh.triangles) {
        body.put(static_cast<std::uint8_t>(3));
        body.put(t);
    }
}

void writeObj(std::ofstream& out, const IndexedMesh& mesh, const Origin* origin) {
    const bool normals = mesh.normals.size() == mesh.vertices.size() && !mesh.vertices.empty();
    const bool colours = mesh.colors.size() == mesh.vertices.size() && !mesh.vertices.empty();
    out << "# tessaline mesh\n";
    char line[200];
    for (std::size_t i = 0; i < mesh.vertices.size(); ++i) {
        const auto& v = mesh.vertices[i];
        int length;
        if (origin != nullptr)
            length = std::snprintf(line, sizeof(line), "v %.15g %.15g %.15g", v[0] + (*origin)[0], v[1] + (*origin)[1],
                                   v[2] + (*origin)[2]);
        else
            length = std::snprintf(line, sizeof(line), "v %.9g %.9g %.9g", v[0], v[1], v[2]);
        // The colour as MeshLab and Open3D read it after x y z: 0 to 1, six digits give the byte back.
        if (colours)
            std::snprintf(line + length, sizeof(line) - static_cast<std::size_t>(length), " %.6g %.6g %.6g",
                          mesh.colors[i][0] / 255.0, mesh.colors[i][1] / 255.0, mesh.colors[i][2] / 255.0);
        out << line << '\n';
    }
    if (normals) {
        for (const auto& n : mesh.normals) {
            std::snprintf(line, sizeof(line), "vn %.7g %.7g %.7g\n", n[0], n[1], n[2]);
            out << line;
        }
    }
    for (const auto& t : mesh.triangles) {
        if (normals)
            out << "f " << t[0] + 1 << "//" << t[0] + 1 << ' ' << t[1] + 1 << "//" << t[1] + 1 << ' ' << t[2] + 1
                << "//" << t[2] + 1 << '\n';
        else
            out << "f " << t[0] + 1 << ' ' << t[1] + 1 << ' ' << t[2] + 1 << '\n';
    }
}

void writeStl(std::ofstream& out, const IndexedMesh& mesh) {
    char header[80] = "tessaline mesh";
    out.write(header, 80);
    put(out, static_cast<std::uint32_t>(mesh.triangles.size()));
    for (const auto& t : mesh.triangles) {
        const auto& a = mesh.vertices[t[0]];
        const auto& b = mesh.vertices[t[1]];
        const auto& c = mesh.vertices[t[2]];
        const float u[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, v[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
        float n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
        const float length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (length > 0) {
            for (float& x : n) x /= length;
        }
        out.write(reinterpret_cast<const char*>(n), 12);
        out.write(reinterpret_cast<const char*>(a.data()), 12);
        out.write(reinterpret_cast<const char*>(b.data()), 12);
        out.write(reinterpret_cast<const char*>(c.data()), 12);
        put(out, static_cast<std::uint16_t>(0));
    }
}

}  // namespace

IndexedMesh readMesh(const std::string& path, float scale, const Origin* origin) {
    const std::string ext = extensionOf(path);
    if (ext == "ply") return readPlyMesh(path, scale, origin);
    if (ext == "obj") return readObj(path, scale, origin);
    if (ext == "stl") return readStl(path, scale, origin);
    throw std::runtime_error(path + ": unknown mesh format (use .ply, .obj or .stl)");
}

bool isMeshFileName(const std::string& path) {
    const std::string ext = extensionOf(path);
    return ext == "ply" || ext == "obj" || ext == "stl";
}

void scaleMesh(IndexedMesh& mesh, float scale) {
    for (auto& v : mesh.vertices)
        for (float& x : v) x *= scale;
}

bool keepsOrigin(const std::string& path) { return extensionOf(path) != "stl"; }

void writeMesh(const std::string& path, const IndexedMesh& mesh, const Origin* origin) {
    const std::string ext = extensionOf(path);
    if (!isMeshFileName(path)) throw std::runtime_error(path + ": unknown mesh format (use .ply, .obj or .stl)");
    if (origin != nullptr && (*origin)[0] == 0.0 && (*origin)[1] == 0.0 && (*origin)[2] == 0.0) origin = nullptr;
    if (origin != nullptr && !keepsOrigin(path))
        throw std::runtime_error(path +
                                 ": STL holds coordinates as floats, which cannot keep geo-referenced "
                                 "coordinates to a millimetre; write .ply or .obj");
    OutputFile file(path);
    {
        std::ofstream out(file.temporaryPath(), std::ios::binary);
        if (!out) throw std::runtime_error(path + ": cannot write the file");
        if (ext == "ply") writeBinaryPly(out, mesh, origin);
        if (ext == "obj") writeObj(out, mesh, origin);
        if (ext == "stl") writeStl(out, mesh);
        if (!out.flush()) throw std::runtime_error(path + ": writing failed (the disk full?)");
    }
    file.commit();
}

}  // namespace tessaline_tools
