#include <quarrygeom/core/GmMatrix.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

GmMatrix::GmMatrix() : GmMatrix(1, 0, 0, 0, 1, 0, 0, 0, 1) {}

GmMatrix::GmMatrix(double m00, double m01, double m02, double m10, double m11, double m12, double m20,
                   double m21, double m22) {
    set(m00, m01, m02, m10, m11, m12, m20, m21, m22);
}

GmMatrix::GmMatrix(const double m[3][3]) { set(m); }

void GmMatrix::set(double m00, double m01, double m02, double m10, double m11, double m12, double m20,
                   double m21, double m22) {
    _m[0][0] = m00; _m[0][1] = m01; _m[0][2] = m02;
    _m[1][0] = m10; _m[1][1] = m11; _m[1][2] = m12;
    _m[2][0] = m20; _m[2][1] = m21; _m[2][2] = m22;
}

void GmMatrix::set(const double m[3][3]) {
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) _m[r][c] = m[r][c];
}

void GmMatrix::get(double m[3][3]) const {
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) m[r][c] = _m[r][c];
}

GmMatrix GmMatrix::operator+(const GmMatrix& o) const {
    GmMatrix r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r._m[i][j] = _m[i][j] + o._m[i][j];
    return r;
}

GmMatrix GmMatrix::operator-(const GmMatrix& o) const {
    GmMatrix r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r._m[i][j] = _m[i][j] - o._m[i][j];
    return r;
}

GmMatrix GmMatrix::operator*(double s) const {
    GmMatrix r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r._m[i][j] = _m[i][j] * s;
    return r;
}

GmMatrix GmMatrix::operator*(const GmMatrix& o) const {
    GmMatrix r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r._m[i][j] = _m[i][0] * o._m[0][j] + _m[i][1] * o._m[1][j] + _m[i][2] * o._m[2][j];
    return r;
}

GmTVector<double> GmMatrix::operator*(const GmTVector<double>& v) const {
    return GmTVector<double>(_m[0][0] * v.x + _m[0][1] * v.y + _m[0][2] * v.z,
                             _m[1][0] * v.x + _m[1][1] * v.y + _m[1][2] * v.z,
                             _m[2][0] * v.x + _m[2][1] * v.y + _m[2][2] * v.z);
}

bool GmMatrix::operator==(const GmMatrix& o) const {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (_m[i][j] != o._m[i][j]) return false;
    return true;
}

GmMatrix GmMatrix::transpose() const {
    return GmMatrix(_m[0][0], _m[1][0], _m[2][0], _m[0][1], _m[1][1], _m[2][1], _m[0][2], _m[1][2], _m[2][2]);
}

double GmMatrix::determinant() const {
    return _m[0][0] * (_m[1][1] * _m[2][2] - _m[1][2] * _m[2][1]) -
           _m[0][1] * (_m[1][0] * _m[2][2] - _m[1][2] * _m[2][0]) +
           _m[0][2] * (_m[1][0] * _m[2][1] - _m[1][1] * _m[2][0]);
}

namespace {

// One Jacobi rotation applied to the pair of elements (a, b).
inline void rotate(double& a, double& b, double s, double tau) {
    const double g = a, h = b;
    a = g - s * (h + g * tau);
    b = h + s * (g - h * tau);
}

}  // namespace

int GmMatrix::getEigenSystem(double eigenvalues[3], GmTVector<double> eigenvectors[3]) const {
    // Symmetric part, scaled by a power of two so that the largest entry is about 1.
    double a[3][3];
    double largest = 0.0;
    bool finite = true;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            a[i][j] = i == j ? _m[i][i] : 0.5 * _m[i][j] + 0.5 * _m[j][i];
            finite = finite && std::isfinite(a[i][j]);
            largest = std::max(largest, std::fabs(a[i][j]));
        }
    if (!finite) {
        for (int k = 0; k < 3; ++k) {
            eigenvalues[k] = std::numeric_limits<double>::quiet_NaN();
            eigenvectors[k] = GmTVector<double>(k == 0, k == 1, k == 2);
        }
        return -1;
    }
    const int exponent = largest > 0.0 ? std::ilogb(largest) : 0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) a[i][j] = std::scalbn(a[i][j], -exponent);

    double v[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};  // columns are the eigenvectors
    double d[3], b[3], z[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i) b[i] = d[i] = a[i][i];

    int status = 1;
    for (int sweep = 1; sweep <= 64; ++sweep) {
        const double off = std::fabs(a[0][1]) + std::fabs(a[0][2]) + std::fabs(a[1][2]);
        if (off == 0.0) {
            status = 0;
            break;
        }
        const double threshold = sweep < 4 ? 0.2 * off / 9.0 : 0.0;
        for (int p = 0; p < 2; ++p) {
            for (int q = p + 1; q < 3; ++q) {
                const double g = 100.0 * std::fabs(a[p][q]);
                if (sweep > 4 && std::fabs(d[p]) + g == std::fabs(d[p]) && std::fabs(d[q]) + g == std::fabs(d[q])) {
                    a[p][q] = 0.0;  // negligible against both diagonal entries
                    continue;
                }
                if (std::fabs(a[p][q]) <= threshold) continue;
                double h = d[q] - d[p];
                double t;
                if (std::fabs(h) + g == std::fabs(h)) {
                    t = a[p][q] / h;
                } else {
                    const double theta = 0.5 * h / a[p][q];
                    t = 1.0 / (std::fabs(theta) + std::sqrt(1.0 + theta * theta));
                    if (theta < 0.0) t = -t;
                }
                const double c = 1.0 / std::sqrt(1.0 + t * t);
                const double s = t * c;
                const double tau = s / (1.0 + c);
                h = t * a[p][q];
                z[p] -= h;
                z[q] += h;
                d[p] -= h;
                d[q] += h;
                a[p][q] = 0.0;
                for (int j = 0; j < p; ++j) rotate(a[j][p], a[j][q], s, tau);
                for (int j = p + 1; j < q; ++j) rotate(a[p][j], a[j][q], s, tau);
                for (int j = q + 1; j < 3; ++j) rotate(a[p][j], a[q][j], s, tau);
                for (int j = 0; j < 3; ++j) rotate(v[j][p], v[j][q], s, tau);
            }
        }
        for (int i = 0; i < 3; ++i) {
            b[i] += z[i];
            d[i] = b[i];
            z[i] = 0.0;
        }
    }

    // Descending eigenvalues.
    int order[3] = {0, 1, 2};
    for (int i = 1; i < 3; ++i)
        for (int j = i; j > 0 && d[order[j]] > d[order[j - 1]]; --j) std::swap(order[j], order[j - 1]);
    for (int k = 0; k < 3; ++k) {
        const int c = order[k];
        eigenvalues[k] = std::scalbn(d[c], exponent);
        GmTVector<double> e(v[0][c], v[1][c], v[2][c]);
        eigenvectors[k] = e / e.length();  // products of rotations: already unit up to rounding
    }
    // Right-handed frame.
    if (eigenvectors[0].cross(eigenvectors[1]).dot(eigenvectors[2]) < 0.0) eigenvectors[2] = -eigenvectors[2];
    return status;
}

std::ostream& operator<<(std::ostream& os, const GmMatrix& m) {
    os << '[';
    for (int r = 0; r < 3; ++r) {
        if (r) os << ", ";
        os << GmTVector<double>(m(r, 0), m(r, 1), m(r, 2));
    }
    return os << ']';
}
