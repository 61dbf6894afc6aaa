#pragma once

#include <quarrygeom/core/GmTVector.h>

// A ray with an origin and a direction. The octant class (0..7) records the sign of the
// direction per axis: bit 2 set when x > 0, bit 1 when y > 0, bit 0 when z > 0.
class GmRay {
public:
    GmRay() : _classification(0) {}
    GmRay(const GmTVector<double>& origin, const GmTVector<double>& direction)
        : _origin(origin), _direction(direction), _classification(classify(direction)) {}

    const GmTVector<double>& getOrigin() const { return _origin; }
    const GmTVector<double>& getDirection() const { return _direction; }
    int getClassification() const { return _classification; }

    void setOrigin(const GmTVector<double>& origin) { _origin = origin; }
    void setDirection(const GmTVector<double>& direction) {
        _direction = direction;
        _classification = classify(direction);
    }

    static int classify(const GmTVector<double>& d) {
        return (d.x > 0.0 ? 4 : 0) | (d.y > 0.0 ? 2 : 0) | (d.z > 0.0 ? 1 : 0);
    }

private:
    GmTVector<double> _origin;
    GmTVector<double> _direction;
    int _classification;
};

// A ray along one signed coordinate axis, the direction fixed at compile time:
// exactly one of X, Y, Z is +1 or -1, the other two are 0.
template <int X, int Y, int Z>
class GmRayAxis {
    static_assert((X != 0) + (Y != 0) + (Z != 0) == 1, "GmRayAxis needs exactly one non-zero axis");
    static_assert(X >= -1 && X <= 1 && Y >= -1 && Y <= 1 && Z >= -1 && Z <= 1, "axis components are -1, 0 or 1");

public:
    static constexpr int kX = X;
    static constexpr int kY = Y;
    static constexpr int kZ = Z;
    // Index of the non-zero axis and its sign.
    static constexpr int kAxis = X != 0 ? 0 : (Y != 0 ? 1 : 2);
    static constexpr int kSign = X + Y + Z;

    GmRayAxis() = default;
    explicit GmRayAxis(const GmTVector<double>& origin) : _origin(origin) {}

    const GmTVector<double>& getOrigin() const { return _origin; }
    void setOrigin(const GmTVector<double>& origin) { _origin = origin; }
    static GmTVector<double> getDirection() { return GmTVector<double>(X, Y, Z); }

private:
    GmTVector<double> _origin;
};
