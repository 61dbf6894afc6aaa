#pragma once

#include <string>
#include <vector>

#include <quarrygeom/core/GmTVector.h>

namespace qgtools {

// One continuous collision query of the sample sets: eight positions (vertex-face: v, f0, f1, f2
// at the start, then at the end; edge-edge: a0, a1, b0, b1 at the start, then at the end) and
// the exact ground truth.
struct CcdQuery {
    GmTVector<double> v[8];
    bool truth = false;
};

// Nearest double to num/den given as decimal integers (correctly rounded when built with MPFR).
double rationalToDouble(const std::string& num, const std::string& den);

// Every query of one csv file (eight rows per query, columns num,den x3 then the truth).
std::vector<CcdQuery> readCcdQueries(const std::string& file);

}  // namespace qgtools
