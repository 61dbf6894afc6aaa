#pragma once

#include <ostream>

#include <quarrygeom/core/GmExport.h>
#include <quarrygeom/core/GmTVector.h>

// 3x3 matrix of doubles, stored by rows: element (r, c) is row r, column c.
// A default-constructed matrix is the identity.
class QUARRYMATH_API GmMatrix {
public:
    GmMatrix();
    GmMatrix(double m00, double m01, double m02, double m10, double m11, double m12, double m20, double m21,
             double m22);
    explicit GmMatrix(const double m[3][3]);

    static GmMatrix identity() { return GmMatrix(); }
    static GmMatrix zero() { return GmMatrix(0, 0, 0, 0, 0, 0, 0, 0, 0); }

    double& operator()(int r, int c) { return _m[r][c]; }
    double operator()(int r, int c) const { return _m[r][c]; }
    void set(double m00, double m01, double m02, double m10, double m11, double m12, double m20, double m21,
             double m22);
    void set(const double m[3][3]);
    void get(double m[3][3]) const;

    GmMatrix operator+(const GmMatrix& o) const;
    GmMatrix operator-(const GmMatrix& o) const;
    GmMatrix operator*(double s) const;
    GmMatrix operator*(const GmMatrix& o) const;
    GmTVector<double> operator*(const GmTVector<double>& v) const;
    bool operator==(const GmMatrix& o) const;
    bool operator!=(const GmMatrix& o) const { return !(*this == o); }

    GmMatrix transpose() const;
    double determinant() const;
    double trace() const { return _m[0][0] + _m[1][1] + _m[2][2]; }

    // Eigen-decomposition of a symmetric matrix (cyclic Jacobi rotations). Only the
    // symmetric part (A + A^T) / 2 is used. Eigenvalues are written in descending order,
    // eigenvectors[k] belongs to eigenvalues[k]; the eigenvectors are unit length, mutually
    // orthogonal and form a right-handed frame (eigenvectors[2] = eigenvectors[0] x
    // eigenvectors[1]), also for repeated eigenvalues.
    // Returns 0 on success, 1 when the rotations did not converge within their sweep limit
    // (the results are then the last iterate, still orthonormal), -1 when an entry is not
    // finite (eigenvalues are then NaN and the eigenvectors the coordinate axes).
    int getEigenSystem(double eigenvalues[3], GmTVector<double> eigenvectors[3]) const;

private:
    double _m[3][3];
};

inline GmMatrix operator*(double s, const GmMatrix& m) { return m * s; }

// Rows in brackets: "[(a, b, c), (d, e, f), (g, h, i)]" with each row written as a vector.
QUARRYMATH_API std::ostream& operator<<(std::ostream& os, const GmMatrix& m);
