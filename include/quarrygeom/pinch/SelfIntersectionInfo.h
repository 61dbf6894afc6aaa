#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/primitives/GmInterferenceInfo.h>

class GmTriangleMesh;
class GmBoundingVolumeHierarchy;
class GmBoundingTree;
class MultiIntersectionInfo;

// Pinch classification of a collision mesh that intersects itself.
//
// Where a mesh passes through itself (an arm sunk into a torso, two merged bodies that overlap,
// a flap of a sheet pushed through the sheet) the curves of self-intersection split its surface
// into regions. The classification gives every vertex and every face centre one of two sides
// and a point of a face its side by the parity of the intersection pieces crossed on the way
// from a classified reference. Side `outsideType` is surface whose front faces the outside,
// as a right-side-out mesh does; the other side is surface buried by the mesh itself (or by
// the other collision objects given to build). Queries that take a `const SelfIntersectionInfo*`
// use it as follows (null keeps the plain behaviour):
//
//   closest point  the inside decision at the closest point q on face f: when
//                  facePointType(f, q) is outsideType (or the caller's pinch side), the plain
//                  decision at the closest feature (behind the face / edge / vertex normal),
//                  reversed when outsideType is 2; on the other side, inside from both sides
//                  (q lies buried in the solid, so p, which sees no surface nearer than q, is in
//                  the solid too); then a point at an open boundary is never inside. `pinched`
//                  reports a closest point on the buried side. On overlapping closed bodies
//                  merged into one mesh this gives the union of the solids.
//   collisions     pinched0 / pinched1 (pinched for proximity) of the two-mesh records flag a
//                  contact feature that lies on the buried side (a LOOP vertex counts as buried).
//   inside         GmInsideInfo::pinched as for the closest point.
//
// Choices made here where the classification outline leaves them open:
//   - build reads the mesh through its own hierarchy (for ray casts) and takes the other
//     collision objects as a list of hierarchies; a point inside any of them counts as buried.
//   - seeds are tried in ascending vertex order, vertices whose faces carry no crossing first.
//     A seed's side: on a closed mesh, the winding number of the whole mesh just in front of
//     the vertex (a ray along its angle-weighted normal, the vertex's own faces left out;
//     retried along tilted directions when a hit lands on an edge) gives 0 for surface facing
//     the outside, -1 for surface facing into the solid, anything else for buried surface; a
//     boundary vertex or a vertex of an open mesh has no orientation term and is on
//     outsideType. A seed inside another collision object (signed closest point <= 0) is on
//     the buried side.
//   - the open-boundary set lists faces that carry crossing pieces and have an open boundary
//     edge.
//   - records of more than two points (coplanar overlaps) add their longest chord as a piece.
//     Records of faces sharing an edge add no piece; faces sharing vertices make those LOOP.
//
// Diagnostics go to std::cerr exactly as documented at build and facePointType; nothing throws.
// After build the object is read-only: facePointType and the queries may run on many threads.
// The classification refers to the positions at build time; rebuild after large motion.
class QUARRYGEOM_API SelfIntersectionInfo {
public:
    // Point types of vertices and face centres.
    enum PointType : std::int32_t { UNKNOWN = 0, SIDE_1 = 1, SIDE_2 = 2, LOOP = 3 };

    SelfIntersectionInfo();
    SelfIntersectionInfo(const SelfIntersectionInfo& other);
    SelfIntersectionInfo& operator=(const SelfIntersectionInfo& other);
    SelfIntersectionInfo(SelfIntersectionInfo&&) noexcept;
    SelfIntersectionInfo& operator=(SelfIntersectionInfo&&) noexcept;
    virtual ~SelfIntersectionInfo();

    // Classifies tree's mesh from the records of its static self query (selfIntersect): one
    // record per intersecting face pair with its intersection points. `others` are the other
    // collision objects of the scene (null entries are skipped).
    void build(const GmBoundingVolumeHierarchy& tree, const std::vector<GmIntersectionInfo>& records,
               const std::vector<const GmBoundingVolumeHierarchy*>& others = {});
    // The same from face pairs alone (for example the static self query's records reduced to
    // their pairs, or a host's own broad phase): the intersection of each pair is computed here
    // at the mesh's current positions; pairs that do not meet are ignored.
    void build(const GmBoundingVolumeHierarchy& tree, const std::vector<GmIntersectionCandidate>& pairs,
               const std::vector<const GmBoundingVolumeHierarchy*>& others = {});
    // Facade forms.
    void build(const GmBoundingTree& tree, const std::vector<GmIntersectionInfo>& records,
               const std::vector<const GmBoundingTree*>& others = {});
    void build(const GmBoundingTree& tree, const std::vector<GmIntersectionCandidate>& pairs,
               const std::vector<const GmBoundingTree*>& others = {});

    // Side (1 or 2) of a point lying on face: the side of the face centre (the mean of its
    // corners, as in the mesh's face data), else of its first corner on side 1 or 2, flipped by
    // the parity of the pieces crossed on the way to the point. Prints the facePointType error
    // and returns 1 when the face has no classified reference.
    int facePointType(int face, const GmTVector<double>& point) const;

    // Whether the straight path from r to q on a face of normal n crosses the piece (a, b):
    // both projected to the coordinate plane that drops n's largest component; the ends of the
    // piece must lie strictly on opposite sides of the line r-q (or both on it) and r, q
    // strictly on opposite sides of the line a-b (or both on it).
    static bool pathCrossesPiece(const GmTVector<double>& r, const GmTVector<double>& q, const GmTVector<double>& a,
                                 const GmTVector<double>& b, const GmTVector<double>& n);
    // Parity of the pieces of face crossed on the way from r to q: true when odd.
    bool crossingParity(int face, const GmTVector<double>& r, const GmTVector<double>& q) const;

    // The inside decision of the closest-point queries at q on face, given the plain decision
    // at the closest feature (see the class comment). pinchSide 1 or 2 overrides outsideType.
    // pinched is set when q lies on the buried side.
    bool insideAt(int face, const GmTVector<double>& q, bool plainInside, int pinchSide, bool& pinched) const;
    // Whether a point of face / a vertex lies on the buried side (LOOP vertices do).
    bool pinchedAt(int face, const GmTVector<double>& q) const;
    bool pinchedVertex(int vertex) const;

    // Summary of the last build.
    int numberCrossingFaces() const;
    int numberLoopVertices() const;
    int numberUnknownVertices() const { return _unknownVertices; }  // left to the vote's tie (LOOP)
    int numberUnknownFaces() const { return _unknownFaces; }

    // ---- Classification (read-only after build) ----------------------------------------
    const GmTriangleMesh* mesh;                 // classified mesh, not owned; its name is printed
    bool uniform;                               // one type for the whole mesh
    std::int32_t uniformType;                   // that type when uniform
    std::vector<std::int32_t> vertexTypes;      // per vertex
    std::vector<std::int32_t> faceTypes;        // per face: the type of its centre
    // Per face: the intersection pieces crossing it, points taken two at a time; null for none.
    std::vector<std::unique_ptr<std::vector<GmTVector<double>>>> faceCrossings;
    bool boundaryWarned;                        // the open-boundary warning was printed
    std::int32_t outsideType;                   // side of surface facing the outside (1 or 2)

private:
    struct Builder;
    void _build(const GmBoundingVolumeHierarchy& tree, const std::vector<GmIntersectionInfo>& records,
                const std::vector<const GmBoundingVolumeHierarchy*>& others);
    void _copyFrom(const SelfIntersectionInfo& other);

    int _unknownVertices = 0;
    int _unknownFaces = 0;
};
