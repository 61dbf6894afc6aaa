// A short tour of the API: build a mesh, put a hierarchy over it, ask point and ray
// queries, then sweep the mesh over one step and collect continuous-time contacts.
#include <quarrygeom/quarrygeom.h>

#include <iostream>
#include <vector>

int main() {
    // 1. An indexed mesh: an octahedron of radius 1. Faces are counter-clockwise seen from outside.
    GmTriangleMesh mesh("octahedron");
    const GmTVector<double> corners[6] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (const auto& p : corners) mesh.addVertex(p);
    const int faces[8][3] = {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4}, {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    for (const auto& f : faces) mesh.addFace(f[0], f[1], f[2]);
    mesh.finishConstruction();  // adjacency, closed flag, caches
    std::cout << "faces " << mesh.getNumberFaces() << ", edges " << mesh.getNumberEdges()
              << ", closed " << std::boolalpha << mesh.isClosed() << "\n";

    // 2. A hierarchy over the faces at their current positions.
    GmBoundingTree tree(&mesh);

    // 3. Point queries.
    GmTVector<double> closest, normal;
    int face = -1;
    double s = 0, t = 0;
    const double dist = tree.findClosestPoint({2, 0.1, 0.1}, closest, normal, face, s, t, nullptr, false);
    std::cout << "closest point " << closest << " on face " << face << " (distance " << dist << ")\n";
    std::cout << "origin inside: " << tree.isInsideMesh({0, 0, 0}, false)
              << ", (2,0,0) inside: " << tree.isInsideMesh({2, 0, 0}, false) << "\n";

    // 4. Every face a ray meets.
    std::vector<GmPointIntersectionInfo> hits;
    tree.intersect(GmRay({-3, 0.1, 0.05}, {1, 0, 0}), hits, false, false);
    std::cout << "ray hits " << hits.size() << " faces\n";

    // 5. Continuous-time self collision over one step: squash the top vertex through the
    //    bottom one. A swept tree encloses every face at its start and end positions.
    std::vector<GmTVector<double>> end = mesh.getVertices();
    end[4] = GmTVector<double>(0.05, 0.02, -1.5);
    GmBoundingTree swept(&mesh, end);
    // One record per (vertex, face) and (edge, edge) contact, each feature pair tested once
    // (the default, EveryTrianglePair, records a contact once per triangle pair holding it).
    swept.setSelfContactRecords(GmSelfContactRecords::EachFeaturePairOnce);
    std::vector<GmContinuousTimeIntersectionInfo> contacts;
    GmBVHMetrics metrics;
    swept.continuousTimeSelfIntersect(contacts, end, GmIntersection::kAllTests,
                                      false, false, 0, metrics);
    std::cout << contacts.size() << " contacts during the step\n";
    if (!contacts.empty()) {
        contacts.front().printCompact(std::cout);
        std::cout << "\n";
    }
    metrics.print(std::cout);

    // 6. Strands: three hairs of 8 segments hanging down through the octahedron, radius 0.02.
    //    Pairs of segments closer than their radii (neighbours on one strand left out), and the
    //    segments that pass through the body.
    GmCurves hair(std::vector<std::size_t>{8, 8, 8});
    std::vector<GmTVector<double>> strands;
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k <= 8; ++k) strands.emplace_back(0.02 * c + 0.05 * k, 0.01 * c, 1.6 - 0.4 * k);
    std::vector<double> radii(hair.getNumberVertices(), 0.02);
    GmCurveBoundingTree hairTree(hair, strands, 0.0, &radii);
    std::vector<GmSegmentSegmentInfo> close;
    GmSegmentSelfIntersector<3> self(close, hair, strands, &radii);
    hairTree.selfIntersect(self);
    std::vector<GmSegmentFaceInfo> crossings;
    GmSegmentMeshIntersector through(crossings, hair, strands, mesh);
    hairTree.intersect(tree, through);
    std::cout << close.size() << " close segment pairs (" << self.getNumberTests() << " tests), "
              << crossings.size() << " segment-face crossings\n";
    if (!crossings.empty()) std::cout << crossings.front();
    return 0;
}
