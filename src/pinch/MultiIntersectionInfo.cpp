// Per-object pinch information of the multi-object inside query.

#include <quarrygeom/pinch/MultiIntersectionInfo.h>

MultiIntersectionInfo::MultiIntersectionInfo() = default;
MultiIntersectionInfo::MultiIntersectionInfo(const MultiIntersectionInfo&) = default;
MultiIntersectionInfo& MultiIntersectionInfo::operator=(const MultiIntersectionInfo&) = default;
MultiIntersectionInfo::~MultiIntersectionInfo() = default;
