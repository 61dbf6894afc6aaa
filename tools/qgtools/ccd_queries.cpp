#include "qgtools/ccd_queries.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#ifdef QG_HAVE_MPFR
#include <gmp.h>
#include <mpfr.h>
#endif

namespace qgtools {

double rationalToDouble(const std::string& num, const std::string& den) {
#ifdef QG_HAVE_MPFR
    mpq_t q;
    mpq_init(q);
    mpq_set_str(q, (num + "/" + den).c_str(), 10);
    mpq_canonicalize(q);
    mpfr_t f;
    mpfr_init2(f, 53);
    mpfr_set_q(f, q, MPFR_RNDN);
    const double d = mpfr_get_d(f, MPFR_RNDN);
    mpfr_clear(f);
    mpq_clear(q);
    return d;
#else
    return std::strtod(num.c_str(), nullptr) / std::strtod(den.c_str(), nullptr);
#endif
}

std::vector<CcdQuery> readCcdQueries(const std::string& file) {
    std::vector<CcdQuery> out;
    std::ifstream in(file);
    std::string line;
    CcdQuery q;
    int row = 0;
    while (std::getline(in, line)) {
        std::vector<std::string> cols;
        std::stringstream ss(line);
        std::string cell;
        while (std::getline(ss, cell, ',')) cols.push_back(cell);
        if (cols.size() < 7) continue;
        for (int k = 0; k < 3; ++k) q.v[row][k] = rationalToDouble(cols[2 * k], cols[2 * k + 1]);
        q.truth = std::atoi(cols[6].c_str()) != 0;
        if (++row == 8) {
            out.push_back(q);
            row = 0;
        }
    }
    return out;
}

}  // namespace qgtools
