// Invalid input through the public API: each mistake raises std::invalid_argument with
// its exact text; flooded diagnostics stay bounded and whole; caches under concurrent readers.
#include <gtest/gtest.h>
#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>
#include <quarrygeom/quarrygeom.h>
#include "qgtools/shapes.h"

namespace {

using qgtools::makeClothGrid;
using qgtools::makeIcosphere;

using V = GmTVector<double>;
using Positions = std::vector<V>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// A finished 4 x 4 grid (32 faces, 25 vertices) and its vertex positions.
struct BadInputs : ::testing::Test {
    GmTriangleMesh grid = makeClothGrid(4, 4);
    Positions moved = grid.getVertices();
    GmBVHMetrics metrics;
    std::vector<GmContinuousTimeIntersectionInfo> contacts;
    std::vector<GmProximityCheckInfo> near;
};

GmTriangleMesh triangles(int a, int b, int c) {
    GmTriangleMesh m;
    for (int i = 0; i < 3; ++i) m.addVertex(V(i, i * i, 0.0));
    m.addFace(0, 1, 2);
    m.addFace(a, b, c);
    return m;
}

TEST_F(BadInputs, EachMistakeThrowsInvalidArgumentWithItsText) {
    const std::string unfinished = "GmBoundingVolumeHierarchy::build: the mesh has vertices or faces added since its "
                                   "last finishConstruction() (call it before building a hierarchy over the mesh)";
    const std::string refit = "GmBoundingVolumeHierarchy::refit: ";
    const std::vector<std::pair<std::string, std::function<void(BadInputs&)>>> cases = {
        {"GmTriangleMesh::finishConstruction: face 1 refers to vertex 3, but the mesh has 3 vertices",
         [](BadInputs&) { triangles(2, 1, 3).finishConstruction(); }},
        {"GmTriangleMesh::addFace: vertex index -1 of face 1 is negative", [](BadInputs&) { triangles(0, -1, 2); }},
        {unfinished, [](BadInputs&) { GmTriangleMesh m = triangles(0, 2, 1); GmBoundingTree tree(&m); }},
        {unfinished, [](BadInputs& s) { s.grid.addFace(0, 6, 1); GmBoundingTree tree(&s.grid); }},
        {refit + "the mesh has 33 faces, the hierarchy was made for 32 (make a new hierarchy after changing the faces)",
         [](BadInputs& s) { GmBoundingTree tree(&s.grid); s.grid.addFace(0, 6, 1); s.grid.finishConstruction(); tree.refit(); }},
        {refit + "the position vector has 24 entries for a mesh of 25 vertices",
         [](BadInputs& s) { GmBoundingTree tree(&s.grid, s.moved); s.moved.pop_back(); tree.refit(s.moved); }},
        {"GmBoundingVolumeHierarchy::continuousTimeSelfIntersect: the end position vector has 24 entries for a mesh of 25 vertices",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, s.moved);
             tree.continuousTimeSelfIntersect(s.contacts, (s.moved.pop_back(), s.moved), false, false, false, 0, s.metrics);
         }},
        {"GmBoundingVolumeHierarchy::build: mesh vertex 7 is not finite (nan, 0, 0)",
         [](BadInputs& s) { s.grid.setVertex(7, V(kNaN, 0.0, 0.0)); GmBoundingTree tree(&s.grid); }},
        {refit + "mesh vertex 12 is not finite (0.5, inf, 0)",
         [](BadInputs& s) { GmBoundingTree tree(&s.grid, 0.01); s.grid.setVertex(12, V(0.5, kInf, 0.0)); tree.refit(0.01); }},
        {refit + "position 3 is not finite (0.75, 0, nan)",
         [](BadInputs& s) { GmBoundingTree tree(&s.grid, s.moved); s.moved[3].z = kNaN; tree.refit(s.moved); }},
        {"GmBoundingVolumeHierarchy::build: thickness nan is not >= 0", [](BadInputs& s) { GmBoundingTree tree(&s.grid, kNaN); }},
        {refit + "thickness -0.25 is not >= 0", [](BadInputs& s) { GmBoundingTree(&s.grid, 0.25).refit(-0.25); }},
        {"GmBoundingVolumeHierarchy::selfProximityCheck: distance nan is not >= 0",
         [](BadInputs& s) { GmBoundingTree(&s.grid, 0.05).selfProximityCheck(s.near, kNaN, false, false, false, 0, 0.0, s.metrics); }},
        {"GmBoundingVolumeHierarchy::proximityCheck: distance -0.05 is not >= 0",
         [](BadInputs& s) {
             GmBoundingTree tree(&s.grid, 0.05), other(&s.grid, 0.05);
             tree.proximityCheck(s.near, -0.05, other, nullptr, false, false, false, 0, 1, 0.0, s.metrics);
         }},
    };
    for (const auto& c : cases) {
        grid = makeClothGrid(4, 4);
        moved = grid.getVertices();
        try {
            c.second(*this);
            ADD_FAILURE() << "no exception: " << c.first;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(e.what(), c.first);
        }
    }
}

TEST_F(BadInputs, FailedFinishConstructionLeavesTheMeshUnfinished) {
    GmTriangleMesh m = triangles(0, 1, 3);
    EXPECT_THROW(m.finishConstruction(), std::invalid_argument);
    EXPECT_FALSE(m.isConstructionFinished());
    m.addVertex(V(0, 0, 1));
    m.finishConstruction();
    EXPECT_TRUE(m.isConstructionFinished() && m.getNumberEdges() == 5);
}

// A collapsed grid: every primitive pair is degenerate for the whole step. Standard error
// gets a few whole lines per message and one count ("... and 12,345 more"), never a line per pair.
TEST(Diagnostics, CollapsedMeshWritesBoundedWholeLines) {
    GmTriangleMesh mesh = makeClothGrid(10, 10);
    const Positions collapsed(static_cast<std::size_t>(mesh.getNumberVertices()), V(0.25, 0.5, 0.75));
    mesh.setVertices(collapsed);
    GmBoundingTree tree(&mesh, collapsed);
    std::vector<GmContinuousTimeIntersectionInfo> out;
    GmBVHMetrics metrics;
    ::testing::internal::CaptureStderr();
    tree.continuousTimeSelfIntersect(out, collapsed, false, false, false, 0, metrics);
    std::istringstream lines(::testing::internal::GetCapturedStderr());
    const std::regex whole("Error in .*normal\\.( \\.\\.\\. and ([0-9]{1,3}(,[0-9]{3})*) more)?");
    std::string line;
    std::smatch match;
    int count = 0, summaries = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_TRUE(std::regex_match(line, match, whole) && line.find("Error in ", 1) == std::string::npos) << line;
        EXPECT_TRUE(!match[2].matched || std::stoul(std::regex_replace(match[2].str(), std::regex(","), "")) >= 1000u) << line;
        summaries += match[2].matched ? 1 : 0;
    }
    EXPECT_TRUE(summaries >= 1 && count <= 8);  // at most three lines and one count per message
}

// Caches filled lazily by concurrent readers give the serial answers: face data, unit edges
// and vertex normals of turned positions read every round after setDirty() by threads
// released together (two in the same order, so that they meet on every slot, two elsewhere).
TEST(ConcurrentReaders, FillTheCachesWithTheSerialValues) {
    GmTriangleMesh reference = makeIcosphere(3), shared = reference;
    const Positions start = shared.getVertices();
    const int nv = shared.getNumberVertices(), ne = shared.getNumberEdges(), n = nv + ne + shared.getNumberFaces();
    auto value = [nv, ne](const GmTriangleMesh& m, int j) {  // slot j: a vertex normal, unit edge or face normal and area
        return j < nv ? m.getVertexNormal(j) : j < nv + ne ? m.getUnitEdge(j - nv) : m.getFaceNormal(j - nv - ne) * m.getFaceArea(j - nv - ne);
    };
    for (int round = 0; round < 200; ++round) {
        Positions turned = start;  // new values every round: a stale slot shows
        for (V& p : turned) p = V(p.x * std::cos(round) - p.y * std::sin(round), p.x * std::sin(round) + p.y * std::cos(round), p.z);
        reference.setVertices(turned);
        shared.getWritableVertices() = turned;
        shared.setDirty();
        std::vector<std::vector<V>> got(4, std::vector<V>(static_cast<std::size_t>(n)));
        std::atomic<int> ready{0};
        std::vector<std::thread> workers;
        for (int k = 0; k < 4; ++k)
            workers.emplace_back([&, k] {
                for (ready.fetch_add(1); ready.load() < 4;) std::this_thread::yield();
                for (int i = 0; i < n; ++i) got[k][static_cast<std::size_t>((i + k / 2 * n / 2) % n)] = value(shared, (i + k / 2 * n / 2) % n);
            });
        for (std::thread& w : workers) w.join();
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < n; ++j) ASSERT_EQ(got[k][static_cast<std::size_t>(j)], value(reference, j)) << round << ' ' << j;
    }
}

}  // namespace
