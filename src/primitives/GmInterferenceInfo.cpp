#include <quarrygeom/primitives/GmInterferenceInfo.h>

#include <cstring>

namespace {

// The stored classification as a plain int: a record may carry any value there, and reading
// it through the enum type would assume it lies in the enumerator range.
int pointTypeValue(const GmTriangleInterferenceInfo& info) {
    static_assert(sizeof(info.pointType) == sizeof(int), "PointOnTriType is int-sized");
    int v;
    std::memcpy(&v, &info.pointType, sizeof v);
    return v;
}

const char* boolText(bool b) { return b ? "true" : "false"; }

enum class PinchLine { kNone, kPair, kSingle };

// Long form shared by the three triangle-pair records; the normal line differs per record.
std::ostream& writeTriangleRecord(std::ostream& os, const char* word, const GmTriangleInterferenceInfo& r,
                                  PinchLine pinch, bool pinchA, bool pinchB) {
    os << word;
    if (r.objectIndex1 == -1 && r.objectIndex2 == r.objectIndex1) {
        os << " between triangles " << r.triangleIndex1 << " and " << r.triangleIndex2;
    } else if (r.objectIndex1 == r.objectIndex2) {
        os << " between object " << r.objectIndex1 << " triangles " << r.triangleIndex1 << " and "
           << r.triangleIndex2;
    } else {
        os << " between object " << r.objectIndex1 << " triangle " << r.triangleIndex1 << " and object "
           << r.objectIndex2 << " triangle " << r.triangleIndex2;
    }

    const std::int32_t type = r.type;
    switch (type) {
        case GmInterferenceType::INVALID: os << " of type INVALID.\n"; return os;
        case GmInterferenceType::VERTEX_FACE: os << " of type VERTEX-FACE:\n"; break;
        case GmInterferenceType::FACE_VERTEX: os << " of type FACE-VERTEX:\n"; break;
        case GmInterferenceType::EDGE_EDGE: os << " of type EDGE-EDGE:\n"; break;
        default: return os;
    }

    os << "\ttime " << r.time << "; distance " << r.distance << "; falloff " << r.falloff << "\n";

    os << "\tnormal " << r.normal;
    switch (pinch) {
        case PinchLine::kPair: os << "; pinched0 " << boolText(pinchA) << "; pinched1 " << boolText(pinchB); break;
        case PinchLine::kSingle: os << "; pinched " << boolText(pinchA); break;
        case PinchLine::kNone: break;
    }
    os << "\n";

    switch (type) {
        case GmInterferenceType::VERTEX_FACE: os << "\tvertex " << r.feature1 << "; face " << r.feature2 << "\n"; break;
        case GmInterferenceType::FACE_VERTEX: os << "\tface " << r.feature2 << "; vertex " << r.feature1 << "\n"; break;
        default: os << "\tedge1 " << r.feature1 << "; edge2 " << r.feature2 << "\n"; break;
    }

    os << "\tpoint " << r.point << "; pointType " << GmGeometry::pointOnTriTypeName(pointTypeValue(r)) << "\n";

    switch (type) {
        case GmInterferenceType::VERTEX_FACE: os << "\tbarycentric2 " << r.barycentric2 << "\n"; break;
        case GmInterferenceType::FACE_VERTEX: os << "\tbarycentric1 " << r.barycentric1 << "\n"; break;
        default:
            os << "\tbarycentric1 " << r.barycentric1 << "\n";
            os << "\tbarycentric2 " << r.barycentric2 << "\n";
            break;
    }

    os << "\tvertexIndices {" << r.vertexIndices[0] << ", " << r.vertexIndices[1] << ", " << r.vertexIndices[2]
       << ", " << r.vertexIndices[3] << "}\n";
    os << "\tedgeIndices {" << r.edgeIndices[0] << ", " << r.edgeIndices[1] << "}\n";
    return os;
}

}  // namespace

void GmTriangleInterferenceInfo::getFeatures(int& kind1, int& index1, int& kind2, int& index2) const {
    const int pt = pointTypeValue(*this);
    const bool onVertex = pt >= GmGeometry::ON_VERTEX_1 && pt <= GmGeometry::ON_VERTEX_3;
    const bool onEdge = pt >= GmGeometry::ON_EDGE_1 && pt <= GmGeometry::ON_EDGE_3;
    const std::int32_t t = type;
    switch (t) {
        case GmInterferenceType::VERTEX_FACE:
            kind1 = kFeatureVertex;
            index1 = vertexIndices[0];
            if (onVertex) {
                kind2 = kFeatureVertex;
                index2 = vertexIndices[pt - GmGeometry::ON_VERTEX_1 + 1];
            } else if (onEdge) {
                kind2 = kFeatureEdge;
                index2 = edgeIndices[1];
            } else {
                kind2 = kFeatureFace;
                index2 = triangleIndex2;
            }
            return;
        case GmInterferenceType::FACE_VERTEX:
            kind2 = kFeatureVertex;
            index2 = vertexIndices[3];
            if (onVertex) {
                kind1 = kFeatureVertex;
                index1 = vertexIndices[pt - GmGeometry::ON_VERTEX_1];
            } else if (onEdge) {
                kind1 = kFeatureEdge;
                index1 = edgeIndices[0];
            } else {
                kind1 = kFeatureFace;
                index1 = triangleIndex1;
            }
            return;
        case GmInterferenceType::EDGE_EDGE:
            kind1 = kFeatureEdge;
            index1 = edgeIndices[0];
            kind2 = kFeatureEdge;
            index2 = edgeIndices[1];
            return;
        default:
            kind1 = kFeatureInvalid;
            index1 = -1;
            kind2 = kFeatureInvalid;
            index2 = -1;
            return;
    }
}

void GmTriangleInterferenceInfo::printCompact(std::ostream& os) const {
    if (type == GmInterferenceType::INVALID) {
        os << "INVALID";
        return;
    }
    static const char kLetters[] = "XVEF";
    static const char* const kWords[] = {"invalid", "vtx", "edge", "face"};
    int k1, i1, k2, i2;
    getFeatures(k1, i1, k2, i2);
    os << kLetters[k1] << "-" << kLetters[k2];
    os << " obj " << objectIndex1 << " " << kWords[k1] << " " << i1;
    if (objectIndex1 != objectIndex2)
        os << " obj " << objectIndex2 << " ";
    else
        os << " self ";
    os << kWords[k2] << " " << i2;
    os << " time " << time << " dist " << distance;
    os << " P " << point.x << " " << point.y << " " << point.z;
    os << " N " << normal.x << " " << normal.y << " " << normal.z;
}

std::ostream& operator<<(std::ostream& os, const GmTriangleInterferenceInfo& info) {
    return writeTriangleRecord(os, "Interference", info, PinchLine::kNone, false, false);
}

std::ostream& operator<<(std::ostream& os, const GmContinuousTimeIntersectionInfo& info) {
    return writeTriangleRecord(os, "Continuous-Time Intersection", info, PinchLine::kPair, info.pinched0,
                               info.pinched1);
}

std::ostream& operator<<(std::ostream& os, const GmProximityCheckInfo& info) {
    return writeTriangleRecord(os, "Proximity", info, PinchLine::kSingle, info.pinched, false);
}

std::ostream& operator<<(std::ostream& os, const GmInsideInfo& info) {
    if (info.vertex < 0) return os << "Inside Vertex INVALID";
    return os << "Inside Vertex " << info.vertex << " { closestPoint " << info.closestPoint << ", distance "
              << info.distance << ", closestFace " << info.closestFace << ", barycentric " << info.barycentric
              << ", pinched " << boolText(info.pinched) << ", objectIndex1 " << info.objectIndex1
              << ", objectIndex2 " << info.objectIndex2 << ", weight " << info.weight << " }";
}

std::ostream& operator<<(std::ostream& os, const GmPointIntersectionInfo& info) {
    return os << "Inside Point" << " { objectIndex " << info.objectIndex << ", triangleIndex " << info.triangleIndex
              << ", point " << info.point << ", barycentric " << info.barycentric << " }";
}

std::ostream& operator<<(std::ostream& os, const GmIntersectionInfo& info) {
    os << "Intersection between triangles " << info.triangleIndex1 << " and " << info.triangleIndex2 << ":\n";
    os << "\tpoints { ";
    for (std::size_t i = 0; i < info.points.size(); ++i) {
        if (i) os << ", ";
        os << info.points[i];
    }
    return os << " }\n";
}

std::ostream& operator<<(std::ostream& os, const GmIntersectionCandidate& c) {
    return os << "Intersection Candidate (" << c.first << ", " << c.second << ")\n";
}

std::ostream& operator<<(std::ostream& os, const GmTimeIndex& ti) {
    return os << "(time, index) = (" << ti.time << ", " << ti.index << ")";
}
