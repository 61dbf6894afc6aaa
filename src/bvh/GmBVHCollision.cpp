// Self and mesh-mesh collision traversals of GmBoundingVolumeHierarchy and their GmBoundingTree
// forms: continuous-time contact, proximity and static triangle intersection, all through one
// walk (GmBVHCollisionWalk.h) with the narrow phase as a policy.

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <utility>
#include <vector>

#include <quarrygeom/bvh/GmBoundingTree.h>
#include <quarrygeom/bvh/GmBoundingVolumeHierarchy.h>
#include <quarrygeom/core/GmBVHMetrics.h>
#include <quarrygeom/core/GmParallel.h>
#include <quarrygeom/mesh/GmAdjacentOrphanSet.h>
#include <quarrygeom/mesh/GmDisabledData.h>
#include <quarrygeom/mesh/GmMeshTests.h>
#include <quarrygeom/mesh/GmTriangleMesh.h>
#include <quarrygeom/primitives/GmContactKernels.h>
#include <quarrygeom/primitives/GmIntersection.h>

#include "../core/GmDiagnostics.h"
#include "GmBVHArgumentChecks.h"
#include "GmBVHCollisionWalk.h"
#include "GmBVHFeatureOwnership.h"
#include "GmBVHWalkTree.h"

namespace GmBVHCollision {
namespace {

using ComponentTests = GmIntersection::ComponentTests;
using Positions = std::vector<GmTVector<double>>;

// Search bound handed to the kernels: the largest finite double.
constexpr double kNoTimeBound = DBL_MAX;

// The top seven levels of a self query (127 nodes) start the heavy descents; the parallel path
// first breaks them into a frontier of at least this many node pairs. In a self query no
// internal node of the frontier lies above kFrontierDepth (a 512th of the tree): contacts gather
// in a few pairs (the two layers of a fold meet under the root's children), and a frontier of a
// given count alone leaves a handful of items with most of the work. (A two-mesh query keeps the
// count alone: its expansion runs on the calling thread, and at that depth it took longer than
// it saved on meshes of some 70K faces.)
constexpr int kSplitNodes = 127;
constexpr std::size_t kFrontierSize = 512;
constexpr int kFrontierDepth = 9;

// Depth of node i in the heap layout (the root is at 0).
inline int heapDepth(int i) { return 31 - __builtin_clz(static_cast<unsigned>(i) + 1U); }

// Synchronisation addresses of the ThreadSanitizer annotations (GmBVHCollisionWalk.h); static,
// so that a worker reaches them without first reading the calling thread's frame.
char published = 0;
char finished = 0;

// body(first, last) for sub-ranges covering [0, n) through the parallel frame; each sub-range
// acquires what the calling thread published before the loop and releases its own results for
// the caller.
template <class Body>
void parallelItems(int n, const Body& body) {
    struct Range {
        const Body* body;
        void operator()(int first, int last) const {
            QG_TSAN_ACQUIRE(&published);
            (*body)(first, last);
            QG_TSAN_RELEASE(&finished);
        }
    } range{&body};
    QG_TSAN_RELEASE(&published);
    GmParallel::parallelForRanges(0, n, range);
    QG_TSAN_ACQUIRE(&finished);
}

// ---- Narrow phases ----------------------------------------------------------------------

class ContSelfIntersector {
public:
    using Record = GmContinuousTimeIntersectionInfo;
    static constexpr bool kOrphanPass = true;
    ContSelfIntersector(const GmTriangleMesh& mesh, const Positions& end, ComponentTests tests, int objectIndex)
        : _mesh(mesh), _end(end), _tests(tests), _object(objectIndex) {}
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::continuousSelf(_mesh, _end, f1, f2, _tests, m, kNoTimeBound, nullptr, _object, out);
    }
    bool orphan(int f1, int f2, ComponentTests tests, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::continuousOrphan(_mesh, _end, f1, f2, tests, m, kNoTimeBound, nullptr, _object, out);
    }
    ComponentTests tests() const { return _tests; }

private:
    const GmTriangleMesh& _mesh;
    const Positions& _end;
    ComponentTests _tests;
    int _object;
};

// Continuous-time self contact with each feature pair tested once (FeatureOwners).
class ContSelfOnceIntersector {
public:
    using Record = GmContinuousTimeIntersectionInfo;
    static constexpr bool kOrphanPass = true;
    ContSelfOnceIntersector(const GmTriangleMesh& mesh, const Positions& end, ComponentTests tests, int objectIndex,
                            const FeatureOwners& owners)
        : _mesh(mesh), _end(end), _tests(tests), _object(objectIndex), _owners(owners) {}
    // The faces in the order in which the tree's own walk pairs them: the walk may run over
    // another heap of the same leaves, whose pairs come in either order.
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        if (_owners.treeSwaps(f1, f2)) std::swap(f1, f2);
        return GmContactKernels::continuousSelfFiltered(_mesh, _end, f1, f2, _tests, m, kNoTimeBound, nullptr, _object,
                                                        out, &_owners);
    }
    bool orphan(int f1, int f2, ComponentTests tests, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::continuousOrphanFiltered(_mesh, _end, f1, f2, tests, m, kNoTimeBound, nullptr,
                                                          _object, out);
    }
    ComponentTests tests() const { return _tests; }

private:
    const GmTriangleMesh& _mesh;
    const Positions& _end;
    ComponentTests _tests;
    int _object;
    const FeatureOwners& _owners;
};

class ContIntersector {
public:
    using Record = GmContinuousTimeIntersectionInfo;
    ContIntersector(const GmTriangleMesh& mesh1, const Positions& end1, const GmTriangleMesh& mesh2,
                    const Positions& end2, const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                    ComponentTests tests, int object1, int object2)
        : _mesh1(mesh1), _end1(end1), _mesh2(mesh2), _end2(end2), _info1(info1), _info2(info2), _tests(tests),
          _object1(object1), _object2(object2) {}
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::continuousMesh(_mesh1, _end1, _mesh2, _end2, f1, f2, _tests, m, kNoTimeBound, _info1,
                                                _info2, _object1, _object2, out);
    }

private:
    const GmTriangleMesh& _mesh1;
    const Positions& _end1;
    const GmTriangleMesh& _mesh2;
    const Positions& _end2;
    const SelfIntersectionInfo* _info1;
    const SelfIntersectionInfo* _info2;
    ComponentTests _tests;
    int _object1, _object2;
};

class SelfProximityChecker {
public:
    using Record = GmProximityCheckInfo;
    static constexpr bool kOrphanPass = true;
    SelfProximityChecker(const GmTriangleMesh& mesh, double distance, ComponentTests tests, int objectIndex)
        : _mesh(mesh), _distance(distance), _tests(tests), _object(objectIndex) {}
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::proximitySelf(_mesh, f1, f2, _distance, _tests, m, nullptr, _object, out);
    }
    bool orphan(int f1, int f2, ComponentTests tests, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::proximityOrphan(_mesh, f1, f2, _distance, tests, m, nullptr, _object, out);
    }
    ComponentTests tests() const { return _tests; }

private:
    const GmTriangleMesh& _mesh;
    double _distance;
    ComponentTests _tests;
    int _object;
};

class ProximityChecker {
public:
    using Record = GmProximityCheckInfo;
    ProximityChecker(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2, double distance,
                     const SelfIntersectionInfo* info, ComponentTests tests, int object1, int object2)
        : _mesh1(mesh1), _mesh2(mesh2), _distance(distance), _info(info), _tests(tests), _object1(object1),
          _object2(object2) {}
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::proximityMesh(_mesh1, _mesh2, f1, f2, _distance, _tests, m, _info, _object1,
                                               _object2, out);
    }

private:
    const GmTriangleMesh& _mesh1;
    const GmTriangleMesh& _mesh2;
    double _distance;
    const SelfIntersectionInfo* _info;
    ComponentTests _tests;
    int _object1, _object2;
};

class TriSelfIntersector {
public:
    using Record = GmIntersectionInfo;
    static constexpr bool kOrphanPass = false;  // static self intersection has no orphan pass
    explicit TriSelfIntersector(const GmTriangleMesh& mesh) : _mesh(mesh) {}
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::staticSelf(_mesh, f1, f2, m, out);
    }

private:
    const GmTriangleMesh& _mesh;
};

class TriIntersector {
public:
    using Record = GmIntersectionInfo;
    TriIntersector(const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2) : _mesh1(mesh1), _mesh2(mesh2) {}
    bool pair(int f1, int f2, GmBVHMetrics& m, std::vector<Record>& out) const {
        return GmContactKernels::staticMesh(_mesh1, _mesh2, f1, f2, m, out);
    }

private:
    const GmTriangleMesh& _mesh1;
    const GmTriangleMesh& _mesh2;
};

// ---- Query set-up -----------------------------------------------------------------------

// Orphan entries converted once to the component tests of their one feature test, ANDed with
// the caller's tests.
struct OrphanJob {
    int face1;
    int face2;
    ComponentTests tests;
};

std::vector<OrphanJob> orphanJobs(const GmTriangleMesh& mesh, const GmAdjacentOrphanSet* set, ComponentTests tests) {
    std::vector<OrphanJob> jobs;
    if (set == nullptr) return jobs;
    jobs.reserve(set->size());
    for (const GmOrphanTest& t : *set)
        jobs.push_back({t.firstFace, t.secondFace, GmContactKernels::orphanComponentTests(mesh, t) & tests});
    return jobs;
}

const GmAdjacentOrphanSet* orphanSetOf(const GmBoundingVolumeHierarchy& tree, bool includeDisabled) {
    const GmTriangleMesh* mesh = tree.getTriangleMesh();
    if (!includeDisabled && tree.getDisabledData() != nullptr) {
        if (const GmAdjacentOrphanSet* set = tree.getDisabledData()->getOrphanSet()) return set;
    }
    return mesh->getOrphanSet();
}

WalkSetup selfSetup(const GmBoundingVolumeHierarchy& tree, bool includeDisabled) {
    WalkSetup s;
    s.nodes1 = s.nodes2 = tree.getNodes().data();
    s.pruneDisabled = !includeDisabled;
    s.pruneFrozen = !tree.ignoreFrozen();
    s.skipAdjacent = true;
    const GmIntersection::MeshTests& tests = tree.getMeshTests();
    s.tests1 = tests.doVertexRadiusTest() ? &tests : nullptr;
    s.sameMeshTests = true;
    return s;
}

WalkSetup pairSetup(const GmBoundingVolumeHierarchy& tree1, const GmBoundingVolumeHierarchy& tree2,
                    bool includeDisabled) {
    WalkSetup s;
    s.nodes1 = tree1.getNodes().data();
    s.nodes2 = tree2.getNodes().data();
    s.pruneDisabled = !includeDisabled;
    s.pruneFrozen = !tree1.ignoreFrozen() && !tree2.ignoreFrozen();
    const bool oneMesh = tree1.getTriangleMesh() == tree2.getTriangleMesh();
    s.skipAdjacent = oneMesh;
    const GmIntersection::MeshTests& t1 = tree1.getMeshTests();
    const GmIntersection::MeshTests& t2 = tree2.getMeshTests();
    if (oneMesh) {
        s.tests1 = t1.doVertexRadiusTest() ? &t1 : nullptr;
        s.sameMeshTests = true;
    } else if (t1.doVertexRadiusTest() && t2.doVertexRadiusTest()) {
        s.tests1 = &t1;
        s.tests2 = &t2;
        s.sameMeshTests = false;
    }
    return s;
}

// Expands seed pairs breadth-first until at least `target` pairs remain and no pair has an
// internal node above `fineDepth`, or only leaf pairs are left. Every pair that is expanded
// is examined (and counted) here exactly as the descent would; the pairs returned are still to
// be examined.
template <class Narrow>
std::vector<NodePair> expandFrontier(PairWalk<Narrow>& walk, const WalkSetup& s, std::vector<NodePair> pairs,
                                     std::size_t target, int fineDepth) {
    auto leafPair = [&s](const NodePair& p) { return s.nodes1[p.a].isLeaf() && s.nodes2[p.b].isLeaf(); };
    auto coarse = [&s, fineDepth](const NodePair& p) {
        return (!s.nodes1[p.a].isLeaf() && heapDepth(p.a) < fineDepth) ||
               (!s.nodes2[p.b].isLeaf() && heapDepth(p.b) < fineDepth);
    };
    return expandPairs(walk, std::move(pairs), target, leafPair, coarse);
}

// The descents of every internal node in the subtree under `root`, level by level.
template <class Walk>
void descendSubtree(Walk& walk, int root, int internal) {
    for (long long from = root, width = 1; from < internal; from = 2 * from + 1, width *= 2) {
        const long long to = std::min<long long>(from + width, internal);
        for (long long i = from; i < to; ++i) walk.descend(static_cast<int>(2 * i + 1), static_cast<int>(2 * i + 2));
    }
}

// Records of a traversal's calling thread while it runs in parallel: the frontier expansion
// examines inner pairs only, so it never produces records, but it counts.
template <class Record>
struct CallerPart {
    std::vector<Record> records;
    GmBVHMetrics metrics;
};

// Self query: one descent per internal node, then the orphan pass.
template <class Narrow>
bool runSelf(const GmBoundingVolumeHierarchy& tree, const Narrow& narrow, const WalkSetup& setup,
             const std::vector<OrphanJob>& orphans, std::vector<typename Narrow::Record>& results,
             GmBVHMetrics& metrics) {
    using Record = typename Narrow::Record;
    const int internal = tree.getNumberInternalNodes();
    const GmTriangleFace* faces = tree.getTriangleMesh()->getFaces().data();
    const std::size_t before = results.size();

    auto serial = [&] {
        PairWalk<Narrow> walk(setup, narrow, results, metrics);
        walk.setFaces(faces);
        for (int i = 0; i < internal; ++i) walk.descend(2 * i + 1, 2 * i + 2);
        if constexpr (Narrow::kOrphanPass)
            for (const OrphanJob& job : orphans) walk.orphan(job.face1, job.face2, job.tests);
    };

    auto parallel = [&] {
        // The descents of the top nodes cover most of the pairs; split them into a frontier so
        // that the loop below balances, and let the deeper descents run one per iteration.
        const int split = std::min(internal, kSplitNodes);
        CallerPart<Record> caller;
        std::vector<NodePair> seeds;
        seeds.reserve(static_cast<std::size_t>(split));
        for (int i = 0; i < split; ++i) seeds.push_back({2 * i + 1, 2 * i + 2});
        PairWalk<Narrow> top(setup, narrow, caller.records, caller.metrics);
        const std::vector<NodePair> frontier = expandFrontier(top, setup, std::move(seeds), kFrontierSize, kFrontierDepth);
        const int numFrontier = static_cast<int>(frontier.size());
        // Below the top nodes, one item per subtree rooted on the next level, its descents level
        // by level within it: a worker keeps to one region of the tree, whose nodes and faces
        // stay in its own cache (taken one node at a time in heap order, both workers sweep the
        // whole tree on every level and share one cache between them).
        const int firstRoot = split, lastRoot = std::min(internal, 2 * split + 1);
        const int numItems = numFrontier + (lastRoot - firstRoot);

        GmParallel::ThreadResults<Record> local(results);
        parallelItems(numItems, [&](int first, int last) {
            PairWalk<Narrow> walk(setup, narrow, local.local(), local.metrics());
            for (int k = first; k < last; ++k) {
                if (k < numFrontier) {
                    const NodePair& p = frontier[static_cast<std::size_t>(k)];
                    walk.descend(p.a, p.b);
                } else {
                    descendSubtree(walk, firstRoot + (k - numFrontier), internal);
                }
            }
        });
        if constexpr (Narrow::kOrphanPass) {
            parallelItems(static_cast<int>(orphans.size()), [&](int first, int last) {
                PairWalk<Narrow> walk(setup, narrow, local.local(), local.metrics());
                walk.setFaces(faces);
                for (int k = first; k < last; ++k) {
                    const OrphanJob& job = orphans[static_cast<std::size_t>(k)];
                    walk.orphan(job.face1, job.face2, job.tests);
                }
            });
        }
        metrics += caller.metrics;
        local.mergeInto(results, metrics);
    };

    GmParallel::dispatch(serial, parallel);
    return results.size() > before;
}

// Two-mesh query: a descent from the pair of roots; in parallel, from a frontier of pairs.
template <class Narrow>
bool runPair(const Narrow& narrow, const WalkSetup& setup, std::vector<typename Narrow::Record>& results,
             GmBVHMetrics& metrics) {
    using Record = typename Narrow::Record;
    const std::size_t before = results.size();

    auto serial = [&] {
        PairWalk<Narrow> walk(setup, narrow, results, metrics);
        walk.descend(0, 0);
    };

    auto parallel = [&] {
        CallerPart<Record> caller;
        PairWalk<Narrow> top(setup, narrow, caller.records, caller.metrics);
        const std::vector<NodePair> frontier = expandFrontier(top, setup, {{0, 0}}, kFrontierSize, 0);

        GmParallel::ThreadResults<Record> local(results);
        parallelItems(static_cast<int>(frontier.size()), [&](int first, int last) {
            PairWalk<Narrow> walk(setup, narrow, local.local(), local.metrics());
            for (int k = first; k < last; ++k) {
                const NodePair& p = frontier[static_cast<std::size_t>(k)];
                walk.descend(p.a, p.b);
            }
        });
        metrics += caller.metrics;
        local.mergeInto(results, metrics);
    };

    GmParallel::dispatch(serial, parallel);
    return results.size() > before;
}

}  // namespace
}  // namespace GmBVHCollision

using namespace GmBVHCollision;

// ---- GmBoundingVolumeHierarchy ------------------------------------------------------------

bool GmBoundingVolumeHierarchy::continuousTimeSelfIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                                            const std::vector<GmTVector<double>>& positions,
                                                            const GmIntersection::ComponentTests& componentTests,
                                                            bool append, bool includeDisabled, int objectIndex,
                                                            GmBVHMetrics& metrics) const {
    GmBVHChecks::query("continuousTimeSelfIntersect", _mesh, _numberFaces, &positions);
    const GmDiagnostics::QueryScope diagnostics;
    if (!append) results.clear();
    if (_nodes.empty() || _mesh == nullptr) return false;
    const std::vector<OrphanJob> orphans = orphanJobs(*_mesh, orphanSetOf(*this, includeDisabled), componentTests);
    WalkSetup setup = selfSetup(*this, includeDisabled);
    if (_selfContactRecords == GmSelfContactRecords::EachFeaturePairOnce) {
        // The walk runs over the same leaves in a heap of its own when that promises a cheaper
        // walk (GmBVHWalkTree.h).
        const WalkHeap heap = walkHeap(*this);
        if (!heap.nodes.empty()) setup.nodes1 = setup.nodes2 = heap.nodes.data();
        const FeatureOwners owners(*this, setup);
        const ContSelfOnceIntersector narrow(*_mesh, positions, componentTests, objectIndex, owners);
        return runSelf(*this, narrow, setup, orphans, results, metrics);
    }
    const ContSelfIntersector narrow(*_mesh, positions, componentTests, objectIndex);
    return runSelf(*this, narrow, setup, orphans, results, metrics);
}

bool GmBoundingVolumeHierarchy::continuousTimeIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                                        const std::vector<GmTVector<double>>& positions,
                                                        const GmBoundingVolumeHierarchy& other,
                                                        const std::vector<GmTVector<double>>& otherPositions,
                                                        const SelfIntersectionInfo* info1,
                                                        const SelfIntersectionInfo* info2,
                                                        const GmIntersection::ComponentTests& componentTests,
                                                        bool /*flag*/, bool append, bool includeDisabled,
                                                        int objectIndex1, int objectIndex2,
                                                        GmBVHMetrics& metrics) const {
    GmBVHChecks::query("continuousTimeIntersect", _mesh, _numberFaces, &positions);
    GmBVHChecks::query("continuousTimeIntersect", other._mesh, other._numberFaces, &otherPositions);
    const GmDiagnostics::QueryScope diagnostics;
    if (!append) results.clear();
    if (_nodes.empty() || other._nodes.empty() || _mesh == nullptr || other._mesh == nullptr) return false;
    const ContIntersector narrow(*_mesh, positions, *other._mesh, otherPositions, info1, info2, componentTests,
                                 objectIndex1, objectIndex2);
    return runPair(narrow, pairSetup(*this, other, includeDisabled), results, metrics);
}

bool GmBoundingVolumeHierarchy::selfProximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                                                   const GmIntersection::ComponentTests& componentTests, bool append,
                                                   bool includeDisabled, int objectIndex, double /*value*/,
                                                   GmBVHMetrics& metrics) const {
    GmBVHChecks::distance("selfProximityCheck", "distance", distance);
    GmBVHChecks::query("selfProximityCheck", _mesh, _numberFaces);
    const GmDiagnostics::QueryScope diagnostics;
    if (!append) results.clear();
    if (_nodes.empty() || _mesh == nullptr) return false;
    const SelfProximityChecker narrow(*_mesh, distance, componentTests, objectIndex);
    const std::vector<OrphanJob> orphans = orphanJobs(*_mesh, orphanSetOf(*this, includeDisabled), componentTests);
    return runSelf(*this, narrow, selfSetup(*this, includeDisabled), orphans, results, metrics);
}

bool GmBoundingVolumeHierarchy::proximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                                               const GmBoundingVolumeHierarchy& other,
                                               const SelfIntersectionInfo* info,
                                               const GmIntersection::ComponentTests& componentTests, bool append,
                                               bool includeDisabled, int objectIndex1, int objectIndex2,
                                               double /*value*/, GmBVHMetrics& metrics) const {
    GmBVHChecks::distance("proximityCheck", "distance", distance);
    GmBVHChecks::query("proximityCheck", _mesh, _numberFaces);
    GmBVHChecks::query("proximityCheck", other._mesh, other._numberFaces);
    const GmDiagnostics::QueryScope diagnostics;
    if (!append) results.clear();
    if (_nodes.empty() || other._nodes.empty() || _mesh == nullptr || other._mesh == nullptr) return false;
    const ProximityChecker narrow(*_mesh, *other._mesh, distance, info, componentTests, objectIndex1, objectIndex2);
    return runPair(narrow, pairSetup(*this, other, includeDisabled), results, metrics);
}

bool GmBoundingVolumeHierarchy::selfIntersect(std::vector<GmIntersectionInfo>& results, bool /*unused*/, bool append,
                                              bool includeDisabled, GmBVHMetrics& metrics) const {
    GmBVHChecks::query("selfIntersect", _mesh, _numberFaces);
    if (!append) results.clear();
    if (_nodes.empty() || _mesh == nullptr) return false;
    const TriSelfIntersector narrow(*_mesh);
    return runSelf(*this, narrow, selfSetup(*this, includeDisabled), {}, results, metrics);
}

bool GmBoundingVolumeHierarchy::meshMeshIntersect(std::vector<GmIntersectionInfo>& results,
                                                  const GmBoundingVolumeHierarchy& other, bool append,
                                                  bool includeDisabled, GmBVHMetrics& metrics) const {
    GmBVHChecks::query("meshMeshIntersect", _mesh, _numberFaces);
    GmBVHChecks::query("meshMeshIntersect", other._mesh, other._numberFaces);
    if (!append) results.clear();
    if (_nodes.empty() || other._nodes.empty() || _mesh == nullptr || other._mesh == nullptr) return false;
    const TriIntersector narrow(*_mesh, *other._mesh);
    return runPair(narrow, pairSetup(*this, other, includeDisabled), results, metrics);
}

// ---- GmBoundingTree -----------------------------------------------------------------------

namespace {
GmIntersection::ComponentTests chooseTests(bool vertexFaceOnly) {
    return vertexFaceOnly ? GmIntersection::kVertexFaceTests : GmIntersection::kAllTests;
}
}  // namespace

bool GmBoundingTree::continuousTimeSelfIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                                 const std::vector<GmTVector<double>>& positions,
                                                 const GmIntersection::ComponentTests& componentTests, bool append,
                                                 bool includeDisabled, int objectIndex, GmBVHMetrics& metrics) const {
    if (_hierarchy == nullptr) {
        if (!append) results.clear();
        return false;
    }
    return _hierarchy->continuousTimeSelfIntersect(results, positions, componentTests, append, includeDisabled,
                                                   objectIndex, metrics);
}

bool GmBoundingTree::continuousTimeSelfIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                                 const std::vector<GmTVector<double>>& positions, bool vertexFaceOnly,
                                                 bool append, bool includeDisabled, int objectIndex,
                                                 GmBVHMetrics& metrics) const {
    return continuousTimeSelfIntersect(results, positions, chooseTests(vertexFaceOnly), append, includeDisabled,
                                       objectIndex, metrics);
}

bool GmBoundingTree::continuousTimeIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                             const std::vector<GmTVector<double>>& positions,
                                             const GmBoundingTree& other,
                                             const std::vector<GmTVector<double>>& otherPositions,
                                             const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                                             const GmIntersection::ComponentTests& componentTests, bool flag,
                                             bool append, bool includeDisabled, int objectIndex1, int objectIndex2,
                                             GmBVHMetrics& metrics) const {
    if (_hierarchy == nullptr || other._hierarchy == nullptr) {
        if (!append) results.clear();
        return false;
    }
    return _hierarchy->continuousTimeIntersect(results, positions, *other._hierarchy, otherPositions, info1, info2,
                                               componentTests, flag, append, includeDisabled, objectIndex1,
                                               objectIndex2, metrics);
}

bool GmBoundingTree::continuousTimeIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                             const std::vector<GmTVector<double>>& positions,
                                             const GmBoundingTree& other,
                                             const std::vector<GmTVector<double>>& otherPositions,
                                             const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                                             bool vertexFaceOnly, bool flag, bool append, bool includeDisabled,
                                             int objectIndex1, int objectIndex2, GmBVHMetrics& metrics) const {
    return continuousTimeIntersect(results, positions, other, otherPositions, info1, info2,
                                   chooseTests(vertexFaceOnly), flag, append, includeDisabled, objectIndex1,
                                   objectIndex2, metrics);
}

bool GmBoundingTree::selfProximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                                        const GmIntersection::ComponentTests& componentTests, bool append,
                                        bool includeDisabled, int objectIndex, double value,
                                        GmBVHMetrics& metrics) const {
    if (_hierarchy == nullptr) {
        if (!append) results.clear();
        return false;
    }
    return _hierarchy->selfProximityCheck(results, distance, componentTests, append, includeDisabled, objectIndex,
                                          value, metrics);
}

bool GmBoundingTree::selfProximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                                        bool vertexFaceOnly, bool append, bool includeDisabled, int objectIndex,
                                        double value, GmBVHMetrics& metrics) const {
    return selfProximityCheck(results, distance, chooseTests(vertexFaceOnly), append, includeDisabled, objectIndex,
                              value, metrics);
}

bool GmBoundingTree::proximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                                    const GmBoundingTree& other, const SelfIntersectionInfo* info,
                                    const GmIntersection::ComponentTests& componentTests, bool append,
                                    bool includeDisabled, int objectIndex1, int objectIndex2, double value,
                                    GmBVHMetrics& metrics) const {
    if (_hierarchy == nullptr || other._hierarchy == nullptr) {
        if (!append) results.clear();
        return false;
    }
    return _hierarchy->proximityCheck(results, distance, *other._hierarchy, info, componentTests, append,
                                      includeDisabled, objectIndex1, objectIndex2, value, metrics);
}

bool GmBoundingTree::proximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                                    const GmBoundingTree& other, const SelfIntersectionInfo* info,
                                    bool vertexFaceOnly, bool append, bool includeDisabled, int objectIndex1,
                                    int objectIndex2, double value, GmBVHMetrics& metrics) const {
    return proximityCheck(results, distance, other, info, chooseTests(vertexFaceOnly), append, includeDisabled,
                          objectIndex1, objectIndex2, value, metrics);
}

bool GmBoundingTree::selfIntersect(std::vector<GmIntersectionInfo>& results, bool unused, bool append,
                                   bool includeDisabled, GmBVHMetrics& metrics) const {
    if (_hierarchy == nullptr) {
        if (!append) results.clear();
        return false;
    }
    return _hierarchy->selfIntersect(results, unused, append, includeDisabled, metrics);
}

bool GmBoundingTree::meshMeshIntersect(std::vector<GmIntersectionInfo>& results, const GmBoundingTree& other,
                                       bool append, bool includeDisabled, GmBVHMetrics& metrics) const {
    if (_hierarchy == nullptr || other._hierarchy == nullptr) {
        if (!append) results.clear();
        return false;
    }
    return _hierarchy->meshMeshIntersect(results, *other._hierarchy, append, includeDisabled, metrics);
}
