// PLY reading and writing for meshes.
#include "MeshIO.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

#include "PlyReader.h"

namespace tessaline_tools {

IndexedMesh readPlyMesh(const std::string& path, float scale) {
    PlyReader ply(path);
    const PlyElement* vertex = ply.find("vertex");
    if (vertex == nullptr) throw std::runtime_error(path + ": no vertex element");
    const int column[3] = {vertex->find("x"), vertex->find("y"), vertex->find("z")};
    if (column[0] < 0 || column[1] < 0 || column[2] < 0) throw std::runtime_error(path + ": no x, y, z properties");
    IndexedMesh mesh;
    mesh.vertices.resize(static_cast<std::size_t>(vertex->count));
    PlyRecord record;
    for (auto& v : mesh.vertices) {
        ply.read(*vertex, record);
        for (int k = 0; k < 3; ++k)
            v[k] = static_cast<float>(record.scalars[static_cast<std::size_t>(column[k])]) * scale;
    }
    const PlyElement* face = ply.find("face");
    if (face == nullptr || face < vertex) return mesh;
    int indices = face->find("vertex_indices");
    if (indices < 0) indices = face->find("vertex_index");
    if (indices < 0 || !face->properties[static_cast<std::size_t>(indices)].list)
        throw std::runtime_error(path + ": the faces have no vertex_indices list");
    for (long f = 0; f < face->count; ++f) {
        ply.read(*face, record);
        const std::vector<double>& corner = record.lists[static_cast<std::size_t>(indices)];
        for (double c : corner)
            if (!(c >= 0 && c < static_cast<double>(vertex->count)))
                throw std::runtime_error(path + ": face " + std::to_string(f) + " names a vertex that does not exist");
        for (std::size_t k = 1; k + 1 < corner.size(); ++k)
            mesh.triangles.push_back(
                {static_cast<int>(corner[0]), static_cast<int>(corner[k]), static_cast<int>(corner[k + 1])});
    }
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

struct GridKeyHash {
    std::size_t operator()(const std::array<long long, 3>& k) const {
        return static_cast<std::size_t>(k[0] * 73856093LL ^ k[1] * 19349663LL ^ k[2] * 83492791LL);
    }
};

std::string extensionOf(const std::string& path) {
    const std::size_t dot = path.find_last_of('.');
    std::string ext = dot == std::string::npos ? std::string() : path.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

void writeBinaryPly(std::ofstream& out, const WeldedMesh& mesh) {
    out << "ply\nformat binary_little_endian 1.0\ncomment tessaline mesh\nelement vertex " << mesh.vertices.size()
        << "\nproperty float x\nproperty float y\nproperty float z\nproperty uint word\nelement face "
        << mesh.triangles.size() << "\nproperty list uchar uint vertex_indices\nend_header\n";
    for (std::size_t i = 0; i < mesh.vertices.size(); ++i) {
        out.write(reinterpret_cast<const char*>(mesh.vertices[i].data()), 3 * sizeof(float));
        out.write(reinterpret_cast<const char*>(&mesh.words[i]), sizeof(std::uint32_t));
    }
    for (const auto& t : mesh.triangles) {
        const unsigned char three = 3;
        out.write(reinterpret_cast<const char*>(&three), 1);
        out.write(reinterpret_cast<const char*>(t.data()), 3 * sizeof(std::uint32_t));
    }
}

void writeObj(std::ofstream& out, const WeldedMesh& mesh) {
    out << "# tessaline mesh\n";
    char line[128];
    for (const auto& v : mesh.vertices) {
        std::snprintf(line, sizeof(line), "v %.9g %.9g %.9g\n", v[0], v[1], v[2]);
        out << line;
    }
    for (const auto& t : mesh.triangles) out << "f " << t[0] + 1 << ' ' << t[1] + 1 << ' ' << t[2] + 1 << '\n';
}

void writeStl(std::ofstream& out, const WeldedMesh& mesh) {
    char header[80] = "tessaline mesh";
    out.write(header, 80);
    const std::uint32_t count = static_cast<std::uint32_t>(mesh.triangles.size());
    out.write(reinterpret_cast<const char*>(&count), 4);
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
        const std::uint16_t attributes = 0;
        out.write(reinterpret_cast<const char*>(&attributes), 2);
    }
}

}  // namespace

WeldedMesh weldMesh(const SurfaceReconstruction::MultiMeshData& soup, float tolerance, float scale) {
    WeldedMesh mesh;
    std::unordered_map<std::array<long long, 3>, std::uint32_t, GridKeyHash> index;
    index.reserve(soup.xyz.size() * 2);
    for (std::size_t t = 0; t < soup.xyz.size(); ++t) {
        std::array<std::uint32_t, 3> corners;
        for (int v = 0; v < 3; ++v) {
            const float* p = &soup.xyz[t].xyz[3 * v];
            const std::array<long long, 3> key = {std::llround(p[0] / tolerance), std::llround(p[1] / tolerance),
                                                  std::llround(p[2] / tolerance)};
            auto found = index.find(key);
            if (found == index.end()) {
                found = index.emplace(key, static_cast<std::uint32_t>(mesh.vertices.size())).first;
                mesh.vertices.push_back({p[0] * scale, p[1] * scale, p[2] * scale});
                mesh.words.push_back(soup.w[t].w[v]);
            }
            corners[static_cast<std::size_t>(v)] = found->second;
        }
        if (corners[0] == corners[1] || corners[0] == corners[2] || corners[1] == corners[2]) {
            ++mesh.dropped;
            continue;
        }
        mesh.triangles.push_back(corners);
    }
    return mesh;
}

std::size_t countBoundaryEdges(const WeldedMesh& mesh) {
    std::map<std::pair<std::uint32_t, std::uint32_t>, int> uses;
    for (const auto& t : mesh.triangles) {
        for (int e = 0; e < 3; ++e) {
            std::uint32_t a = t[static_cast<std::size_t>(e)], b = t[static_cast<std::size_t>((e + 1) % 3)];
            if (b < a) std::swap(a, b);
            ++uses[{a, b}];
        }
    }
    std::size_t boundary = 0;
    for (const auto& entry : uses) boundary += entry.second == 1 ? 1 : 0;
    return boundary;
}

void writeWeldedMesh(const std::string& path, const WeldedMesh& mesh) {
    const std::string ext = extensionOf(path);
    if (ext != "ply" && ext != "obj" && ext != "stl")
        throw std::runtime_error(path + ": unknown mesh format (use .ply, .obj or .stl)");
    const std::string partial = path + ".partial";
    {
        std::ofstream out(partial, std::ios::binary);
        if (!out) throw std::runtime_error(path + ": cannot write the file");
        if (ext == "ply") writeBinaryPly(out, mesh);
        if (ext == "obj") writeObj(out, mesh);
        if (ext == "stl") writeStl(out, mesh);
        if (!out) {
            out.close();
            std::remove(partial.c_str());
            throw std::runtime_error(path + ": writing failed");
        }
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0) {
        std::remove(partial.c_str());
        throw std::runtime_error(path + ": cannot move the finished file into place");
    }
}

}  // namespace tessaline_tools
