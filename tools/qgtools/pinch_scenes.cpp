#include "qgtools/pinch_scenes.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "qgtools/shapes.h"

namespace qgtools {

using Vec = GmTVector<double>;

PolygonSoup overlappingSpheresSoup(int level, const Vec& c1, double r1, const Vec& c2, double r2) {
    PolygonSoup a = icosphereSoup(level, r1, c1);
    const PolygonSoup b = icosphereSoup(level, r2, c2);
    const int offset = a.numVertices();
    a.positions.insert(a.positions.end(), b.positions.begin(), b.positions.end());
    for (const auto& t : b.triangles) a.triangles.push_back({t[0] + offset, t[1] + offset, t[2] + offset});
    return a;
}

ConvexSolid::ConvexSolid(const PolygonSoup& soup, int first, int count, const Vec& centre) : _centre(centre) {
    _inner = DBL_MAX;
    for (int f = first; f < first + count; ++f) {
        const auto& t = soup.triangles[static_cast<size_t>(f)];
        const Vec& a = soup.positions[static_cast<size_t>(t[0])];
        const Vec& b = soup.positions[static_cast<size_t>(t[1])];
        const Vec& c = soup.positions[static_cast<size_t>(t[2])];
        const Vec n = (b - a).cross(c - a).safeNormalized();
        _normals.push_back(n);
        _offsets.push_back(n.dot(a));
        _inner = std::min(_inner, n.dot(a) - n.dot(centre));
        for (const Vec* v : {&a, &b, &c}) _outer = std::max(_outer, (*v - centre).length());
    }
}

double ConvexSolid::planeDepth(const Vec& p) const {
    double worst = -DBL_MAX;
    for (size_t k = 0; k < _normals.size(); ++k) worst = std::max(worst, _normals[k].dot(p) - _offsets[k]);
    return worst;
}

bool ConvexSolid::contains(const Vec& p) const {
    const double r = (p - _centre).length();
    if (r < _inner * (1.0 - 1e-9)) return true;
    if (r > _outer * (1.0 + 1e-9)) return false;
    return planeDepth(p) <= 0.0;
}

const std::vector<Vec>& flapPath() {
    static const std::vector<Vec> path = {
        {2.0, 0, 0.0},   {2.1, 0, 0.05},  {2.15, 0, 0.15}, {2.1, 0, 0.25}, {2.0, 0, 0.3},  {1.8, 0, 0.3},
        {1.6, 0, 0.3},   {1.45, 0, 0.3},  {1.3, 0, 0.27},  {1.2, 0, 0.2},  {1.15, 0, 0.15}, {1.0, 0, -0.15},
        {0.9, 0, -0.25}, {0.8, 0, -0.3},  {0.65, 0, -0.3}, {0.5, 0, -0.3}};
    return path;
}

GmTriangleMesh makeFlapSheet() {
    GmTriangleMesh m("flapSheet");
    const int n = 20;
    const double h = 0.1;
    auto sheet = [n](int i, int j) { return j * (n + 1) + i; };
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) m.addVertex(Vec(i * h, j * h, 0.0));
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            m.addFace(sheet(i, j), sheet(i + 1, j), sheet(i + 1, j + 1));
            m.addFace(sheet(i, j), sheet(i + 1, j + 1), sheet(i, j + 1));
        }
    const std::vector<Vec>& path = flapPath();
    const int columns = 9;
    std::vector<int> id(path.size() * columns);
    for (size_t k = 0; k < path.size(); ++k)
        for (int c = 0; c < columns; ++c) {
            const double y0 = 0.6 + 0.1 * c;
            if (k == 0) {
                id[k * columns + static_cast<size_t>(c)] = sheet(n, 6 + c);
                continue;
            }
            const double y = 1.0 + (y0 - 1.0) * 0.93;  // narrower, off the sheet's grid lines
            id[k * columns + static_cast<size_t>(c)] = m.addVertex(Vec(path[k].x, y, path[k].z));
        }
    auto T = [&](size_t k, int c) { return id[k * columns + static_cast<size_t>(c)]; };
    for (size_t k = 0; k + 1 < path.size(); ++k)
        for (int c = 0; c + 1 < columns; ++c) {
            m.addFace(T(k, c), T(k + 1, c), T(k + 1, c + 1));
            m.addFace(T(k, c), T(k + 1, c + 1), T(k, c + 1));
        }
    m.finishConstruction();
    return m;
}

}  // namespace qgtools
