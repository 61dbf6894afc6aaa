// Generated hard cases of the continuous-time primitives: features that meet at a known time by
// construction (checked in exact rational arithmetic), in degenerate arrangements (parallel and
// collinear edges passing through each other, motions inside one plane, contacts exactly at
// t = 0 and t = 1, faces collapsing at the contact), with and without rounding noise of 1e-16
// relative, each scaled by powers of two over the supported range. None may be missed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ccd_test_util.h"
#include "exact_reference.h"

namespace {

using qgtest::Vec;

// One query: eight points (start positions, then end positions) as the primitives take them:
// vertex-face p, a, b, c; edge-edge a, b, c, d. `time` is a contact time by construction.
struct Query {
    std::string family;
    bool edgeEdge;
    bool transversal;  // the features pass through each other at an angle: noise cannot part them
    Vec start[4], end[4];
    double time;
};

// A dyadic number on a coarse grid, so that every construction below is exact in doubles.
struct Dyadic {
    std::mt19937& rng;
    double operator()(int range = 8) {
        std::uniform_int_distribution<int> u(-range * 16, range * 16);
        return u(rng) / 16.0;
    }
    Vec vec(int range = 8) {
        const double x = (*this)(range), y = (*this)(range), z = (*this)(range);
        return Vec(x, y, z);
    }
};

// Points that stand at `contact` at time t and move with velocity v: start = contact - t v,
// end = contact + (1 - t) v (exact on the grid).
void place(Query& q, int i, const Vec& contact, const Vec& v) {
    q.start[i] = contact - v * q.time;
    q.end[i] = contact + v * (1.0 - q.time);
}

std::vector<Query> generate(unsigned seed, int perFamily) {
    std::mt19937 rng(seed);
    Dyadic d{rng};
    const double times[] = {0.0, 1.0, 0.5, 0.25, 0.75};
    std::vector<Query> out;
    for (int n = 0; n < perFamily; ++n) {
        const double t = times[n % 5];
        // Edges crossing at a point.
        {
            Query q{"edges crossing", true, true, {}, {}, t};
            const Vec x = d.vec(), u = d.vec(2), w = d.vec(2);
            place(q, 0, x - u, d.vec());
            place(q, 1, x + u * 0.5, d.vec());
            place(q, 2, x - w * 0.5, d.vec());
            place(q, 3, x + w, d.vec());
            out.push_back(q);
        }
        // Parallel edges passing through each other: both translate, collinear and overlapping at t.
        {
            Query q{"parallel edges passing", true, false, {}, {}, t};
            const Vec x = d.vec(), u = d.vec(2), v1 = d.vec(), v2 = d.vec();
            place(q, 0, x, v1);
            place(q, 1, x + u, v1);
            place(q, 2, x + u * 0.5, v2);
            place(q, 3, x + u * 1.5, v2);
            out.push_back(q);
        }
        // Collinear edges meeting end to end at t.
        {
            Query q{"collinear end to end", true, false, {}, {}, t};
            const Vec x = d.vec(), u = d.vec(2), v = d.vec();
            place(q, 0, x - u, v);
            place(q, 1, x, v);
            place(q, 2, x, Vec());
            place(q, 3, x + u, Vec());
            out.push_back(q);
        }
        // Edges moving inside one plane, one end point reaching the other edge at t.
        {
            Query q{"edges in one plane", true, false, {}, {}, t};
            auto flat = [](Vec v) { return Vec(v.x, v.y, 0.0); };
            const Vec a = flat(d.vec()), b = flat(d.vec());
            const Vec v = flat(d.vec());
            place(q, 0, a, Vec());
            place(q, 1, b, Vec());
            place(q, 2, a + (b - a) * 0.5, v);
            place(q, 3, a + (b - a) * 0.5 + flat(d.vec(2)), v);
            out.push_back(q);
        }
        // A vertex passing through the face's interior, an edge or a corner.
        for (const char* where : {"interior", "edge", "corner"}) {
            Query q{std::string("vertex through face ") + where, false, where[0] == 'i', {}, {}, t};
            const Vec a = d.vec(), b = d.vec(), c = d.vec();
            const Vec on = where[0] == 'i' ? (a * 0.25 + b * 0.25 + c * 0.5) : (where[0] == 'e' ? (a + b) * 0.5 : c);
            place(q, 0, on, d.vec());
            place(q, 1, a, d.vec());
            place(q, 2, b, d.vec());
            place(q, 3, c, d.vec());
            out.push_back(q);
        }
        // A face collapsing to a segment at t, the vertex on that segment then.
        {
            Query q{"face collapsing at contact", false, false, {}, {}, t};
            const Vec a = d.vec(), u = d.vec(2);
            place(q, 0, a + u * 0.25, d.vec());
            place(q, 1, a, d.vec());
            place(q, 2, a + u, d.vec());
            place(q, 3, a + u * 0.5, d.vec());
            out.push_back(q);
        }
        // A vertex and a face moving inside one plane, the vertex crossing an edge at t.
        {
            Query q{"vertex and face in one plane", false, false, {}, {}, t};
            auto flat = [](Vec v) { return Vec(v.x, v.y, 0.0); };
            const Vec a = flat(d.vec()), b = flat(d.vec()), c = flat(d.vec());
            place(q, 0, (a + b) * 0.5, flat(d.vec()));
            place(q, 1, a, flat(d.vec()));
            place(q, 2, b, flat(d.vec()));
            place(q, 3, c, flat(d.vec()));
            out.push_back(q);
        }
    }
    return out;
}

// The features meet at the query's time, exactly.
bool meetsExactly(const Query& q) {
    const mpq_class t(q.time);
    qgtest::Exact p[4];
    for (int i = 0; i < 4; ++i) p[i] = qgtest::lerp(qgtest::exact(q.start[i]), qgtest::exact(q.end[i]), t);
    return q.edgeEdge ? qgtest::exactTrianglesMeet(p[0], p[1], p[1], p[2], p[3], p[3])
                      : qgtest::exactTrianglesMeet(p[0], p[0], p[0], p[1], p[2], p[3]);
}

Query transformed(const Query& q, double scale, const Vec& offset, const std::function<double(double)>& noise) {
    Query r = q;
    for (int i = 0; i < 4; ++i) {
        for (Vec* v : {&r.start[i], &r.end[i]}) {
            *v = *v * scale + offset;
            for (int k = 0; k < 3; ++k) (*v)[k] = noise((*v)[k]);
        }
    }
    return r;
}

std::string describe(const Query& q) {
    std::ostringstream s;
    s.precision(17);
    s << q.family << " at t = " << q.time << ":";
    for (int i = 0; i < 4; ++i) s << " " << q.start[i];
    s << " ->";
    for (int i = 0; i < 4; ++i) s << " " << q.end[i];
    return s.str();
}

}  // namespace

TEST(CcdHardCases, NoConstructedContactIsMissedAtAnyScale) {
    const std::vector<Query> queries = generate(3, 100);
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    const auto exactly = [](double x) { return x; };
    const auto rounding = [&](double x) { return x * (1.0 + 1e-16 * unit(rng)); };
    struct Frame {
        int exponent;
        double offset;
    };
    // Feature sizes from about 1e-12 to 1e12; coordinates up to about 1e15.
    const Frame frames[] = {{0, 0.0}, {-40, 0.0}, {-20, 0.0}, {20, 0.0}, {36, 0.0}, {20, 0x1p49}, {-40, 0x1p-30}};
    for (const Query& q : queries) {
        ASSERT_TRUE(meetsExactly(q)) << describe(q);
        for (const Frame& f : frames) {
            const double scale = std::ldexp(1.0, f.exponent);
            // Rounding noise only where it cannot part the features (a crossing at an angle,
            // well inside the face, at a time inside the step).
            const int variants = q.transversal && q.time > 0.0 && q.time < 1.0 ? 2 : 1;
            for (int noisy = 0; noisy < variants; ++noisy) {
                const Query s = transformed(q, scale, Vec(f.offset, -f.offset, f.offset),
                                            noisy ? std::function<double(double)>(rounding) : exactly);
                Vec v[8];
                std::copy(s.start, s.start + 4, v);
                std::copy(s.end, s.end + 4, v + 4);
                const qgtest::Contact c = qgtest::ccd(s.edgeEdge, v);
                ASSERT_TRUE(c.hit) << describe(s) << (noisy ? " (noisy)" : "");
                EXPECT_NEAR(c.normal.length(), 1.0, 1e-12) << describe(s);
                // The first contact found is not later than the constructed one.
                if (!noisy) {
                    EXPECT_LE(c.time, q.time + 1e-6) << describe(s);
                }
            }
        }
    }
}
