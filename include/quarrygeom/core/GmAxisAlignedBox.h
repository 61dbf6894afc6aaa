#pragma once

#include <algorithm>
#include <limits>
#include <ostream>

#include <quarrygeom/core/GmTVector.h>

// Single-precision axis-aligned box: minimum x, y, z then maximum x, y, z.
// An empty box has each minimum above its maximum.
class GmAxisAlignedBox {
public:
    float minX, minY, minZ, maxX, maxY, maxZ;

    GmAxisAlignedBox() { setEmpty(); }
    GmAxisAlignedBox(float x0, float y0, float z0, float x1, float y1, float z1)
        : minX(x0), minY(y0), minZ(z0), maxX(x1), maxY(y1), maxZ(z1) {}
    GmAxisAlignedBox(const GmTVector<float>& mn, const GmTVector<float>& mx)
        : minX(mn.x), minY(mn.y), minZ(mn.z), maxX(mx.x), maxY(mx.y), maxZ(mx.z) {}

    void setEmpty() {
        minX = minY = minZ = std::numeric_limits<float>::max();
        maxX = maxY = maxZ = -std::numeric_limits<float>::max();
    }
    bool isEmpty() const { return minX > maxX || minY > maxY || minZ > maxZ; }

    GmTVector<float> getMin() const { return GmTVector<float>(minX, minY, minZ); }
    GmTVector<float> getMax() const { return GmTVector<float>(maxX, maxY, maxZ); }
    GmTVector<float> getExtent() const { return GmTVector<float>(maxX - minX, maxY - minY, maxZ - minZ); }
    GmTVector<float> getCenter() const {
        return GmTVector<float>((maxX - minX) * 0.5f + minX, (maxY - minY) * 0.5f + minY, (maxZ - minZ) * 0.5f + minZ);
    }
    GmTVector<float> getHalfExtent() const {
        return GmTVector<float>((maxX - minX) * 0.5f, (maxY - minY) * 0.5f, (maxZ - minZ) * 0.5f);
    }

    // Grow to include a point; double points are rounded outwards so the box encloses them.
    void expand(const GmTVector<float>& p) {
        minX = std::min(minX, p.x); minY = std::min(minY, p.y); minZ = std::min(minZ, p.z);
        maxX = std::max(maxX, p.x); maxY = std::max(maxY, p.y); maxZ = std::max(maxZ, p.z);
    }
    void expand(const GmTVector<double>& p) {
        minX = std::min(minX, roundDown(p.x)); minY = std::min(minY, roundDown(p.y)); minZ = std::min(minZ, roundDown(p.z));
        maxX = std::max(maxX, roundUp(p.x)); maxY = std::max(maxY, roundUp(p.y)); maxZ = std::max(maxZ, roundUp(p.z));
    }
    void expand(const GmAxisAlignedBox& b) {
        minX = std::min(minX, b.minX); minY = std::min(minY, b.minY); minZ = std::min(minZ, b.minZ);
        maxX = std::max(maxX, b.maxX); maxY = std::max(maxY, b.maxY); maxZ = std::max(maxZ, b.maxZ);
    }
    // Pad every side outwards by d.
    void pad(float d) { minX -= d; minY -= d; minZ -= d; maxX += d; maxY += d; maxZ += d; }

    bool overlaps(const GmAxisAlignedBox& b) const {
        return minX <= b.maxX && b.minX <= maxX && minY <= b.maxY && b.minY <= maxY && minZ <= b.maxZ && b.minZ <= maxZ;
    }
    bool contains(const GmTVector<double>& p) const {
        return minX <= p.x && p.x <= maxX && minY <= p.y && p.y <= maxY && minZ <= p.z && p.z <= maxZ;
    }

    // Nearest float at or below / at or above a double.
    static float roundDown(double v) {
        float f = static_cast<float>(v);
        return static_cast<double>(f) > v ? std::nextafter(f, -std::numeric_limits<float>::infinity()) : f;
    }
    static float roundUp(double v) {
        float f = static_cast<float>(v);
        return static_cast<double>(f) < v ? std::nextafter(f, std::numeric_limits<float>::infinity()) : f;
    }
    // Nearest float at or below v - pad / at or above v + pad (pad >= 0) in exact arithmetic:
    // where v -/+ pad rounds back to v in double (large v), the bound still moves outwards.
    // The check is exact: the float and v are within a factor of two of each other there.
    static float padDown(double v, double pad) {
        const float f = roundDown(v - pad);
        return v - static_cast<double>(f) < pad ? std::nextafter(f, -std::numeric_limits<float>::infinity()) : f;
    }
    static float padUp(double v, double pad) {
        const float f = roundUp(v + pad);
        return static_cast<double>(f) - v < pad ? std::nextafter(f, std::numeric_limits<float>::infinity()) : f;
    }
};

// "AABB (min, max) (center, half extent)".
QUARRYGEOM_API std::ostream& operator<<(std::ostream& os, const GmAxisAlignedBox& box);
