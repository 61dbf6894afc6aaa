// The ground-truth sample queries (ccd-queries/<set>/{vertex-face,edge-edge}/*.csv), each also
// scaled by powers of two, through the continuous-time primitives and the swept separation
// filter: no contact of the ground truth is missed, and the filter never rejects a query that
// the primitives report as a contact or the ground truth calls one. Then generated hard cases
// for the filter.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <qgtools/ccd_queries.h>
#include <qgtools/data_dir.h>
#include <quarrygeom/primitives/GmSweptSeparation.h>

#include "ccd_test_util.h"

namespace fs = std::filesystem;

namespace {

using qgtest::Vec;

bool filterRejects(bool ee, const Vec* v) {
    return ee ? GmSweptSeparation::edgeEdgeApart(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7])
              : GmSweptSeparation::vertexFaceApart(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]);
}

// One query at one scale: the primitive's contact is consistent, and the filter keeps every
// contact. Returns whether the filter rejected it.
bool check(bool ee, const Vec* v, bool truth, const std::string& what, int& hits) {
    const qgtest::Contact c = qgtest::ccd(ee, v);
    hits += c.hit;
    EXPECT_FALSE(truth && !c.hit) << "missed contact: " << what;
    if (c.hit) {
        EXPECT_TRUE(c.time >= 0.0 && c.time <= 1.0) << what << " time " << c.time;
        EXPECT_NEAR(c.normal.length(), 1.0, 1e-12) << what;
    }
    const bool rejected = filterRejects(ee, v);
    EXPECT_FALSE(rejected && c.hit) << "filter rejects a contact the primitive reports: " << what;
    EXPECT_FALSE(rejected && truth) << "filter rejects a true contact: " << what;
    return rejected;
}

}  // namespace

TEST(CcdSampleQueries, NoContactIsMissedNorRejectedByTheFilter) {
    const fs::path root = fs::path(qgtools::dataDir()) / "ccd-queries";
    if (!fs::is_directory(root)) GTEST_SKIP() << "no ccd-queries folder under " << qgtools::dataDir();
    int positives = 0, negatives = 0, hits = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".csv") continue;
        const bool ee = entry.path().parent_path().filename() == "edge-edge";
        int index = 0;
        for (const qgtools::CcdQuery& q : qgtools::readCcdQueries(entry.path().string())) {
            (q.truth ? positives : negatives)++;
            const std::string what = entry.path().string() + " #" + std::to_string(index++);
            for (const double scale : {1.0, 0x1p-10, 0x1p12}) {  // exact
                Vec v[8];
                for (int k = 0; k < 8; ++k) v[k] = q.v[k] * scale;
                check(ee, v, q.truth, what + " scaled " + std::to_string(scale), hits);
            }
        }
    }
    EXPECT_GT(positives, 0);
    EXPECT_GT(negatives, 0);
}

// Contacts placed at chosen times (including the ends of the step), coplanar and nearly
// coplanar motion, parallel edges and degenerate faces, rounding noise, scales and offsets by
// powers of two: checked against the primitives.
TEST(SweptSeparation, KeepsGeneratedContactsAndRejectsSeparatedOnes) {
    std::mt19937_64 rng(0x9e3779b97f4a7c15ULL);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    auto vec = [&] { return Vec(u(rng), u(rng), u(rng)); };
    int hits = 0, rejected = 0, total = 0;
    for (int iter = 0; iter < 4000; ++iter) {
        for (const bool ee : {false, true}) {
            const int kind = iter % 9;
            Vec v[8];
            for (Vec& x : v) x = vec();
            const double tc = kind == 1 ? 0.0 : (kind == 2 ? 1.0 : 0.5 * (u(rng) + 1.0));
            if (kind >= 1 && kind <= 3) {
                // The first point (with its edge) shifted so that it meets the face (the other edge) at tc.
                const Vec pa = v[1] + (v[5] - v[1]) * tc, pb = v[2] + (v[6] - v[2]) * tc, pc = v[3] + (v[7] - v[3]) * tc;
                const double s = 0.15 * (u(rng) + 1.0), w = 0.15 * (u(rng) + 1.0);
                const Vec target = ee ? pb + (pc - pb) * s : pa + (pb - pa) * s + (pc - pa) * w;
                const Vec shift = target - (v[0] + (v[4] - v[0]) * tc);
                for (const int k : {0, 4}) v[k] += shift;
                if (ee)
                    for (const int k : {1, 5}) v[k] += shift;
            } else if (kind == 4) {  // all in one plane throughout, with rounding noise
                for (Vec& x : v) x.z = 1e-17 * u(rng);
            } else if (kind == 5) {  // nearly coplanar
                for (Vec& x : v) x.z = 0.25 + 1e-9 * u(rng);
            } else if (kind == 6) {  // parallel edges / a degenerate face
                for (int s = 0; s < 2; ++s) {
                    v[4 * s + 3] = v[4 * s + 1] + (v[4 * s + 2] - v[4 * s + 1]) * 2.0;
                    if (ee) v[4 * s + 1] = v[4 * s + 0] + (v[4 * s + 3] - v[4 * s + 2]);
                }
            } else if (kind == 7) {  // a grazing touch at the end of the step, nearly at rest before
                for (int k = 0; k < 4; ++k) v[k] = v[k + 4] + vec() * 1e-3;
                v[4].z = v[5].z = v[6].z = v[7].z = 0.5;
            } else if (kind == 8) {  // small motion, the first point (edge) well above the others
                for (int k = 0; k < 4; ++k) v[k + 4] = v[k] + vec() * 0.1;
                for (const int k : {0, 4, 1, 5})
                    if (ee || k == 0 || k == 4) v[k].z += 3.0;
            }
            for (const double sc : {0x1p-20, 1.0, 0x1p20})
                for (const double off : {0.0, 0x1p10}) {
                    Vec s[8];
                    for (int k = 0; k < 8; ++k) s[k] = v[k] * sc + Vec(off, -off, off);
                    ++total;
                    rejected += check(ee, s, false, "kind " + std::to_string(kind) + " case " + std::to_string(iter), hits);
                }
        }
    }
    // Both outcomes occur: the generator produces contacts, and the filter is not a no-op.
    EXPECT_GT(hits, total / 20);
    EXPECT_GT(rejected, total / 20);
}
