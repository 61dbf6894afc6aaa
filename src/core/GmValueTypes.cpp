#include <quarrygeom/core/GmAxisAlignedBox.h>
#include <quarrygeom/core/GmPointOnTriType.h>

std::ostream& operator<<(std::ostream& os, const GmAxisAlignedBox& box) {
    return os << "AABB (" << box.getMin() << ", " << box.getMax() << ") (" << box.getCenter() << ", "
              << box.getHalfExtent() << ")";
}

namespace GmGeometry {
const char* pointOnTriTypeName(int type) {
    switch (type) {
        case INSIDE: return "INSIDE";
        case ON_VERTEX_1: return "ON_VERTEX_1";
        case ON_VERTEX_2: return "ON_VERTEX_2";
        case ON_VERTEX_3: return "ON_VERTEX_3";
        case ON_EDGE_1: return "ON_EDGE_1";
        case ON_EDGE_2: return "ON_EDGE_2";
        case ON_EDGE_3: return "ON_EDGE_3";
        case INVALID: return "INVALID";
        default: return "UNKNOWN";
    }
}
}  // namespace GmGeometry
