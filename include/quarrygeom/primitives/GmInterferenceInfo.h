#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmPointOnTriType.h>
#include <quarrygeom/core/GmTVector.h>

// Result records of the collision, proximity, inside and ray queries, and their text forms.
// All records are plain copyable values; the caller owns the containers that hold them.

// Kind of a triangle-pair contact, used as GmInterferenceType::VERTEX_FACE etc. The enumerators
// live in their own scope (so they do not clash with GmGeometry::INVALID under a using-directive)
// but convert to int like a plain enumeration. The underlying type is fixed, so any 32-bit value
// can be stored; values above EDGE_EDGE are printed as a bare header.
struct GmInterferenceTypes {
    enum Value : std::int32_t {
        INVALID = 0,
        VERTEX_FACE = 1,  // a vertex of triangle 1 against the face of triangle 2
        FACE_VERTEX = 2,  // the face of triangle 1 against a vertex of triangle 2
        EDGE_EDGE = 3     // an edge of triangle 1 against an edge of triangle 2
    };
};
using GmInterferenceType = GmInterferenceTypes::Value;

// Feature kinds returned by GmTriangleInterferenceInfo::getFeatures.
enum GmFeatureKind : int { kFeatureInvalid = 0, kFeatureVertex = 1, kFeatureEdge = 2, kFeatureFace = 3 };

// A contact between two triangles (static interference). The continuous-time and proximity
// records extend it with pinch flags; all three share this leading layout.
struct QUARRYGEOM_API GmTriangleInterferenceInfo {
    std::int32_t objectIndex1 = -1;  // object owning triangle 1, -1 for none
    std::int32_t objectIndex2 = -1;  // object owning triangle 2, -1 for none
    std::int32_t triangleIndex1 = -1;
    std::int32_t triangleIndex2 = -1;
    double time = 0.0;       // time of contact within the step
    double distance = 0.0;   // separation (or penetration) at contact
    double falloff = 0.0;    // weighting value set by the filling kernel
    GmTVector<double> normal;
    GmInterferenceType type = GmInterferenceType::INVALID;
    std::int32_t feature1 = -1;  // VERTEX_FACE / FACE_VERTEX: the vertex; EDGE_EDGE: first edge
    std::int32_t feature2 = -1;  // VERTEX_FACE / FACE_VERTEX: the face; EDGE_EDGE: second edge
    GmTVector<double> point;     // contact point
    GmGeometry::PointOnTriType pointType = GmGeometry::INVALID;  // where on the face the point lies
    GmTVector<double> barycentric2;  // on triangle 2 (VERTEX_FACE, EDGE_EDGE)
    GmTVector<double> barycentric1;  // on triangle 1 (FACE_VERTEX, EDGE_EDGE)
    // VERTEX_FACE: [0] vertex of triangle 1, [1..3] corners of triangle 2.
    // FACE_VERTEX: [0..2] corners of triangle 1, [3] vertex of triangle 2.
    // EDGE_EDGE: the end points of the two edges.
    std::int32_t vertexIndices[4] = {-1, -1, -1, -1};
    // [0] edge of triangle 1, [1] edge of triangle 2 (the edge holding the point for ON_EDGE_k).
    std::int32_t edgeIndices[2] = {-1, -1};

    // Decodes the two features in contact: kinds are GmFeatureKind values (0 invalid, 1 vertex,
    // 2 edge, 3 face), indices are mesh indices (-1 for an invalid feature).
    void getFeatures(int& kind1, int& index1, int& kind2, int& index2) const;

    // One-line form, e.g. "V-F obj 0 vtx 12 self face 40 time ... dist ... P x y z N x y z".
    // No newline is written.
    void printCompact(std::ostream& os) const;
};

// A continuous-time (swept) contact; pinched0 / pinched1 flag the feature on triangle 1 / 2
// as lying in a pinched region.
struct QUARRYGEOM_API GmContinuousTimeIntersectionInfo : public GmTriangleInterferenceInfo {
    bool pinched0 = false;
    bool pinched1 = false;
};

// A proximity contact with one pinch flag.
struct QUARRYGEOM_API GmProximityCheckInfo : public GmTriangleInterferenceInfo {
    bool pinched = false;
};

// A vertex found inside another mesh, with its closest point there.
struct QUARRYGEOM_API GmInsideInfo {
    std::int32_t vertex = -1;  // negative: invalid record
    GmTVector<double> closestPoint;
    double distance = 0.0;
    std::int32_t closestFace = -1;
    GmTVector<double> barycentric;  // of closestPoint on closestFace
    bool pinched = false;
    std::int32_t objectIndex1 = -1;  // object owning the vertex
    std::int32_t objectIndex2 = -1;  // object owning closestFace
    double weight = 0.0;
};

// A ray hit on a triangle.
struct QUARRYGEOM_API GmPointIntersectionInfo {
    std::int32_t objectIndex = -1;
    std::int32_t triangleIndex = -1;
    GmTVector<double> point;        // the hit point
    GmTVector<double> barycentric;  // weights of the face's vertices 1, 2, 3 at the hit
};

// One intersecting triangle pair of a static query and its intersection points.
struct QUARRYGEOM_API GmIntersectionInfo {
    std::int32_t triangleIndex1 = -1;
    std::int32_t triangleIndex2 = -1;
    std::vector<GmTVector<double>> points;
};

// A triangle pair produced by the broad phase.
struct QUARRYGEOM_API GmIntersectionCandidate {
    std::int32_t first = -1;
    std::int32_t second = -1;

    GmIntersectionCandidate() = default;
    GmIntersectionCandidate(std::int32_t a, std::int32_t b) : first(a), second(b) {}
    bool operator==(const GmIntersectionCandidate& o) const { return first == o.first && second == o.second; }
    bool operator!=(const GmIntersectionCandidate& o) const { return !(*this == o); }
    bool operator<(const GmIntersectionCandidate& o) const {
        return first < o.first || (first == o.first && second < o.second);
    }
};

// A record index with its time of impact, for ordering continuous-time contacts.
struct QUARRYGEOM_API GmTimeIndex {
    std::int32_t index = -1;
    double time = 0.0;

    GmTimeIndex() = default;
    GmTimeIndex(std::int32_t i, double t) : index(i), time(t) {}
    // Earlier time first; equal times by index.
    bool operator<(const GmTimeIndex& o) const { return time < o.time || (time == o.time && index < o.index); }
};

// Long text forms (multi-line for the triangle-pair records; see each record's documentation).
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmTriangleInterferenceInfo& info);
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmContinuousTimeIntersectionInfo& info);
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmProximityCheckInfo& info);
// "Inside Vertex 3 { closestPoint (..), distance .., ... weight .. }" or "Inside Vertex INVALID".
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmInsideInfo& info);
// "Inside Point { objectIndex .., triangleIndex .., point (..), barycentric (..) }".
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmPointIntersectionInfo& info);
// "Intersection between triangles 1 and 2:\n\tpoints { (..), (..) }\n".
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmIntersectionInfo& info);
// "Intersection Candidate (1, 2)\n".
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmIntersectionCandidate& c);
// "(time, index) = (0.5, 3)".
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmTimeIndex& ti);
