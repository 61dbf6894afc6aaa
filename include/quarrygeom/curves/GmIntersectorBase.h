#pragma once

#include <quarrygeom/core/GmExport.h>

// Switches that the curve tree's traversals read from their visitor.

// Base of the two-tree visitors. intersectDisabled: when true, the traversals also enter nodes
// flagged disabled (default false: such nodes are skipped).
class GmIntersectorBase {
public:
    GmIntersectorBase() = default;
    GmIntersectorBase(const GmIntersectorBase&) = default;
    GmIntersectorBase(GmIntersectorBase&&) = default;
    GmIntersectorBase& operator=(const GmIntersectorBase&) = default;
    GmIntersectorBase& operator=(GmIntersectorBase&&) = default;

    bool getIntersectDisabled() const { return intersectDisabled; }
    void setIntersectDisabled(bool value) { intersectDisabled = value; }

protected:
    ~GmIntersectorBase() = default;
    bool intersectDisabled = false;
};

// Polymorphic base of the self visitors. Besides intersectDisabled, intersectAdjacent: when
// true, the self traversal also tests pairs that the visitor's isAdjacent calls adjacent.
class QUARRYGEOM_API GmSelfIntersectorBase {
public:
    GmSelfIntersectorBase() = default;
    GmSelfIntersectorBase(const GmSelfIntersectorBase&) = default;
    GmSelfIntersectorBase(GmSelfIntersectorBase&&) = default;
    GmSelfIntersectorBase& operator=(const GmSelfIntersectorBase&) = default;
    GmSelfIntersectorBase& operator=(GmSelfIntersectorBase&&) = default;
    virtual ~GmSelfIntersectorBase();

    bool getIntersectDisabled() const { return intersectDisabled; }
    void setIntersectDisabled(bool value) { intersectDisabled = value; }
    bool getIntersectAdjacent() const { return intersectAdjacent; }
    void setIntersectAdjacent(bool value) { intersectAdjacent = value; }

protected:
    bool intersectDisabled = false;
    bool intersectAdjacent = false;
};
