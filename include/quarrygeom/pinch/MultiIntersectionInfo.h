#pragma once

#include <quarrygeom/pinch/SelfIntersectionInfo.h>

// Pinch information of one object of the multi-object inside query
// (GmBoundingTree::intersect with a list of trees): the classification of that object's mesh,
// built like any SelfIntersectionInfo. A null entry in the query's list stands for an object
// without pinch information.
class QUARRYGEOM_API MultiIntersectionInfo : public SelfIntersectionInfo {
public:
    MultiIntersectionInfo();
    MultiIntersectionInfo(const MultiIntersectionInfo&);
    MultiIntersectionInfo& operator=(const MultiIntersectionInfo&);
    ~MultiIntersectionInfo() override;
};
