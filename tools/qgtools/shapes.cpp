#include "qgtools/shapes.h"

#include <cmath>
#include <map>
#include <utility>

namespace qgtools {

namespace {

const double kPi = 3.14159265358979323846;

// Orients every triangle of a star-shaped soup so that its normal points away from `inside`.
void orientAwayFrom(PolygonSoup& soup, const GmTVector<double>& inside) {
    for (std::array<int, 3>& t : soup.triangles) {
        const GmTVector<double>& a = soup.positions[static_cast<std::size_t>(t[0])];
        const GmTVector<double>& b = soup.positions[static_cast<std::size_t>(t[1])];
        const GmTVector<double>& c = soup.positions[static_cast<std::size_t>(t[2])];
        const GmTVector<double> n = (b - a).cross(c - b);
        const GmTVector<double> centroid = (a + b + c) / 3.0;
        if (n.dot(centroid - inside) < 0.0) std::swap(t[1], t[2]);
    }
}

}  // namespace

PolygonSoup clothGridSoup(int n, int m, double width, double height, const GmTVector<double>& origin) {
    PolygonSoup s;
    if (n < 1 || m < 1) return s;
    s.positions.reserve(static_cast<std::size_t>(n + 1) * static_cast<std::size_t>(m + 1));
    s.triangles.reserve(2 * static_cast<std::size_t>(n) * static_cast<std::size_t>(m));
    for (int j = 0; j <= m; ++j)
        for (int i = 0; i <= n; ++i)
            s.positions.emplace_back(origin.x + width * i / n, origin.y + height * j / m, origin.z);
    auto id = [n](int i, int j) { return j * (n + 1) + i; };
    for (int j = 0; j < m; ++j)
        for (int i = 0; i < n; ++i) {
            s.triangles.push_back({id(i, j), id(i + 1, j), id(i + 1, j + 1)});
            s.triangles.push_back({id(i, j), id(i + 1, j + 1), id(i, j + 1)});
        }
    return s;
}

GmTriangleMesh makeClothGrid(int n, int m, double width, double height, const GmTVector<double>& origin) {
    return meshFromSoup(clothGridSoup(n, m, width, height, origin), false, "cloth");
}

PolygonSoup icosphereSoup(int level, double radius, const GmTVector<double>& centre) {
    PolygonSoup s;
    const double t = (1.0 + std::sqrt(5.0)) / 2.0;
    const double base[12][3] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0}, {0, -1, t}, {0, 1, t},
                                {0, -1, -t}, {0, 1, -t}, {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    // Unit-sphere positions during subdivision, scaled and moved at the end.
    for (const auto& p : base) s.positions.push_back(GmTVector<double>(p[0], p[1], p[2]).safeNormalized());
    s.triangles = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
                   {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
                   {3, 8, 9},  {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    for (int l = 0; l < level; ++l) {
        std::map<std::pair<int, int>, int> mid;
        auto midpoint = [&](int a, int b) {
            const std::pair<int, int> key(std::min(a, b), std::max(a, b));
            auto it = mid.find(key);
            if (it != mid.end()) return it->second;
            const GmTVector<double> p =
                (s.positions[static_cast<std::size_t>(a)] + s.positions[static_cast<std::size_t>(b)]).safeNormalized();
            const int idx = static_cast<int>(s.positions.size());
            s.positions.push_back(p);
            mid.emplace(key, idx);
            return idx;
        };
        std::vector<std::array<int, 3>> next;
        next.reserve(s.triangles.size() * 4);
        for (const std::array<int, 3>& tri : s.triangles) {
            const int a = midpoint(tri[0], tri[1]);
            const int b = midpoint(tri[1], tri[2]);
            const int c = midpoint(tri[2], tri[0]);
            next.push_back({tri[0], a, c});
            next.push_back({tri[1], b, a});
            next.push_back({tri[2], c, b});
            next.push_back({a, b, c});
        }
        s.triangles.swap(next);
    }
    orientAwayFrom(s, GmTVector<double>());
    for (GmTVector<double>& p : s.positions) p = centre + p * radius;
    return s;
}

GmTriangleMesh makeIcosphere(int level, double radius, const GmTVector<double>& centre) {
    return meshFromSoup(icosphereSoup(level, radius, centre), false, "icosphere");
}

PolygonSoup cubeSoup(const GmTVector<double>& lo, const GmTVector<double>& hi) {
    PolygonSoup s;
    for (int k = 0; k < 8; ++k)
        s.positions.emplace_back((k & 1) ? hi.x : lo.x, (k & 2) ? hi.y : lo.y, (k & 4) ? hi.z : lo.z);
    // Two triangles per side, split along one diagonal.
    s.triangles = {{0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}, {0, 1, 5}, {0, 5, 4},
                   {2, 6, 7}, {2, 7, 3}, {0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}};
    orientAwayFrom(s, (lo + hi) * 0.5);
    return s;
}

GmTriangleMesh makeCube(const GmTVector<double>& minCorner, const GmTVector<double>& maxCorner) {
    return meshFromSoup(cubeSoup(minCorner, maxCorner), false, "cube");
}

PolygonSoup tetrahedronSoup(double size, const GmTVector<double>& centre) {
    PolygonSoup s;
    const double k = size / std::sqrt(3.0);
    s.positions = {centre + GmTVector<double>(k, k, k), centre + GmTVector<double>(k, -k, -k),
                   centre + GmTVector<double>(-k, k, -k), centre + GmTVector<double>(-k, -k, k)};
    s.triangles = {{0, 1, 2}, {0, 3, 1}, {0, 2, 3}, {1, 3, 2}};
    orientAwayFrom(s, centre);
    return s;
}

GmTriangleMesh makeTetrahedron(double size, const GmTVector<double>& centre) {
    return meshFromSoup(tetrahedronSoup(size, centre), false, "tetrahedron");
}

PolygonSoup torusSoup(int nMajor, int nMinor, double majorRadius, double minorRadius) {
    PolygonSoup s;
    if (nMajor < 3 || nMinor < 3) return s;
    for (int i = 0; i < nMajor; ++i) {
        const double u = 2.0 * kPi * i / nMajor;
        for (int j = 0; j < nMinor; ++j) {
            const double v = 2.0 * kPi * j / nMinor;
            const double r = majorRadius + minorRadius * std::cos(v);
            s.positions.emplace_back(r * std::cos(u), r * std::sin(u), minorRadius * std::sin(v));
        }
    }
    auto id = [&](int i, int j) { return (i % nMajor) * nMinor + (j % nMinor); };
    for (int i = 0; i < nMajor; ++i)
        for (int j = 0; j < nMinor; ++j) {
            // d/du x d/dv points outwards.
            s.triangles.push_back({id(i, j), id(i + 1, j), id(i + 1, j + 1)});
            s.triangles.push_back({id(i, j), id(i + 1, j + 1), id(i, j + 1)});
        }
    return s;
}

GmTriangleMesh makeTorus(int nMajor, int nMinor, double majorRadius, double minorRadius) {
    return meshFromSoup(torusSoup(nMajor, nMinor, majorRadius, minorRadius), false, "torus");
}

PolygonSoup foldedGridSoup(int nu, int nv, double scale, double width) {
    PolygonSoup s;
    if (nu < 1 || nv < 1) return s;
    for (int j = 0; j <= nv; ++j) {
        const double y = width * j / nv;
        for (int i = 0; i <= nu; ++i) {
            const double t = kFoldedTMin + (kFoldedTMax - kFoldedTMin) * i / nu;
            s.positions.emplace_back(scale * (t * t - 1.0), y, scale * (t * t * t - t));
        }
    }
    auto id = [nu](int i, int j) { return j * (nu + 1) + i; };
    for (int j = 0; j < nv; ++j)
        for (int i = 0; i < nu; ++i) {
            s.triangles.push_back({id(i, j), id(i + 1, j), id(i + 1, j + 1)});
            s.triangles.push_back({id(i, j), id(i + 1, j + 1), id(i, j + 1)});
        }
    return s;
}

GmTriangleMesh makeFoldedGrid(int nu, int nv, double scale, double width) {
    return meshFromSoup(foldedGridSoup(nu, nv, scale, width), false, "folded");
}

}  // namespace qgtools
