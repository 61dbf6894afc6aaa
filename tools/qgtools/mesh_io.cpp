#include "qgtools/mesh_io.h"

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <limits>
#include <stdexcept>

#include <tiny_obj_loader.h>

namespace qgtools {

void PolygonSoup::flip() {
    for (std::array<int, 3>& t : triangles) std::swap(t[1], t[2]);
}

bool loadObjSoup(const std::string& path, PolygonSoup& soup, std::string* error) {
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    const bool ok = tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str(), nullptr,
                                     /*triangulate=*/true);
    if (!ok) {
        if (error) *error = err.empty() ? "cannot read " + path : err;
        return false;
    }
    soup.positions.clear();
    soup.triangles.clear();
    const std::size_t nv = attrib.vertices.size() / 3;
    soup.positions.reserve(nv);
    for (std::size_t i = 0; i < nv; ++i)
        soup.positions.emplace_back(static_cast<double>(attrib.vertices[3 * i]),
                                    static_cast<double>(attrib.vertices[3 * i + 1]),
                                    static_cast<double>(attrib.vertices[3 * i + 2]));
    for (const tinyobj::shape_t& s : shapes) {
        std::size_t offset = 0;
        for (unsigned char n : s.mesh.num_face_vertices) {
            if (n == 3) {
                soup.triangles.push_back({s.mesh.indices[offset].vertex_index,
                                          s.mesh.indices[offset + 1].vertex_index,
                                          s.mesh.indices[offset + 2].vertex_index});
            }
            offset += n;
        }
    }
    return true;
}

void buildMesh(const PolygonSoup& soup, GmTriangleMesh& mesh, bool merge) {
    mesh.reserve(soup.numVertices(), soup.numTriangles());
    if (!merge) {
        for (const GmTVector<double>& p : soup.positions) mesh.addVertex(p);
        for (const std::array<int, 3>& t : soup.triangles) mesh.addFace(t[0], t[1], t[2]);
    } else {
        std::vector<int> remap(soup.positions.size());
        bool existed = false;
        for (std::size_t i = 0; i < soup.positions.size(); ++i) remap[i] = mesh.addVertex(soup.positions[i], existed);
        for (const std::array<int, 3>& t : soup.triangles) {
            const int a = remap[static_cast<std::size_t>(t[0])];
            const int b = remap[static_cast<std::size_t>(t[1])];
            const int c = remap[static_cast<std::size_t>(t[2])];
            if (a == b || b == c || c == a) continue;
            mesh.addFace(a, b, c, existed);
        }
    }
    mesh.finishConstruction();
}

GmTriangleMesh meshFromSoup(const PolygonSoup& soup, bool merge, const std::string& name) {
    GmTriangleMesh mesh(soup.numVertices(), soup.numTriangles());
    mesh.setName(name);
    buildMesh(soup, mesh, merge);
    return mesh;
}

bool loadObj(const std::string& path, GmTriangleMesh& mesh, bool merge, std::string* error) {
    PolygonSoup soup;
    if (!loadObjSoup(path, soup, error)) return false;
    const std::size_t slash = path.find_last_of("/\\");
    mesh.setName(slash == std::string::npos ? path : path.substr(slash + 1));
    buildMesh(soup, mesh, merge);
    return true;
}

GmTriangleMesh loadObjMesh(const std::string& path, bool merge) {
    GmTriangleMesh mesh;
    std::string error;
    if (!loadObj(path, mesh, merge, &error)) throw std::runtime_error("loadObjMesh: " + error);
    return mesh;
}

void writeObj(std::ostream& os, const GmTriangleMesh& mesh, const std::vector<GmTVector<double>>* positions) {
    const std::vector<GmTVector<double>>& pos = positions ? *positions : mesh.getVertices();
    const std::streamsize oldPrecision = os.precision(std::numeric_limits<double>::max_digits10);
    if (!mesh.getName().empty()) os << "o " << mesh.getName() << "\n";
    for (const GmTVector<double>& p : pos) os << "v " << p.x << ' ' << p.y << ' ' << p.z << "\n";
    for (const GmTriangleFace& f : mesh.getFaces())
        os << "f " << f.vertices[0] + 1 << ' ' << f.vertices[1] + 1 << ' ' << f.vertices[2] + 1 << "\n";
    os.precision(oldPrecision);
}

bool writeObj(const std::string& path, const GmTriangleMesh& mesh, const std::vector<GmTVector<double>>* positions) {
    std::ofstream out(path);
    if (!out) return false;
    writeObj(out, mesh, positions);
    return static_cast<bool>(out);
}

bool writeObj(const std::string& path, const PolygonSoup& soup) {
    std::ofstream out(path);
    if (!out) return false;
    out << std::setprecision(std::numeric_limits<double>::max_digits10);
    for (const GmTVector<double>& p : soup.positions) out << "v " << p.x << ' ' << p.y << ' ' << p.z << "\n";
    for (const std::array<int, 3>& t : soup.triangles) out << "f " << t[0] + 1 << ' ' << t[1] + 1 << ' ' << t[2] + 1 << "\n";
    return static_cast<bool>(out);
}

}  // namespace qgtools
