#pragma once

// Pinch flags of contact records, filled from the classifications of the two meshes.

#include <cstddef>
#include <vector>

#include <quarrygeom/primitives/GmInterferenceInfo.h>

class GmTriangleMesh;
class SelfIntersectionInfo;

namespace GmPinchFlags {

// Records out[from ..]: pinched0 / pinched1 from the feature on triangle 1 / triangle 2 (a
// vertex by its type, a face or edge point by its side at the record's weights on that face,
// at the meshes' positions). An information applies only to the mesh it was built for.
void mark(const SelfIntersectionInfo* info1, const SelfIntersectionInfo* info2, const GmTriangleMesh& mesh1,
          const GmTriangleMesh& mesh2, std::vector<GmContinuousTimeIntersectionInfo>& out, std::size_t from);
// Records out[from ..]: pinched from the feature on whichever triangle's mesh info was built
// for (either feature when both faces belong to it).
void mark(const SelfIntersectionInfo* info, const GmTriangleMesh& mesh1, const GmTriangleMesh& mesh2,
          std::vector<GmProximityCheckInfo>& out, std::size_t from);

}  // namespace GmPinchFlags
