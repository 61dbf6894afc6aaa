#pragma once

#include <array>

#include <quarrygeom/core/GmTVector.h>

namespace qgrender {

// A perspective camera; matrices are column-major, as OpenGL loads them.
struct Camera {
    GmTVector<double> eye{0, -3, 1}, target{0, 0, 0}, up{0, 0, 1};
    double fovY = 30.0;  // degrees
    double nearPlane = 0.1, farPlane = 100.0;

    // Looks at the box [lo, hi] from the given azimuth (degrees around +z, 0 along -y) and
    // elevation (degrees above the xy plane), far enough for the whole box to show.
    static Camera framing(const GmTVector<double>& lo, const GmTVector<double>& hi, double azimuth, double elevation,
                          double fovY = 30.0);

    std::array<double, 16> view() const;
    std::array<double, 16> projection(double aspect) const;
    // Loads projection and view into OpenGL's matrix stacks (model-view left current).
    void load(double aspect) const;
};

}  // namespace qgrender
