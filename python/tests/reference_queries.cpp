// Reference answers for the Python tests: the same mesh and queries, answered by the library's
// single-query calls from C++.
//
//   qg_py_reference mesh.f64 points.f64 rays.f64 end.f64 out.f64
//
// mesh.f64: vertex count V, face count F, V x 3 positions, F x 3 vertex indices (as doubles);
// points.f64: n x 3 doubles; rays.f64: m x 6 (origin, direction); end.f64: end positions of a
// continuous-time self query (V x 3, may be empty). out.f64, doubles:
//   per point: distance, closest x y z, face, s, t, vertex, vertex distance, inside, signed
//              distance, signed-distance face (12 values)
//   per ray:   hit count k, then the k faces in the order of the walk
//   contacts:  count, then per contact triangle1, triangle2, type, feature1, feature2, time

#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include <quarrygeom/quarrygeom.h>


namespace {

std::vector<double> readDoubles(const char* path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<double> d(bytes.size() / sizeof(double));
    if (!d.empty()) std::memcpy(d.data(), bytes.data(), d.size() * sizeof(double));
    return d;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: qg_py_reference mesh.f64 points.f64 rays.f64 end.f64 out.f64\n";
        return 2;
    }
    typedef GmTVector<double> V3;
    const std::vector<double> m = readDoubles(argv[1]);
    if (m.size() < 2) return 1;
    const std::size_t nv = static_cast<std::size_t>(m[0]), nf = static_cast<std::size_t>(m[1]);
    if (m.size() != 2 + 3 * (nv + nf)) return 1;
    GmTriangleMesh mesh;
    for (std::size_t i = 0; i < nv; ++i) mesh.addVertex(V3(m[2 + 3 * i], m[3 + 3 * i], m[4 + 3 * i]));
    const double* f = m.data() + 2 + 3 * nv;
    for (std::size_t i = 0; i < nf; ++i) mesh.addFace(int(f[3 * i]), int(f[3 * i + 1]), int(f[3 * i + 2]));
    mesh.finishConstruction();
    GmBoundingVolumeHierarchy tree(&mesh);
    const std::vector<double> p = readDoubles(argv[2]), r = readDoubles(argv[3]), e = readDoubles(argv[4]);
    std::vector<double> out;
    for (std::size_t i = 0; i + 2 < p.size(); i += 3) {
        const V3 q(p[i], p[i + 1], p[i + 2]);
        V3 c, n;
        int f = -1, v = -1;
        double s = 0, t = 0;
        const double d = tree.findClosestPoint(q, c, n, f, s, t, nullptr, true);
        const double vd = tree.findClosestVertex(q, v, true);
        const bool inside = tree.isInsideMesh(q, true);
        V3 c2, n2;
        int sf = -1;
        bool pinched = false;
        const double sd = tree.findClosestPoint(q, c2, sf, n2, pinched, false, true);
        const double row[] = {d, c.x, c.y, c.z, double(f), s, t, double(v), vd, double(inside), sd, double(sf)};
        out.insert(out.end(), row, row + 12);
    }
    for (std::size_t i = 0; i + 5 < r.size(); i += 6) {
        std::vector<GmPointIntersectionInfo> hits;
        tree.intersect(GmRay(V3(r[i], r[i + 1], r[i + 2]), V3(r[i + 3], r[i + 4], r[i + 5])), hits, false, true);
        out.push_back(double(hits.size()));
        for (const GmPointIntersectionInfo& h : hits) out.push_back(h.triangleIndex);
    }
    std::vector<GmContinuousTimeIntersectionInfo> contacts;
    if (e.size() == 3 * static_cast<std::size_t>(mesh.getNumberVertices())) {
        std::vector<V3> end;
        for (std::size_t i = 0; i < e.size(); i += 3) end.emplace_back(e[i], e[i + 1], e[i + 2]);
        GmBoundingVolumeHierarchy swept(&mesh, end);
        GmBVHMetrics metrics;
        swept.continuousTimeSelfIntersect(contacts, end, GmIntersection::kAllTests, false, true, -1, metrics);
    }
    out.push_back(double(contacts.size()));
    for (const auto& k : contacts) {
        const double row[] = {double(k.triangleIndex1), double(k.triangleIndex2), double(k.type),
                              double(k.feature1),       double(k.feature2),       k.time};
        out.insert(out.end(), row, row + 6);
    }
    std::ofstream o(argv[5], std::ios::binary);
    o.write(reinterpret_cast<const char*>(out.data()), static_cast<std::streamsize>(out.size() * sizeof(double)));
    return o ? 0 : 1;
}
