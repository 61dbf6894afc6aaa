#pragma once

#include <array>
#include <vector>

#include <quarrygeom/core/GmTVector.h>

namespace qgrender {

// A perspective camera; matrices are column-major, as OpenGL loads them.
struct Camera {
    GmTVector<double> eye{0, -3, 1}, target{0, 0, 0}, up{0, 0, 1};
    double fovY = 30.0;  // degrees
    double nearPlane = 0.1, farPlane = 100.0;

    // Looks at the points from the given azimuth (degrees around +z, 0 along -y) and elevation
    // (degrees above the xy plane), centred and just far enough for all of them to show in a
    // picture of the given aspect (width / height).
    static Camera framing(const std::vector<GmTVector<double>>& points, double azimuth, double elevation,
                          double fovY = 30.0, double aspect = 4.0 / 3.0);
    // The same for the corners of the box [lo, hi].
    static Camera framing(const GmTVector<double>& lo, const GmTVector<double>& hi, double azimuth, double elevation,
                          double fovY = 30.0, double aspect = 4.0 / 3.0);

    std::array<double, 16> view() const;
    std::array<double, 16> projection(double aspect) const;
    // Loads projection and view into OpenGL's matrix stacks (model-view left current).
    void load(double aspect) const;
};

}  // namespace qgrender
