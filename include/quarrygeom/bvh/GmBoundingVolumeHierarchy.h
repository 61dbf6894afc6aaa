#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <quarrygeom/bvh/GmBoundingVolumeTreeNode.h>
#include <quarrygeom/bvh/GmNormalTests.h>
#include <quarrygeom/core/GmAxisAlignedBox.h>
#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmPointOnTriType.h>
#include <quarrygeom/core/GmRay.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/pinch/SelfIntersectionInfo.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>

class GmTriangleMesh;
class GmTriangleFace;
class GmDisabledData;
class GmFrozenData;
class GmBVHMetrics;
namespace GmIntersection {
class MeshTests;
class ComponentTests;
}  // namespace GmIntersection
namespace GmBVHDetail {
class SearchBoxes;
class RayTree;
class RayTreeCache;
}  // namespace GmBVHDetail

// Which records a continuous-time self query (continuousTimeSelfIntersect) gives. Both modes
// report the same distinct contacts, a (vertex, face) or an (edge, edge) pair each, with the
// same earliest time; they differ in how often each is tested and recorded.
enum class GmSelfContactRecords {
    // Every test of every triangle pair that the walk and the orphan pass reach, as the caller's
    // component tests ask: a vertex-face contact is recorded once for each face around the
    // vertex that the walk pairs with the face (each with that face as its triangle), an
    // edge-edge contact once for each face pair holding the two edges (up to four), an orphan
    // contact once. The default.
    EveryTrianglePair,
    // Each vertex-face and edge-edge feature pair tested at most once and recorded at most once.
    // A vertex belongs to the first face in its vertex-to-faces list that the walk pairs with
    // the other face (not adjacent to it, not pruned by the masks, boxes overlapping, passing the
    // mesh tests), an edge pair to the first such pair of the edges' faces (the lower edge
    // index's faces first); orphan pairs run as before. A record's triangles are that owning face
    // pair; the kind (VERTEX_FACE or FACE_VERTEX) and every other field are what the owning
    // pair's test gives in the other mode. A feature test runs when its bit in the owning pair
    // is among the caller's component tests (all of them: every contact). A swept separation
    // filter (GmSweptSeparation.h) skips the cubic for features that never become coplanar or
    // pass beside each other. The walk may run over a heap of its own built on the tree's leaves
    // (same leaf boxes and flags, Morton order), chosen per query when its inner boxes have less
    // area in all than the tree's: the same face pairs reach the kernel, in the same order
    // within a pair, but the broad-phase counters are then that heap's. Counters count
    // the tests actually run. The tree must be refitted to the query's end
    // positions (the ownership rule reads the leaf boxes and takes a feature's swept box to lie
    // in every leaf box holding it).
    EachFeaturePairOnce
};

// Bounding volume hierarchy over the faces of one GmTriangleMesh.
//
// The tree is a complete binary heap stored in one array: for n faces there are 2n - 1 nodes,
// nodes 0 .. n-2 are internal (children 2i + 1 and 2i + 2), nodes n-1 .. 2n-2 are leaves with
// one face each. Boxes are single precision, padded by 1e-8 (plus a thickness in thickened
// mode) and rounded outwards, so a box always encloses its padded face.
// The hierarchy keeps non-owning pointers to its mesh and masks and owns only its nodes.
//
// Three bounding modes share one build and refit:
//   plain      build(disabled, frozen)            - the face at the mesh's positions
//   swept      build(positions, disabled, frozen) - the face at the mesh's and at the given positions
//   thickened  build(thickness, disabled, frozen) - the face padded by thickness
// Build and refit run in parallel (TBB, inside a task arena of the configured worker count)
// when multithreading is on; both paths produce identical trees.
//
// Invalid input (std::invalid_argument naming the operation and the index or value, thrown
// before anything changes): construction, build and refit require a mesh whose construction is
// finished (GmTriangleMesh::isConstructionFinished()) with the face count the hierarchy was made
// for, finite mesh positions, in swept mode at least one finite end position per vertex, and in
// thickened mode a thickness >= 0 (not NaN). The collision queries check the mesh the same way
// (O(1)), the size of continuous-time end positions and that a proximity distance is >= 0 (not
// NaN). Point, ray and box queries check nothing. Any number of threads may run queries at once;
// build, refit and position changes must not overlap with them.
class QUARRYGEOM_API GmBoundingVolumeHierarchy {
public:
    typedef GmBoundingVolumeTreeNode<GmTriangleFace> Node;

    // Work item of the build: a face and its sort key on the current split axis.
    struct FaceData {
        int face;
        double key;
    };

    // Swept mode: boxes enclose each face at the mesh's positions and at 'positions'.
    GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, const std::vector<GmTVector<double>>& positions,
                              const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    // Thickened mode: boxes padded by thickness (in addition to 1e-8).
    GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, double thickness, const GmDisabledData* disabled = nullptr,
                              const GmFrozenData* frozen = nullptr);
    // Plain mode.
    explicit GmBoundingVolumeHierarchy(GmTriangleMesh* mesh, const GmDisabledData* disabled = nullptr,
                                       const GmFrozenData* frozen = nullptr);
    GmBoundingVolumeHierarchy(const GmBoundingVolumeHierarchy& other);
    GmBoundingVolumeHierarchy& operator=(const GmBoundingVolumeHierarchy& other);
    ~GmBoundingVolumeHierarchy();

    // Rebuild (faces are reassigned to leaves). The face count must be the one at construction.
    void build(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled = nullptr,
               const GmFrozenData* frozen = nullptr);
    void build(double thickness, const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    void build(const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);

    // Refit boxes and flags bottom-up, keeping the tree's shape.
    void refit(const std::vector<GmTVector<double>>& positions, const GmDisabledData* disabled = nullptr,
               const GmFrozenData* frozen = nullptr);
    void refit(double thickness, const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);
    void refit(const GmDisabledData* disabled = nullptr, const GmFrozenData* frozen = nullptr);

    // ---- Layout -------------------------------------------------------------------------
    static int getRootIndex() { return 0; }
    static int getLeftIndex(int i) { return 2 * i + 1; }
    static int getRightIndex(int i) { return 2 * i + 2; }

    int getNumberLeafNodes() const { return _numberFaces; }
    int getNumberInternalNodes() const { return _numberFaces > 0 ? _numberFaces - 1 : 0; }
    int getNumberNodes() const { return _numberFaces > 0 ? 2 * _numberFaces - 1 : _numberFaces; }
    // Leaves: [first, last).
    void getLeafRange(int& first, int& last) const;
    // Nodes of one level: [2^level - 1, min(nodes, 2^(level+1) - 1)).
    void getRange(int level, int& first, int& last) const;
    // Level of the deepest leaves: ceil(log2 n), -1 for an empty mesh.
    int getDepth() const { return _depth; }

    bool empty() const { return _nodes.empty(); }
    const Node& getNode(int i) const { return _nodes[static_cast<size_t>(i)]; }
    const Node& getNode(long long i) const { return _nodes[static_cast<size_t>(i)]; }
    const std::vector<Node>& getNodes() const { return _nodes; }
    const Node& getRoot() const { return _nodes[0]; }
    // Per leaf, in leaf order (leaf node getNumberInternalNodes() + k is entry k): its face and
    // the face's vertices, set by the build. The point searches read these instead of the face
    // records, so that a leaf's data arrives with its box.
    struct LeafFace {
        int face;
        int vertices[3];
    };
    const std::vector<LeafFace>& getLeafFaces() const { return _leafFaces; }
    const GmAxisAlignedBox& getRootBoundingVolume() const { return _nodes[0].box; }
    // Face index of a leaf node (its face record's own index); -1 for an internal node.
    int getFaceIndex(const Node& node) const;
    int getLeafFaceIndex(int nodeIndex) const { return getFaceIndex(getNode(nodeIndex)); }

    // ---- Accessors ----------------------------------------------------------------------
    GmTriangleMesh* getTriangleMesh() const { return _mesh; }
    const GmDisabledData* getDisabledData() const { return _disabledData; }
    const GmFrozenData* getFrozenData() const { return _frozenData; }
    bool ignoreFrozen() const { return _ignoreFrozen; }
    void setIgnoreFrozen(bool ignore) { _ignoreFrozen = ignore; }
    // Records of the continuous-time self query (GmSelfContactRecords); copied with the tree.
    GmSelfContactRecords getSelfContactRecords() const { return _selfContactRecords; }
    void setSelfContactRecords(GmSelfContactRecords mode) { _selfContactRecords = mode; }
    const GmIntersection::MeshTests& getMeshTests() const;
    GmIntersection::MeshTests& getMeshTests();
    void setMeshTests(const GmIntersection::MeshTests& tests);
    GmBoundingVolumeTreeVisitor<GmBoundingVolumeHierarchy> getVisitor() const {
        return GmBoundingVolumeTreeVisitor<GmBoundingVolumeHierarchy>(this);
    }
    // Store the mask and refresh every node's flag in place (boxes untouched). A null mask or
    // one with a zero count clears the flags.
    void setDisabledData(const GmDisabledData* disabled);
    void setFrozenData(const GmFrozenData* frozen);

    // ---- Closest point, closest vertex, inside --------------------------------------------
    // Best-first search with optional normal filters. Returns the distance, negated when p lies
    // behind the face found (dot(closest - p, normal) > 0); face -1 and DBL_MAX when no face
    // qualifies. normal is the found face's unit normal.
    double findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest, GmTVector<double>& normal,
                            int& face, double& s, double& t, GmNormalTests* tests, bool includeDisabled) const;
    // Signed closest-point query (negative inside). With checkInside, points that are not
    // inside give face -1 and DBL_MAX. With pinch information (info, built for this mesh) the
    // inside decision follows SelfIntersectionInfo::insideAt at the closest point, and a point
    // whose closest point lies on an open boundary is never inside; pinchSide 1 or 2 names the
    // side whose surface faces the outside (0: the classification's own); pinched reports a
    // closest point on the classification's buried side. Null info: the plain decision.
    double findClosestPoint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                            GmTVector<double>& normal, bool& pinched, bool checkInside, bool includeDisabled,
                            const SelfIntersectionInfo* info = nullptr, int pinchSide = 0) const;
    // As above, also giving the point type; hint >= 0 walks across the mesh from that face
    // instead of searching the tree.
    double findClosestPointWithHint(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                    GmTVector<double>& normal, GmGeometry::PointOnTriType& type, bool& pinched,
                                    bool checkInside, bool includeDisabled, const SelfIntersectionInfo* info,
                                    int pinchSide, int hint) const;
    // Reference answer by testing every face: unsigned distance negated when p is inside at the
    // closest feature. face -1 and DBL_MAX when no face qualifies.
    double findClosestPointBruteForce(const GmTVector<double>& p, GmTVector<double>& closest, int& face,
                                      GmTVector<double>& normal, bool includeDisabled) const;
    // Nearest vertex of a (with includeDisabled false: enabled) face. -1 and DBL_MAX if none.
    double findClosestVertex(const GmTVector<double>& p, int& vertex, bool includeDisabled) const;

    // True when p lies inside the mesh or on its surface.
    bool isInsideMesh(const GmTVector<double>& p, bool includeDisabled) const;
    // On a closed, manifold, outward oriented mesh without self-intersections or nested parts,
    // isInsideMesh decides by the parity of the exact crossings of one axis ray (the answer is
    // the same away from the surface; near it, within 1e-7 of the mesh's size, it is the exact
    // one, and a point exactly on a face is inside). The check that allows this costs about one
    // static self-intersection pass; isInsideMesh runs it once its closest-point searches since
    // the last build, refit or mask change have cost as much, or at once for a search that ends
    // near the surface of a closed mesh. prepareInsideQueries runs it now and
    // returns whether the ray path serves queries with includeDisabled; insideQueriesPrepared
    // only reports that. Disabled faces (with includeDisabled false) keep the search path.
    bool prepareInsideQueries(bool includeDisabled) const;
    bool insideQueriesPrepared(bool includeDisabled) const;

    // The nearest-first searches (closest point, closest vertex, and the searches of
    // isInsideMesh) read a compact copy of the boxes, 16 bytes per node on a 16-bit grid, once
    // about one search per 8 faces has run since the last build, refit or mask change (the
    // results are the same either way). preparePointSearches makes the copy now; false when
    // the boxes are not finite, and the searches then keep to the nodes.
    bool preparePointSearches() const;
    bool isMeshClosed(bool includeDisabled) const;
    bool isBoundaryEdge(int edge, bool includeDisabled) const;
    bool isBoundaryVertex(int vertex, bool includeDisabled) const;
    bool isBoundaryPoint(int face, GmGeometry::PointOnTriType type, bool includeDisabled) const;
    // Faces sharing the feature named by (face, type); returns how many were appended / set.
    int getClosestFaceSet(int face, GmGeometry::PointOnTriType type, std::vector<int>& faces) const;
    // Point type from the barycentric weights of vertices 1, 2, 3 (tolerance 100 * DBL_EPSILON).
    static GmGeometry::PointOnTriType classifyWeights(double w1, double w2, double w3);

    // Vertices of other's mesh that lie inside this mesh, one record each (vertex, closest point
    // here, distance, face, weights). objectIndex1 names other's object, objectIndex2 this one.
    bool pointsInsideMesh(const GmBoundingVolumeHierarchy& other, std::vector<GmInsideInfo>& results, bool append,
                          bool includeDisabled, int objectIndex1 = -1, int objectIndex2 = -1,
                          const SelfIntersectionInfo* info = nullptr) const;
    // Vertices of this mesh inside each of 'others' (object indices objectIndices[k], pinch
    // information infos[k] or none), counted into metrics (one narrow-phase candidate and test
    // per vertex and mesh, a success per inside vertex).
    bool pointsInsideMeshes(const std::vector<const GmBoundingVolumeHierarchy*>& others,
                            const std::vector<const SelfIntersectionInfo*>& infos, int objectIndex,
                            const std::vector<int>& objectIndices, std::vector<GmInsideInfo>& results, bool append,
                            bool includeDisabled, GmBVHMetrics& metrics) const;

    // ---- Ray and box queries -------------------------------------------------------------
    // Every face the ray meets, one record per face, depth-first left before right. Returns
    // true when hits is non-empty afterwards.
    bool intersect(const GmRay& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<-1, 0, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, 1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, -1, 0>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, 0, 1>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    bool intersect(const GmRayAxis<0, 0, -1>& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                   bool includeDisabled) const;
    // Root box overlaps box (touching counts). False for an empty tree.
    bool intersect(const GmAxisAlignedBox& box) const;

    // Nearest face the ray meets (an addition to the every-hit queries above): hit as the
    // records of intersect(GmRay, ...), t the hit's ray parameter (point = origin + t *
    // direction, t >= 0) from the same triangle test. Among faces at the same parameter the
    // smallest face index wins. False (hit reset, t = DBL_MAX) when the ray meets no face.
    bool intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, double& t,
                        bool includeDisabled = false) const;
    bool intersectFirst(const GmRay& ray, GmPointIntersectionInfo& hit, bool includeDisabled = false) const;

    // General rays (intersect(GmRay, ...) and intersectFirst) walk a four-wide copy of the tree
    // (float boxes of four nodes tested at once, 128 bytes per wide node, about one per three
    // faces) once about one ray query per 64 faces has run since the last build, refit or mask
    // change; the hit records are the same either way. A refit keeps the copy's shape and only
    // copies the boxes again. prepareRayQueries brings the copy up to date now; false when the
    // boxes are not finite, beyond 2^60, or the tree has a single face: rays then keep to the
    // binary walk.
    bool prepareRayQueries() const;

    // Debug drawing of one level (or of all leaves) as GL line segments.
    void drawTree(int level) const;

    // Collision traversals (implemented in GmBVHCollision.cpp)
    bool continuousTimeSelfIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                     const std::vector<GmTVector<double>>& positions,
                                     const GmIntersection::ComponentTests& componentTests, bool append,
                                     bool includeDisabled, int objectIndex, GmBVHMetrics& metrics) const;
    bool continuousTimeIntersect(std::vector<GmContinuousTimeIntersectionInfo>& results,
                                 const std::vector<GmTVector<double>>& positions,
                                 const GmBoundingVolumeHierarchy& other,
                                 const std::vector<GmTVector<double>>& otherPositions,
                                 const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2,
                                 const GmIntersection::ComponentTests& componentTests, bool flag, bool append,
                                 bool includeDisabled, int objectIndex1, int objectIndex2,
                                 GmBVHMetrics& metrics) const;
    bool selfProximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                            const GmIntersection::ComponentTests& componentTests, bool append, bool includeDisabled,
                            int objectIndex, double value, GmBVHMetrics& metrics) const;
    bool proximityCheck(std::vector<GmProximityCheckInfo>& results, double distance,
                        const GmBoundingVolumeHierarchy& other, const SelfIntersectionInfo* info,
                        const GmIntersection::ComponentTests& componentTests, bool append, bool includeDisabled,
                        int objectIndex1, int objectIndex2, double value, GmBVHMetrics& metrics) const;
    bool selfIntersect(std::vector<GmIntersectionInfo>& results, bool unused, bool append, bool includeDisabled,
                       GmBVHMetrics& metrics) const;
    bool meshMeshIntersect(std::vector<GmIntersectionInfo>& results, const GmBoundingVolumeHierarchy& other,
                           bool append, bool includeDisabled, GmBVHMetrics& metrics) const;
    // End of collision traversals

protected:
    // Current best of a closest-point search.
    struct ClosestPointInfo {
        int face = -1;
        double s = 0.0, t = 0.0;
        GmTVector<double> point;
        GmGeometry::PointOnTriType type = GmGeometry::INVALID;
        double distanceSquared = 0.0;
    };

    // p lies in the root box (bounds included) / other's root box lies in this one.
    bool isInside(const GmTVector<double>& p) const;
    bool isInside(const GmBoundingVolumeHierarchy& other) const;

    // Best-first search; info holds the seed (face -1 / DBL_MAX for none) and the result.
    void findClosestPointBase(const GmTVector<double>& p, ClosestPointInfo& info, const GmNormalTests* tests,
                              bool includeDisabled) const;
    // Seed from the nearest hits of the six axis rays; false when a closed mesh proves p outside.
    bool initializeClosestPointInfo(const GmTVector<double>& p, ClosestPointInfo& info, bool checkInside,
                                    bool includeDisabled) const;
    // Greedy walk over neighbouring faces from the hint face.
    void walkClosestPoint(const GmTVector<double>& p, ClosestPointInfo& info, int hint, bool includeDisabled) const;
    void findClosestVertexBase(const GmTVector<double>& p, int& vertex, double& distanceSquared,
                               bool includeDisabled) const;
    void initializeClosestVertexInfo(const GmTVector<double>& p, int& vertex, double& distanceSquared,
                                     bool includeDisabled) const;
    // Inside decision by ray parity: 1 inside, 0 outside (always so outside the root box), -1
    // when the closest-point search has to decide (no check yet or refused, disabled faces, p
    // near the surface, every axis ray degenerate).
    int insideByRayParity(const GmTVector<double>& p, bool includeDisabled) const;

private:
    // The curve tree asks for the candidates below (GmGenericBoundingTree::getIntersectCandidates).
    template <class Topology>
    friend class GmGenericBoundingTree;

    // Segments of a curve tree whose leaf boxes overlap leaf boxes of this tree, reached by a
    // simultaneous descent from both roots (CurveTree: getNode(i), empty(), nodes with box and
    // primitive). Segments are appended once per overlapping leaf pair.
    template <typename CurveTree, typename Segment>
    void getCurveIntersectCandidates(const CurveTree& curveTree, std::vector<const Segment*>& segments) const;

    template <int N>
    void _build(const std::vector<GmTVector<double>>* positions, double thickness, const GmDisabledData* disabled,
                const GmFrozenData* frozen);
    template <int N>
    void _refit(const std::vector<GmTVector<double>>* positions, double thickness, const GmDisabledData* disabled,
                const GmFrozenData* frozen);
    template <class Ray>
    bool intersectRay(const Ray& ray, std::vector<GmPointIntersectionInfo>& hits, bool append,
                      bool includeDisabled) const;
    // Closest point with the inside decision: signed distance (negative inside), or DBL_MAX and
    // face -1 when checkInside is set and p is not inside. hint >= 0 walks from that face. With
    // pinch information the decision is the classification's (pinched: on its buried side).
    double _closestPointSigned(const GmTVector<double>& p, ClosestPointInfo& info, bool checkInside,
                               bool includeDisabled, int hint, const SelfIntersectionInfo* pinch = nullptr,
                               int pinchSide = 0, bool* pinched = nullptr) const;
    void _initialize();
    void _refreshFlags(bool disabledFlags);
    bool _faceDisabled(int face, bool includeDisabled) const;

    // Inside decision at the closest feature; d = closest - p.
    bool pointInsideFaces(const GmTVector<double>& p, const GmTVector<double>& closest, int face,
                          GmGeometry::PointOnTriType type, bool includeDisabled) const;
    bool pointInsideFace(const GmTVector<double>& d, int face, bool includeDisabled) const;
    bool pointInsideEdge(const GmTVector<double>& d, int face, int edge, bool includeDisabled) const;
    bool pointInsideVertex(const GmTVector<double>& d, int vertex, bool includeDisabled) const;

    // _closestPointSigned with the inside check and no hint, its cost counted towards building
    // the ray-parity check.
    double _closestPointInside(const GmTVector<double>& p, ClosestPointInfo& info, bool includeDisabled) const;

    // The compact box copy of the nearest-first searches, once enough searches have run since
    // the last build, refit or mask change to pay for it; null before.
    const GmBVHDetail::SearchBoxes* _searchBoxes() const;
    // The ray queries' wide copy once it pays (see prepareRayQueries); null before.
    const GmBVHDetail::RayTree* _rayTree() const;

    // Lazily built state of the point queries: whether ray parity may decide the inside
    // queries, the search work done without it, and the searches' box copy. A copy or an
    // assignment starts afresh.
    class QueryCache {
    public:
        struct State;
        QueryCache();
        QueryCache(const QueryCache&);
        QueryCache& operator=(const QueryCache&);
        ~QueryCache();
        // Forget the check and the box copy (after a build, a refit or a mask change).
        void reset();
        State& state() const { return *_state; }

    private:
        State* _state;
    };

    // Holder of the ray copy's cache: a copy or an assignment starts afresh.
    class RayCache {
    public:
        RayCache();
        RayCache(const RayCache&);
        RayCache& operator=(const RayCache&);
        ~RayCache();
        GmBVHDetail::RayTreeCache& get() const { return *_cache; }

    private:
        GmBVHDetail::RayTreeCache* _cache;
    };

    GmTriangleMesh* _mesh;
    const GmDisabledData* _disabledData;
    bool _ignoreFrozen;
    const GmFrozenData* _frozenData;
    GmIntersection::MeshTests* _meshTests;  // owned, never null
    int _depth;
    std::vector<Node> _nodes;
    std::vector<LeafFace> _leafFaces;
    int _numberFaces;  // face count at construction
    QueryCache _queryCache;
    RayCache _rayCache;
    GmSelfContactRecords _selfContactRecords = GmSelfContactRecords::EveryTrianglePair;
};

template <typename CurveTree, typename Segment>
void GmBoundingVolumeHierarchy::getCurveIntersectCandidates(const CurveTree& curveTree,
                                                            std::vector<const Segment*>& segments) const {
    if (empty() || curveTree.empty()) return;
    std::vector<std::pair<long long, long long>> stack;
    stack.emplace_back(0, 0);
    while (!stack.empty()) {
        const std::pair<long long, long long> pr = stack.back();
        stack.pop_back();
        const Node& a = getNode(pr.first);
        const auto& b = curveTree.getNode(pr.second);
        if (!a.box.overlaps(b.box)) continue;
        const bool aLeaf = a.isLeaf(), bLeaf = b.primitive != nullptr;
        if (aLeaf && bLeaf) {
            segments.push_back(b.primitive);
        } else if (aLeaf) {
            stack.emplace_back(pr.first, 2 * pr.second + 2);
            stack.emplace_back(pr.first, 2 * pr.second + 1);
        } else if (bLeaf) {
            stack.emplace_back(2 * pr.first + 2, pr.second);
            stack.emplace_back(2 * pr.first + 1, pr.second);
        } else {
            stack.emplace_back(2 * pr.first + 2, 2 * pr.second + 2);
            stack.emplace_back(2 * pr.first + 2, 2 * pr.second + 1);
            stack.emplace_back(2 * pr.first + 1, 2 * pr.second + 2);
            stack.emplace_back(2 * pr.first + 1, 2 * pr.second + 1);
        }
    }
}
