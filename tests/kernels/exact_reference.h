#pragma once

// Exact rational references for the kernel tests.

#include <array>
#include <vector>

#include <gmpxx.h>

#include <quarrygeom/core/GmTVector.h>

namespace qgtest {

using Exact = std::array<mpq_class, 3>;

inline Exact exact(const GmTVector<double>& v) { return {mpq_class(v.x), mpq_class(v.y), mpq_class(v.z)}; }

// a + t (b - a), exactly.
inline Exact lerp(const Exact& a, const Exact& b, const mpq_class& t) {
    Exact r;
    for (int k = 0; k < 3; ++k) r[std::size_t(k)] = a[std::size_t(k)] + t * (b[std::size_t(k)] - a[std::size_t(k)]);
    return r;
}

// Whether the closed triangles a0-a1-a2 and b0-b1-b2 (either may be a segment or a point) share a
// point: is there a pair of barycentric weight vectors (alpha, beta >= 0, each summing to one)
// with sum alpha_i a_i = sum beta_j b_j? A feasible linear system has a basic solution, one
// supported on linearly independent columns, so it is enough to solve it on every such support.
inline bool exactTrianglesMeet(const Exact& a0, const Exact& a1, const Exact& a2, const Exact& b0, const Exact& b1,
                               const Exact& b2) {
    const Exact* a[3] = {&a0, &a1, &a2};
    const Exact* b[3] = {&b0, &b1, &b2};
    // Columns: alpha_i -> (a_i, 1, 0), beta_j -> (-b_j, 0, 1); right-hand side (0, 0, 0, 1, 1).
    mpq_class col[6][5];
    for (int i = 0; i < 3; ++i) {
        for (std::size_t k = 0; k < 3; ++k) {
            col[i][k] = (*a[i])[k];
            col[3 + i][k] = -(*b[i])[k];
        }
        col[i][3] = 1;  // the other entries stay zero
        col[3 + i][4] = 1;
    }
    for (int mask = 1; mask < 64; ++mask) {
        std::vector<int> vars;
        for (int v = 0; v < 6; ++v)
            if (mask & (1 << v)) vars.push_back(v);
        const int n = int(vars.size());
        if (n > 5) continue;
        mpq_class m[5][7];
        for (int r = 0; r < 5; ++r) {
            for (int c = 0; c < n; ++c) m[r][c] = col[vars[std::size_t(c)]][r];
            m[r][n] = r >= 3 ? 1 : 0;
        }
        int row = 0;
        bool independent = true;
        for (int c = 0; c < n && independent; ++c) {
            int piv = -1;
            for (int r = row; r < 5 && piv < 0; ++r)
                if (sgn(m[r][c]) != 0) piv = r;
            if (piv < 0) {
                independent = false;
                break;
            }
            for (int k = 0; k <= n; ++k) std::swap(m[row][k], m[piv][k]);
            for (int r = 0; r < 5; ++r) {
                if (r == row || sgn(m[r][c]) == 0) continue;
                const mpq_class f = m[r][c] / m[row][c];
                for (int k = c; k <= n; ++k) m[r][k] -= f * m[row][k];
            }
            ++row;
        }
        if (!independent) continue;
        bool ok = true;
        for (int r = n; r < 5; ++r)
            if (sgn(m[r][n]) != 0) ok = false;
        for (int c = 0; c < n && ok; ++c)
            if (sgn(m[c][n]) * sgn(m[c][c]) < 0) ok = false;
        if (ok) return true;
    }
    return false;
}

}  // namespace qgtest
