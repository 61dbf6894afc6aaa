#include <quarrygeom/mesh/GmMeshTests.h>

#include <algorithm>
#include <cmath>

#include <quarrygeom/primitives/GmGeometry.h>
#include <quarrygeom/primitives/GmSegmentDistance.h>

namespace GmIntersection {

void MeshTests::setVertexRadiusTest(const std::shared_ptr<std::vector<GmTVector<double>>>& refPositions,
                                    double radius, const float* radii) {
    if (!refPositions || radius < 0.0) {
        clearVertexRadiusTest();
        return;
    }
    _tests |= kVertexRadiusTest;
    _refPositions = refPositions;
    auto r = std::make_shared<std::vector<float>>(refPositions->size(), static_cast<float>(radius));
    if (radii)
        for (std::size_t i = 0; i < r->size(); ++i) (*r)[i] *= radii[i];
    _radii = std::move(r);
}

void MeshTests::clearVertexRadiusTest() {
    _tests &= ~kVertexRadiusTest;
    _refPositions.reset();
    _radii.reset();
}

bool trianglesWithinDistance(const GmTVector<double>& a0, const GmTVector<double>& a1, const GmTVector<double>& a2,
                             const GmTVector<double>& b0, const GmTVector<double>& b1, const GmTVector<double>& b2,
                             double r) {
    const GmTVector<double>* A[3] = {&a0, &a1, &a2};
    const GmTVector<double>* B[3] = {&b0, &b1, &b2};
    // 1. Separated by more than r along a coordinate axis.
    for (int k = 0; k < 3; ++k) {
        const double amin = std::min({a0[k], a1[k], a2[k]}), amax = std::max({a0[k], a1[k], a2[k]});
        const double bmin = std::min({b0[k], b1[k], b2[k]}), bmax = std::max({b0[k], b1[k], b2[k]});
        if (bmin - amax > r || amin - bmax > r) return false;
    }
    // 2. A vertex within r of the other triangle.
    const double r2 = r * r + 1e-16;
    double s, t;
    for (int i = 0; i < 3; ++i) {
        if (GmGeometry::closestParametricPointOnTriangle(*A[i], b0, b1, b2, s, t) <= r2) return true;
        if (GmGeometry::closestParametricPointOnTriangle(*B[i], a0, a1, a2, s, t) <= r2) return true;
    }
    // 3. Two edges within r of each other, or crossing.
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            const GmSegmentDistance::SegmentSegmentResult res =
                GmSegmentDistance::segmentSegment(*A[i], *A[(i + 1) % 3], *B[j], *B[(j + 1) % 3]);
            if (res.intersect || std::sqrt(res.distanceSquared) <= r + 1e-16) return true;
        }
    // 4. An edge piercing the other triangle.
    GmTVector<double> point;
    double u, v;
    for (int i = 0; i < 3; ++i) {
        const GmTVector<double> da = *A[(i + 1) % 3] - *A[i];
        if (GmGeometry::intersectRayTri(*A[i], da, b0, b1, b2, point, t, u, v) && t <= 1.0) return true;
        const GmTVector<double> db = *B[(i + 1) % 3] - *B[i];
        if (GmGeometry::intersectRayTri(*B[i], db, a0, a1, a2, point, t, u, v) && t <= 1.0) return true;
    }
    return false;
}

bool MeshTests::vertexRadiusTest(const int* vertices1, const int* vertices2) const {
    return vertexRadiusTest(vertices1, *this, vertices2);
}

bool MeshTests::vertexRadiusTest(const int* vertices1, const MeshTests& other, const int* vertices2) const {
    if (!doVertexRadiusTest() || !other.doVertexRadiusTest()) return true;
    const std::shared_ptr<std::vector<GmTVector<double>>> pos1 = getVertexRadiusRefPos();
    const std::shared_ptr<std::vector<GmTVector<double>>> pos2 =
        (&other == this) ? pos1 : other.getVertexRadiusRefPos();
    // Released reference positions: the pair is not filtered.
    if (!pos1 || !pos2) return true;
    const std::vector<float>& r1 = *_radii;
    const std::vector<float>& r2 = *other._radii;
    const float sum = r1[std::size_t(vertices1[0])] + r1[std::size_t(vertices1[1])] + r1[std::size_t(vertices1[2])] +
                      r2[std::size_t(vertices2[0])] + r2[std::size_t(vertices2[1])] + r2[std::size_t(vertices2[2])];
    const double r = static_cast<double>(sum) / 6.0;
    const std::vector<GmTVector<double>>& p1 = *pos1;
    const std::vector<GmTVector<double>>& p2 = *pos2;
    return trianglesWithinDistance(p1[std::size_t(vertices1[0])], p1[std::size_t(vertices1[1])],
                                   p1[std::size_t(vertices1[2])], p2[std::size_t(vertices2[0])],
                                   p2[std::size_t(vertices2[1])], p2[std::size_t(vertices2[2])], r);
}

}  // namespace GmIntersection
