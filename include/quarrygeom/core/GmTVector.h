#pragma once

#include <cmath>
#include <cfloat>
#include <ostream>

#include <quarrygeom/core/GmExport.h>

// Three-component vector of doubles (positions, normals, directions) or
// floats (box corners, radii). Plain value type, components stored as x, y, z.
template <typename T>
class GmTVector {
public:
    T x, y, z;

    GmTVector() : x(T(0)), y(T(0)), z(T(0)) {}
    GmTVector(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}
    template <typename U>
    explicit GmTVector(const GmTVector<U>& o) : x(T(o.x)), y(T(o.y)), z(T(o.z)) {}

    T& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    const T& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }

    void set(T x_, T y_, T z_) { x = x_; y = y_; z = z_; }

    GmTVector operator+(const GmTVector& o) const { return GmTVector(x + o.x, y + o.y, z + o.z); }
    GmTVector operator-(const GmTVector& o) const { return GmTVector(x - o.x, y - o.y, z - o.z); }
    GmTVector operator-() const { return GmTVector(-x, -y, -z); }
    GmTVector operator*(T s) const { return GmTVector(x * s, y * s, z * s); }
    GmTVector operator/(T s) const { return GmTVector(x / s, y / s, z / s); }
    GmTVector& operator+=(const GmTVector& o) { x += o.x; y += o.y; z += o.z; return *this; }
    GmTVector& operator-=(const GmTVector& o) { x -= o.x; y -= o.y; z -= o.z; return *this; }
    GmTVector& operator*=(T s) { x *= s; y *= s; z *= s; return *this; }
    GmTVector& operator/=(T s) { x /= s; y /= s; z /= s; return *this; }

    bool operator==(const GmTVector& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const GmTVector& o) const { return !(*this == o); }

    T dot(const GmTVector& o) const { return x * o.x + y * o.y + z * o.z; }
    GmTVector cross(const GmTVector& o) const {
        return GmTVector(y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x);
    }
    T lengthSquared() const { return x * x + y * y + z * z; }
    T length() const { return std::sqrt(lengthSquared()); }

    // Divides by the length in place; throws GmException("GmTVector::normalize() ... Zero magnitude")
    // and leaves the vector unchanged when the length is at most DBL_EPSILON.
    GmTVector& normalize();
    // Copy divided by max(length, DBL_EPSILON): never throws, zero stays zero.
    GmTVector safeNormalized() const {
        const T len = length();
        const T d = len > T(DBL_EPSILON) ? len : T(DBL_EPSILON);
        return GmTVector(x / d, y / d, z / d);
    }

    // Component indices ordered by value, largest first (ties keep the lower index first).
    void getIndexOrdering(int order[3]) const;
};

template <typename T>
inline GmTVector<T> operator*(T s, const GmTVector<T>& v) { return v * s; }

template <typename T>
inline T dot(const GmTVector<T>& a, const GmTVector<T>& b) { return a.dot(b); }
template <typename T>
inline GmTVector<T> cross(const GmTVector<T>& a, const GmTVector<T>& b) { return a.cross(b); }

QUARRYMATH_API std::ostream& operator<<(std::ostream& os, const GmTVector<double>& v);
QUARRYMATH_API std::ostream& operator<<(std::ostream& os, const GmTVector<float>& v);

namespace GmTVectorDetail {
[[noreturn]] QUARRYMATH_API void throwZeroMagnitude();
}

template <typename T>
GmTVector<T>& GmTVector<T>::normalize() {
    const T len = length();
    if (!(len > T(DBL_EPSILON))) GmTVectorDetail::throwZeroMagnitude();
    x /= len; y /= len; z /= len;
    return *this;
}

template <typename T>
void GmTVector<T>::getIndexOrdering(int order[3]) const {
    int a = 0, b = 1, c = 2;
    const T v[3] = {x, y, z};
    if (v[b] > v[a]) { int t = a; a = b; b = t; }
    if (v[c] > v[b]) { int t = b; b = c; c = t; }
    if (v[b] > v[a]) { int t = a; a = b; b = t; }
    order[0] = a; order[1] = b; order[2] = c;
}

using GmVector3d = GmTVector<double>;
using GmVector3f = GmTVector<float>;
