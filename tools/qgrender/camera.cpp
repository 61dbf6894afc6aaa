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

Camera Camera::framing(const std::vector<Vec>& points, double azimuth, double elevation, double fovY, double aspect) {
    Camera c;
    c.fovY = fovY;
    if (points.empty()) return c;
    const double a = azimuth * kPi / 180.0, e = elevation * kPi / 180.0;
    const Vec towardsEye(std::sin(a) * std::cos(e), -std::cos(a) * std::cos(e), std::sin(e));
    const Vec f = -towardsEye, s = unit(f.cross(c.up)), u = s.cross(f);
    // Aim at the middle of the points' extent across the view.
    double sMin = 1e300, sMax = -1e300, uMin = 1e300, uMax = -1e300, fMid = 0;
    for (const Vec& p : points) {
        sMin = std::min(sMin, p.dot(s));
        sMax = std::max(sMax, p.dot(s));
        uMin = std::min(uMin, p.dot(u));
        uMax = std::max(uMax, p.dot(u));
        fMid += p.dot(f) / double(points.size());
    }
    c.target = s * (0.5 * (sMin + sMax)) + u * (0.5 * (uMin + uMax)) + f * fMid;
    // The nearest eye on that line from which every point is inside both fields of view.
    const double tanY = std::tan(0.5 * fovY * kPi / 180.0), tanX = tanY * aspect;
    double distance = 1e-6, depth = 1e-6;
    for (const Vec& p : points) {
        const Vec d = p - c.target;
        distance = std::max({distance, d.dot(f) + std::abs(d.dot(s)) / tanX, d.dot(f) + std::abs(d.dot(u)) / tanY});
        depth = std::max(depth, d.length());
    }
    distance *= 1.08;  // margin
    c.eye = c.target + towardsEye * distance;
    c.nearPlane = std::max(distance - depth * 1.5, distance * 1e-3);
    c.farPlane = distance + depth * 1.5;
    return c;
}

Camera Camera::framing(const Vec& lo, const Vec& hi, double azimuth, double elevation, double fovY, double aspect) {
    std::vector<Vec> corners;
    for (int k = 0; k < 8; ++k) corners.emplace_back(k & 1 ? hi.x : lo.x, k & 2 ? hi.y : lo.y, k & 4 ? hi.z : lo.z);
    return framing(corners, azimuth, elevation, fovY, aspect);
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
