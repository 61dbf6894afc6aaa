#include <quarrygeom/core/GmTransformMatrix.h>

#include <cmath>
#include <limits>
#include <utility>

namespace {

// A linear map whose normalised determinant (|det| over the product of its row lengths,
// 1 for orthogonal rows) is at or below this is treated as singular.
constexpr double kSingularRatio = 1e-14;

double rowLength(const double* r, int n) {
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += r[i] * r[i];
    return std::sqrt(s);
}

}  // namespace

GmTransformMatrix::GmTransformMatrix() {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) _m[r][c] = r == c ? 1.0 : 0.0;
}

GmTransformMatrix::GmTransformMatrix(double m00, double m01, double m02, double m03, double m10, double m11,
                                     double m12, double m13, double m20, double m21, double m22, double m23,
                                     double m30, double m31, double m32, double m33) {
    set(m00, m01, m02, m03, m10, m11, m12, m13, m20, m21, m22, m23, m30, m31, m32, m33);
}

GmTransformMatrix::GmTransformMatrix(const double m[4][4]) { set(m); }

GmTransformMatrix::GmTransformMatrix(const GmTransformMatrix& other) { set(other._m); }

GmTransformMatrix& GmTransformMatrix::operator=(const GmTransformMatrix& other) {
    if (this != &other) set(other._m);
    return *this;
}

GmTransformMatrix::~GmTransformMatrix() = default;

GmTransformMatrix GmTransformMatrix::translation(const GmTVector<double>& t) {
    return GmTransformMatrix(1, 0, 0, t.x, 0, 1, 0, t.y, 0, 0, 1, t.z, 0, 0, 0, 1);
}

GmTransformMatrix GmTransformMatrix::scaling(double sx, double sy, double sz) {
    return GmTransformMatrix(sx, 0, 0, 0, 0, sy, 0, 0, 0, 0, sz, 0, 0, 0, 0, 1);
}

GmTransformMatrix GmTransformMatrix::rotation(const GmTVector<double>& u, double angle) {
    const double c = std::cos(angle), s = std::sin(angle), k = 1.0 - c;
    return GmTransformMatrix(c + u.x * u.x * k, u.x * u.y * k - u.z * s, u.x * u.z * k + u.y * s, 0,
                             u.y * u.x * k + u.z * s, c + u.y * u.y * k, u.y * u.z * k - u.x * s, 0,
                             u.z * u.x * k - u.y * s, u.z * u.y * k + u.x * s, c + u.z * u.z * k, 0,
                             0, 0, 0, 1);
}

void GmTransformMatrix::set(double m00, double m01, double m02, double m03, double m10, double m11, double m12,
                            double m13, double m20, double m21, double m22, double m23, double m30, double m31,
                            double m32, double m33) {
    const double v[16] = {m00, m01, m02, m03, m10, m11, m12, m13, m20, m21, m22, m23, m30, m31, m32, m33};
    for (int i = 0; i < 16; ++i) _m[i / 4][i % 4] = v[i];
}

void GmTransformMatrix::set(const double m[4][4]) {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) _m[r][c] = m[r][c];
}

void GmTransformMatrix::get(double m[4][4]) const {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) m[r][c] = _m[r][c];
}

bool GmTransformMatrix::getInverse(GmTransformMatrix& result) const {
    if (isAffine()) {
        // Invert the linear part by its adjugate; the translation follows.
        const double (*a)[4] = _m;
        double inv[3][3] = {
            {a[1][1] * a[2][2] - a[1][2] * a[2][1], a[0][2] * a[2][1] - a[0][1] * a[2][2], a[0][1] * a[1][2] - a[0][2] * a[1][1]},
            {a[1][2] * a[2][0] - a[1][0] * a[2][2], a[0][0] * a[2][2] - a[0][2] * a[2][0], a[0][2] * a[1][0] - a[0][0] * a[1][2]},
            {a[1][0] * a[2][1] - a[1][1] * a[2][0], a[0][1] * a[2][0] - a[0][0] * a[2][1], a[0][0] * a[1][1] - a[0][1] * a[1][0]}};
        const double det = a[0][0] * inv[0][0] + a[0][1] * inv[1][0] + a[0][2] * inv[2][0];
        const double scale = rowLength(a[0], 3) * rowLength(a[1], 3) * rowLength(a[2], 3);
        if (!(std::fabs(det) > kSingularRatio * scale) || !std::isfinite(det)) return false;
        GmTransformMatrix r;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) r._m[i][j] = inv[i][j] / det;
        for (int i = 0; i < 3; ++i)
            r._m[i][3] = -(r._m[i][0] * a[0][3] + r._m[i][1] * a[1][3] + r._m[i][2] * a[2][3]);
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j)
                if (!std::isfinite(r._m[i][j])) return false;
        result = r;
        return true;
    }

    // Projective: Gauss-Jordan elimination with partial pivoting.
    double a[4][8];
    double scale = 1.0;
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) {
            a[i][j] = _m[i][j];
            a[i][j + 4] = i == j ? 1.0 : 0.0;
        }
        scale *= rowLength(_m[i], 4);
    }
    double det = 1.0;
    for (int col = 0; col < 4; ++col) {
        int pivot = col;
        for (int r = col + 1; r < 4; ++r)
            if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
        if (a[pivot][col] == 0.0) return false;
        if (pivot != col) {
            for (int j = 0; j < 8; ++j) std::swap(a[pivot][j], a[col][j]);
            det = -det;
        }
        const double p = a[col][col];
        det *= p;
        for (int j = 0; j < 8; ++j) a[col][j] /= p;
        for (int r = 0; r < 4; ++r) {
            if (r == col || a[r][col] == 0.0) continue;
            const double f = a[r][col];
            for (int j = 0; j < 8; ++j) a[r][j] -= f * a[col][j];
        }
    }
    if (!(std::fabs(det) > kSingularRatio * scale) || !std::isfinite(det)) return false;
    GmTransformMatrix r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            if (!std::isfinite(a[i][j + 4])) return false;
            r._m[i][j] = a[i][j + 4];
        }
    result = r;
    return true;
}

GmTransformMatrix GmTransformMatrix::inverse() const {
    GmTransformMatrix r;
    if (!getInverse(r)) {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < 4; ++j) r._m[i][j] = nan;
    }
    return r;
}

GmTransformMatrix GmTransformMatrix::operator*(const GmTransformMatrix& o) const {
    GmTransformMatrix r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            double s = 0.0;
            for (int k = 0; k < 4; ++k) s += _m[i][k] * o._m[k][j];
            r._m[i][j] = s;
        }
    return r;
}

GmTVector<double> GmTransformMatrix::operator*(const GmTVector<double>& p) const {
    GmTVector<double> q(_m[0][0] * p.x + _m[0][1] * p.y + _m[0][2] * p.z + _m[0][3],
                        _m[1][0] * p.x + _m[1][1] * p.y + _m[1][2] * p.z + _m[1][3],
                        _m[2][0] * p.x + _m[2][1] * p.y + _m[2][2] * p.z + _m[2][3]);
    const double w = _m[3][0] * p.x + _m[3][1] * p.y + _m[3][2] * p.z + _m[3][3];
    if (w != 1.0 && w != 0.0) q /= w;
    return q;
}

GmTVector<double> GmTransformMatrix::transformVector(const GmTVector<double>& v) const {
    return GmTVector<double>(_m[0][0] * v.x + _m[0][1] * v.y + _m[0][2] * v.z,
                             _m[1][0] * v.x + _m[1][1] * v.y + _m[1][2] * v.z,
                             _m[2][0] * v.x + _m[2][1] * v.y + _m[2][2] * v.z);
}

bool GmTransformMatrix::operator==(const GmTransformMatrix& o) const {
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            if (_m[i][j] != o._m[i][j]) return false;
    return true;
}

std::ostream& operator<<(std::ostream& os, const GmTransformMatrix& m) {
    os << '[';
    for (int r = 0; r < 4; ++r) {
        os << (r ? ", (" : "(");
        for (int c = 0; c < 4; ++c) os << (c ? ", " : "") << m(r, c);
        os << ')';
    }
    return os << ']';
}
