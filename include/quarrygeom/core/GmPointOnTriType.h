#pragma once

#include <quarrygeom/core/GmExport.h>

namespace GmGeometry {

// Where on a triangle a point lies; vertex and edge numbering as in GmTriangleFace
// (edge 1 joins vertices 1-2, edge 2 joins 2-3, edge 3 joins 3-1).
enum PointOnTriType : int {
    INSIDE = 0,
    ON_VERTEX_1 = 1,
    ON_VERTEX_2 = 2,
    ON_VERTEX_3 = 3,
    ON_EDGE_1 = 4,
    ON_EDGE_2 = 5,
    ON_EDGE_3 = 6,
    INVALID = 7
};

// Text name of a classification ("INSIDE", "ON_EDGE_2", ...); any other value gives "UNKNOWN".
QUARRYGEOM_API const char* pointOnTriTypeName(int type);

}  // namespace GmGeometry
