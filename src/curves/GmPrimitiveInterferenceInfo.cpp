#include <quarrygeom/curves/GmPrimitiveInterferenceInfo.h>

std::ostream& operator<<(std::ostream& os, const GmSegmentSegmentInfo& info) {
    os << "Interference between segments " << info.index1 << " and " << info.index2 << ":\n";
    os << "\tdistance " << info.distance << "; parameters " << info.parameter1 << ", " << info.parameter2
       << "; radii " << info.radius1 << ", " << info.radius2 << "\n";
    os << "\tpoint1 " << info.point1 << "; point2 " << info.point2 << "\n";
    os << "\tnormal " << info.normal << "\n";
    return os;
}

std::ostream& operator<<(std::ostream& os, const GmSegmentFaceInfo& info) {
    os << "Interference between segment " << info.index1 << " and face " << info.index2;
    if (info.index3 >= 0) os << " edge " << info.index3;
    os << ":\n";
    os << "\tdistance " << info.distance << "; parameter " << info.parameter1 << "\n";
    os << "\tpoint1 " << info.point1 << "; point2 " << info.point2 << "\n";
    os << "\tnormal " << info.normal << "; barycentric " << info.barycentric << "\n";
    return os;
}
