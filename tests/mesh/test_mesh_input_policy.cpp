// Invalid input through the public API: every mistake in one table must raise
// std::invalid_argument naming the offending index or value; flooded diagnostics stay
// bounded and whole; lazily filled caches give the serial answers under concurrent readers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <quarrygeom/quarrygeom.h>

#include "qgtools/shapes.h"

namespace {

using qgtools::makeClothGrid;
using qgtools::makeFoldedGrid;
using qgtools::makeIcosphere;

using V = GmTVector<double>;
using Positions = std::vector<V>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// A finished 4 x 4 grid (32 faces) and its vertex positions.
struct BadInputs : ::testing::Test {
    GmTriangleMesh grid = makeClothGrid(4, 4);
    Positions moved = grid.getVertices();
    GmBVHMetrics metrics;
};

struct Case {
    const char* name;
    const char* message;  // part of the exception's text
    std::function<void(BadInputs&)> mistake;
};

TEST_F(BadInputs, EachMistakeThrowsInvalidArgumentNamingIt) {
    const std::vector<Case> cases = {
        {"vertex index past the end", "refers to vertex 5",
         [](BadInputs&) {
             GmTriangleMesh m;
             for (int i = 0; i < 3; ++i) m.addVertex(V(i, i * i, 0.0));
             m.addFace(0, 1, 5);
             m.finishConstruction();
         }},
        {"negative vertex index", "vertex index -1",
         [](BadInputs&) {
             GmTriangleMesh m;
             for (int i = 0; i < 3; ++i) m.addVertex(V(i, i * i, 0.0));
             m.addFace(0, -1, 2);
         }},
        {"tree before finishConstruction", "finishConstruction",
         [](BadInputs&) {
             GmTriangleMesh m;
             for (int i = 0; i < 3; ++i) m.addVertex(V(i, i * i, 0.0));
             m.addFace(0, 1, 2);
             GmBoundingTree tree(&m);
         }},
        {"face added after finishConstruction", "finishConstruction",
         [](BadInputs& s) {
             s.grid.addFace(0, 6, 1);
             GmBoundingTree tree(&s.grid);
         }},
        {"faces changed under a built tree", "made for 32",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid);
             s.grid.addFace(0, 6, 1);
             s.grid.finishConstruction();
             tree.refit();
         }},
        {"short end positions, refit", "24 entries for a mesh of 25",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, s.moved);
             s.moved.pop_back();
             tree.refit(s.moved);
         }},
        {"short end positions, continuous query", "24 entries for a mesh of 25",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, s.moved);
             s.moved.pop_back();
             std::vector<GmContinuousTimeIntersectionInfo> out;
             tree.continuousTimeSelfIntersect(out, s.moved, false, false, false, 0, s.metrics);
         }},
        {"NaN mesh vertex, build", "mesh vertex 7 is not finite (nan",
         [](BadInputs& s) {
             s.grid.setVertex(7, V(kNaN, 0.0, 0.0));
             GmBoundingTree tree(&s.grid);
         }},
        {"infinite mesh vertex, refit", "mesh vertex 12 is not finite (0.5, inf",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, 0.01);
             s.grid.setVertex(12, V(0.5, kInf, 0.0));
             tree.refit(0.01);
         }},
        {"NaN end position, refit", "position 3 is not finite",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, s.moved);
             s.moved[3].z = kNaN;
             tree.refit(s.moved);
         }},
        {"NaN thickness", "thickness nan",
         [](BadInputs& s) { GmBoundingTree tree(&s.grid, kNaN); }},
        {"negative thickness", "thickness -0.25",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, 0.25);
             tree.refit(-0.25);
         }},
        {"NaN proximity distance", "distance nan",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, 0.05);
             std::vector<GmProximityCheckInfo> out;
             tree.selfProximityCheck(out, kNaN, false, false, false, 0, 0.0, s.metrics);
         }},
        {"negative proximity distance", "distance -0.05",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, 0.05);
             GmTriangleMesh other = makeClothGrid(2, 2);
             GmBoundingTree otherTree(&other, 0.05);
             std::vector<GmProximityCheckInfo> out;
             tree.proximityCheck(out, -0.05, otherTree, nullptr, false, false, false, 0, 1, 0.0, s.metrics);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        BadInputs& s = *this;
        s.grid = makeClothGrid(4, 4);
        s.moved = s.grid.getVertices();
        try {
            c.mistake(s);
            ADD_FAILURE() << "no exception";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
}

TEST_F(BadInputs, FailedFinishConstructionLeavesTheMeshUnfinished) {
    GmTriangleMesh m;
    for (int i = 0; i < 3; ++i) m.addVertex(V(i, i * i, 0.0));
    m.addFace(0, 1, 5);
    EXPECT_THROW(m.finishConstruction(), std::invalid_argument);
    EXPECT_FALSE(m.isConstructionFinished());
    m.addVertex(V(0, 0, 1));
    m.addVertex(V(0, 1, 1));
    m.addVertex(V(1, 1, 1));
    m.finishConstruction();
    EXPECT_TRUE(m.isConstructionFinished());
    EXPECT_EQ(m.getNumberEdges(), 3);
}

// All 441 vertices of a 20 x 20 grid at one point: every primitive pair is degenerate for the
// whole step. Standard error gets a few whole lines per kind and one count, never a line per pair.
TEST(Diagnostics, CollapsedMeshWritesBoundedWholeLines) {
    GmTriangleMesh mesh = makeClothGrid(20, 20);
    const Positions collapsed(static_cast<std::size_t>(mesh.getNumberVertices()), V(0.25, 0.5, 0.75));
    mesh.setVertices(collapsed);
    GmBoundingTree tree(&mesh, collapsed);
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ::testing::internal::CaptureStderr();
    tree.continuousTimeSelfIntersect(out, collapsed, false, false, false, 0, metrics);
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_GT(metrics.narrowPhaseTests(), 50000u);

    std::istringstream lines(err);
    std::string line;
    int count = 0, summaries = 0;
    while (std::getline(lines, line)) {
        ++count;
        // One message per line, never two run together.
        EXPECT_EQ(line.rfind("Error in ", 0), 0u) << line;
        EXPECT_EQ(line.find("Error in ", 1), std::string::npos) << line;
        const std::size_t at = line.find("normal. ... and ");
        if (at == std::string::npos) {
            EXPECT_EQ(line.compare(line.size() - 7, 7, "normal."), 0) << line;
            continue;
        }
        // "... and 12,345 more": digits grouped by three.
        ++summaries;
        const std::size_t first = at + 16, last = line.rfind(" more");
        ASSERT_EQ(last + 5, line.size()) << line;
        const std::string number = line.substr(first, last - first);
        std::string digits;
        for (std::size_t i = 0; i < number.size(); ++i) {
            if ((number.size() - i) % 4 == 0)
                EXPECT_EQ(number[i], ',') << number;
            else
                digits += number[i];
        }
        EXPECT_GE(std::stoul(digits), 1000u) << number;
    }
    // At most three lines and one count for each of the two continuous-time messages.
    EXPECT_GE(summaries, 1) << err;
    EXPECT_LE(count, 8) << err;
}

// ---- Lazily filled caches under concurrent readers ---------------------------------------------

std::vector<std::string> sortedText(const std::vector<GmContinuousTimeIntersectionInfo>& records) {
    std::vector<std::string> out;
    for (const auto& r : records) {
        std::ostringstream os;
        os << r;
        out.push_back(os.str());
    }
    std::sort(out.begin(), out.end());
    return out;
}

// A folded grid whose layers move towards each other over the step.
struct Folded {
    GmTriangleMesh mesh = makeFoldedGrid(24, 24, 1.0, 1.0);
    Positions end;
    Folded() {
        end = mesh.getVertices();
        for (V& p : end) p = V(p.x, p.y * 0.97, p.z * 0.5);
    }
};

TEST(ConcurrentReaders, TwoSelfQueriesOnOneFreshMeshMatchTheSerialRun) {
    Folded reference;
    GmBoundingTree refTree(&reference.mesh, reference.end);
    std::vector<GmContinuousTimeIntersectionInfo> expected;
    GmBVHMetrics refMetrics;
    refTree.continuousTimeSelfIntersect(expected, reference.end, false, false, false, 0, refMetrics);
    ASSERT_FALSE(expected.empty());

    Folded shared;
    GmBoundingTree tree(&shared.mesh, shared.end);
    shared.mesh.setDirty();
    std::vector<GmContinuousTimeIntersectionInfo> got[2];
    GmBVHMetrics metrics[2];
    std::thread workers[2];
    for (int k = 0; k < 2; ++k)
        workers[k] = std::thread([&, k] {
            tree.continuousTimeSelfIntersect(got[k], shared.end, false, false, false, 0, metrics[k]);
        });
    for (std::thread& w : workers) w.join();
    for (int k = 0; k < 2; ++k) EXPECT_EQ(sortedText(got[k]), sortedText(expected));
}

TEST(ConcurrentReaders, SinglePointQueriesFromSeveralThreadsOnAFreshMesh) {
    GmTriangleMesh reference = makeIcosphere(3);
    GmTriangleMesh shared = reference;
    GmBoundingTree tree(&shared);
    shared.setDirty();
    std::vector<V> points;
    for (int i = 0; i < 64; ++i) points.emplace_back(std::cos(i * 0.7) * 1.3, std::sin(i * 1.1), std::cos(i * 0.3) * 0.8);

    constexpr int kThreads = 4;
    std::vector<std::vector<V>> normals(kThreads);
    std::thread workers[kThreads];
    for (int k = 0; k < kThreads; ++k)
        workers[k] = std::thread([&, k] {
            // Each thread starts at a different vertex so that fills meet in the middle.
            const int nv = shared.getNumberVertices();
            normals[k].resize(static_cast<std::size_t>(nv));
            for (int i = 0; i < nv; ++i) {
                const int v = (i + k * nv / kThreads) % nv;
                normals[k][static_cast<std::size_t>(v)] = shared.getVertexNormal(v);
            }
            for (const V& p : points) {
                V closest, normal;
                int face = -1;
                double s = 0.0, t = 0.0;
                tree.findClosestPoint(p, closest, normal, face, s, t, nullptr, false);
                EXPECT_EQ(normal, shared.getFaceNormal(face));
            }
        });
    for (std::thread& w : workers) w.join();
    for (int k = 0; k < kThreads; ++k)
        for (int v = 0; v < reference.getNumberVertices(); ++v)
            EXPECT_EQ(normals[k][static_cast<std::size_t>(v)], reference.getVertexNormal(v)) << v;
}

}  // namespace
