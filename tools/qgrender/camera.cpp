#include "qgrender/camera.h"

#include <GL/gl.h>

#include <algorithm>
#include <cmath>

namespace qgrender {

namespace {

using Vec = GmTVector<double>;
constexpr double kPi = 3.14159265358979323846;

Vec unit(const Vec& v) {
    const double l = v.length();
    return l > 0 ? v / l : v;
}

}  // namespace

Camera Camera::framing(const Vec& lo, const Vec& hi, double azimuth, double elevation, double fovY) {
    Camera c;
    c.fovY = fovY;
    c.target = (lo + hi) * 0.5;
    const double radius = std::max(0.5 * (hi - lo).length(), 1e-6);
    const double a = azimuth * kPi / 180.0, e = elevation * kPi / 180.0;
    const Vec towardsEye(std::sin(a) * std::cos(e), -std::cos(a) * std::cos(e), std::sin(e));
    // The bounding sphere fits the vertical field of view (the wider horizontal one follows).
    const double distance = radius / std::sin(0.5 * fovY * kPi / 180.0);
    c.eye = c.target + towardsEye * distance;
    c.nearPlane = std::max(distance - radius * 1.5, distance * 1e-3);
    c.farPlane = distance + radius * 1.5;
    return c;
}

std::array<double, 16> Camera::view() const {
    const Vec f = unit(target - eye);
    const Vec s = unit(f.cross(up));
    const Vec u = s.cross(f);
    return {s.x, u.x, -f.x, 0, s.y, u.y, -f.y, 0, s.z, u.z, -f.z, 0,
            -s.dot(eye), -u.dot(eye), f.dot(eye), 1};
}

std::array<double, 16> Camera::projection(double aspect) const {
    const double t = 1.0 / std::tan(0.5 * fovY * kPi / 180.0);
    const double n = nearPlane, f = farPlane;
    return {t / aspect, 0, 0, 0, 0, t, 0, 0, 0, 0, (f + n) / (n - f), -1, 0, 0, 2 * f * n / (n - f), 0};
}

void Camera::load(double aspect) const {
    glMatrixMode(GL_PROJECTION);
    glLoadMatrixd(projection(aspect).data());
    glMatrixMode(GL_MODELVIEW);
    glLoadMatrixd(view().data());
}

}  // namespace qgrender
