// PLY reading and writing for meshes.
#include "MeshIO.h"

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tessaline_tools {

IndexedMesh readPlyMesh(const std::string& path, float scale) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot open mesh " + path);
    std::string line;
    long vertices = -1, faces = 0;
    int vertex_properties = 0;
    bool in_vertex = false, ascii = false;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string a, b;
        words >> a >> b;
        if (a == "format") ascii = b == "ascii";
        if (a == "element") {
            in_vertex = b == "vertex";
            if (in_vertex) words >> vertices;
            if (b == "face") words >> faces;
        } else if (a == "property" && in_vertex) {
            ++vertex_properties;
        } else if (a == "end_header") {
            break;
        }
    }
    if (!ascii || vertices < 0 || vertex_properties < 3) throw std::runtime_error("not an ASCII PLY mesh: " + path);
    IndexedMesh mesh;
    mesh.vertices.resize(static_cast<std::size_t>(vertices));
    for (long i = 0; i < vertices; ++i) {
        std::getline(in, line);
        std::istringstream values(line);
        auto& v = mesh.vertices[static_cast<std::size_t>(i)];
        if (!(values >> v[0] >> v[1] >> v[2])) throw std::runtime_error("short vertex list in " + path);
        for (float& c : v) c *= scale;
    }
    for (long i = 0; i < faces; ++i) {
        int count = 0;
        if (!(in >> count)) throw std::runtime_error("short face list in " + path);
        std::vector<int> corner(static_cast<std::size_t>(count));
        for (int& c : corner) in >> c;
        for (int k = 1; k + 1 < count; ++k) mesh.triangles.push_back({corner[0], corner[static_cast<std::size_t>(k)], corner[static_cast<std::size_t>(k) + 1]});
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

}  // namespace tessaline_tools
