// The swept separation filter never rejects a configuration that the continuous-time tests
// report as a contact (nor one whose exact ground truth is a contact), on the sample queries
// and on generated hard cases; and it does reject clearly separated ones.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <qgtools/ccd_queries.h>
#include <qgtools/data_dir.h>
#include <quarrygeom/primitives/GmIntersection.h>
#include <quarrygeom/primitives/GmSweptSeparation.h>

namespace fs = std::filesystem;

namespace {

using Vec = GmTVector<double>;

struct Case {
    Vec v[8];  // start positions of the four points, then their end positions
};

bool primitiveHit(const Case& c, bool edgeEdge) {
    double time, s, t;
    Vec point, bary, n;
    if (edgeEdge)
        return GmIntersection::edgeEdgeIntersection(c.v[0], c.v[1], c.v[2], c.v[3], c.v[4], c.v[5], c.v[6], c.v[7],
                                                    1.7976931348623157e308, time, s, t, n);
    return GmIntersection::pointFaceIntersection(c.v[0], c.v[1], c.v[2], c.v[3], c.v[4], c.v[5], c.v[6], c.v[7],
                                                 1.7976931348623157e308, time, point, bary, n);
}

bool filterRejects(const Case& c, bool edgeEdge) {
    return edgeEdge ? GmSweptSeparation::edgeEdgeApart(c.v[0], c.v[1], c.v[2], c.v[3], c.v[4], c.v[5], c.v[6], c.v[7])
                    : GmSweptSeparation::vertexFaceApart(c.v[0], c.v[1], c.v[2], c.v[3], c.v[4], c.v[5], c.v[6],
                                                         c.v[7]);
}

struct Tally {
    int hits = 0, rejected = 0, total = 0;
};

// Checks one case; counts it.
void check(const Case& c, bool edgeEdge, bool truth, const std::string& what, Tally& tally) {
    const bool hit = primitiveHit(c, edgeEdge);
    const bool rejected = filterRejects(c, edgeEdge);
    ++tally.total;
    tally.hits += hit ? 1 : 0;
    tally.rejected += rejected ? 1 : 0;
    if (rejected) {
        EXPECT_FALSE(hit) << "filter rejects a contact the test reports: " << what;
        EXPECT_FALSE(truth) << "filter rejects a true contact: " << what;
    }
}

std::uint64_t rngState = 0x9e3779b97f4a7c15ULL;
double uniform() {  // [-1, 1)
    rngState ^= rngState << 13;
    rngState ^= rngState >> 7;
    rngState ^= rngState << 17;
    return static_cast<double>(rngState >> 11) * 0x1p-52 - 1.0;
}
Vec randomVec() { return Vec(uniform(), uniform(), uniform()); }

}  // namespace

TEST(SweptSeparation, KeepsEverySampleQueryContact) {
    const fs::path root = fs::path(qgtools::dataDir()) / "ccd-queries";
    if (!fs::is_directory(root)) GTEST_SKIP() << "no ccd-queries folder";
    Tally tally;
    int negatives = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".csv") continue;
        const bool edgeEdge = entry.path().parent_path().filename() == "edge-edge";
        int index = 0;
        for (const qgtools::CcdQuery& q : qgtools::readCcdQueries(entry.path().string())) {
            Case c;
            for (int k = 0; k < 8; ++k) c.v[k] = q.v[k];
            negatives += q.truth ? 0 : 1;
            const std::string what = entry.path().string() + " #" + std::to_string(index++);
            for (const double scale : {1.0, 1.0 / 1024.0, 4096.0}) {  // exact scalings
                Case s = c;
                for (Vec& v : s.v) v = v * scale;
                check(s, edgeEdge, q.truth, what + " scale " + std::to_string(scale), tally);
            }
        }
    }
    EXPECT_GT(tally.hits, 0);
    EXPECT_GT(negatives, 0);
}

// Generated cases: contacts placed at chosen times (including the ends of the step), coplanar
// and nearly coplanar motion, parallel edges, degenerate faces, rounding noise, scales and
// offsets by powers of two; each checked against the continuous tests.
TEST(SweptSeparation, KeepsGeneratedContacts) {
    Tally tally;
    const double scales[] = {0x1p-20, 1.0, 0x1p20};
    const double offsets[] = {0.0, 0x1p10};
    for (int iter = 0; iter < 4000; ++iter) {
        for (const bool edgeEdge : {false, true}) {
            const int kind = iter % 9;
            Case c;
            for (Vec& v : c.v) v = randomVec();
            const double tc = kind == 1 ? 0.0 : (kind == 2 ? 1.0 : 0.5 * (uniform() + 1.0));
            switch (kind) {
                case 0:  // random motion
                    break;
                case 1:
                case 2:
                case 3: {
                    // The vertex (an end point of the first edge) lies on the face (the second
                    // edge) at tc.
                    const Vec pa = c.v[1] + (c.v[5] - c.v[1]) * tc, pb = c.v[2] + (c.v[6] - c.v[2]) * tc;
                    const Vec pc = c.v[3] + (c.v[7] - c.v[3]) * tc;
                    const double u = 0.3 * (uniform() + 1.0) * 0.5, w = 0.3 * (uniform() + 1.0) * 0.5;
                    const Vec target = edgeEdge ? pb + (pc - pb) * u : pa + (pb - pa) * u + (pc - pa) * w;
                    // Shift the first point's path (with its edge) so that it passes through target.
                    const Vec shift = target - (c.v[0] + (c.v[4] - c.v[0]) * tc);
                    for (const int k : {0, 4}) c.v[k] += shift;
                    if (edgeEdge)
                        for (const int k : {1, 5}) c.v[k] += shift;
                    break;
                }
                case 4:  // all four points in one plane throughout (z = 0), with rounding noise
                    for (Vec& v : c.v) v.z = 1e-17 * uniform();
                    break;
                case 5:  // nearly coplanar: within 1e-9 of z = 0.25 throughout
                    for (Vec& v : c.v) v.z = 0.25 + 1e-9 * uniform();
                    break;
                case 6:  // parallel edges / a degenerate face: points 2 and 3 on one line with 1
                    for (int s = 0; s < 2; ++s) {
                        c.v[4 * s + 3] = c.v[4 * s + 1] + (c.v[4 * s + 2] - c.v[4 * s + 1]) * 2.0;
                        if (edgeEdge) c.v[4 * s + 1] = c.v[4 * s + 0] + (c.v[4 * s + 3] - c.v[4 * s + 2]);
                    }
                    break;
                case 7:  // a grazing touch at the end of the step, the points at rest before
                    for (int k = 0; k < 4; ++k) c.v[k] = c.v[k + 4] + randomVec() * 1e-3;
                    c.v[4].z = c.v[5].z = c.v[6].z = c.v[7].z = 0.5;
                    break;
                case 8:  // small motion, the first point (edge) well above the others
                    for (int k = 0; k < 4; ++k) c.v[k + 4] = c.v[k] + randomVec() * 0.1;
                    for (const int k : {0, 4, 1, 5})
                        if (edgeEdge || k == 0 || k == 4) c.v[k].z += 3.0;
                    break;
            }
            for (const double sc : scales)
                for (const double off : offsets) {
                    Case s = c;
                    for (Vec& v : s.v) v = v * sc + Vec(off, -off, off);
                    check(s, edgeEdge, false, "generated case " + std::to_string(iter) + " kind " +
                                                  std::to_string(kind) + (edgeEdge ? " edge-edge" : " vertex-face"),
                          tally);
                }
        }
    }
    // Both outcomes occur: the generator produces contacts, and the filter is not a no-op.
    EXPECT_GT(tally.hits, tally.total / 20);
    EXPECT_GT(tally.rejected, tally.total / 20);
}
