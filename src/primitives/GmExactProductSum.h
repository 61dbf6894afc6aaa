#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

// Exact sum of signed products of up to three finite doubles, in a fixed-point integer wide
// enough for every exponent a double can have (products of three doubles span 2^-3222 to
// 2^3072). Slow but exact for any finite input: the fallback of the orientation predicates
// when their expansion arithmetic could underflow or overflow.
namespace GmExactProductSum {

class Accumulator {
public:
    static constexpr int kLimbs = 100;       // 6400 bits
    static constexpr int kOffset = 3 * 1074;  // bit position of 2^0 is kOffset - 0 (value = acc * 2^-kOffset)

    // Adds sign * x * y (* z): every factor must be finite.
    void add(int sign, double x, double y, double z = 1.0) {
        if (x == 0.0 || y == 0.0 || z == 0.0) return;
        std::uint64_t m[3];
        int e = 0;
        const double f[3] = {x, y, z};
        for (int i = 0; i < 3; ++i) {
            int ei;
            m[i] = mantissa(f[i], ei);
            e += ei;
            if (f[i] < 0.0) sign = -sign;
        }
        // 159-bit product in three 64-bit words.
        const unsigned __int128 p01 = static_cast<unsigned __int128>(m[0]) * m[1];
        const unsigned __int128 lo = static_cast<unsigned __int128>(static_cast<std::uint64_t>(p01)) * m[2];
        const unsigned __int128 hi = static_cast<unsigned __int128>(static_cast<std::uint64_t>(p01 >> 64)) * m[2];
        std::uint64_t w[4];
        w[0] = static_cast<std::uint64_t>(lo);
        const unsigned __int128 mid = (lo >> 64) + static_cast<std::uint64_t>(hi);
        w[1] = static_cast<std::uint64_t>(mid);
        w[2] = static_cast<std::uint64_t>((hi >> 64) + (mid >> 64));
        w[3] = 0;
        shiftedAdd(w, e + kOffset, sign < 0);
    }

    // Sign of the sum: -1, 0 or 1.
    int sign() const {
        if (static_cast<std::int64_t>(_limb[kLimbs - 1]) < 0) return -1;
        for (int i = kLimbs - 1; i >= 0; --i)
            if (_limb[i] != 0) return 1;
        return 0;
    }

    // The sum rounded towards zero to a double, saturating at the largest finite double and at
    // the smallest subnormal so that its sign is kept.
    double approximate() const {
        const int s = sign();
        if (s == 0) return 0.0;
        std::uint64_t v[kLimbs];
        std::memcpy(v, _limb, sizeof v);
        if (s < 0) negate(v);
        int top = kLimbs - 1;
        while (v[top] == 0) --top;
        double r = std::ldexp(static_cast<double>(v[top]), 64 * top - kOffset);
        if (top > 0) r += std::ldexp(static_cast<double>(v[top - 1]), 64 * (top - 1) - kOffset);
        if (!(r <= DBL_MAX)) r = DBL_MAX;
        if (!(r > 0.0)) r = 4.9406564584124654e-324;
        return s < 0 ? -r : r;
    }

private:
    std::uint64_t _limb[kLimbs] = {};

    // x = m * 2^e with m an integer below 2^53.
    static std::uint64_t mantissa(double x, int& e) {
        std::uint64_t bits;
        std::memcpy(&bits, &x, sizeof bits);
        const int be = int((bits >> 52) & 0x7ff);
        std::uint64_t m = bits & ((std::uint64_t(1) << 52) - 1);
        if (be == 0) {
            e = -1074;
        } else {
            m |= std::uint64_t(1) << 52;
            e = be - 1075;
        }
        return m;
    }

    static void negate(std::uint64_t* v) {
        unsigned carry = 1;
        for (int i = 0; i < kLimbs; ++i) {
            const std::uint64_t n = ~v[i] + carry;
            carry = (carry && n == 0) ? 1u : 0u;
            v[i] = n;
        }
    }

    // Adds (or subtracts) the 192-bit value w shifted left by `shift` bits.
    void shiftedAdd(const std::uint64_t* w, int shift, bool subtract) {
        const int limb = shift / 64, bit = shift % 64;
        std::uint64_t s[5] = {0, 0, 0, 0, 0};
        for (int i = 0; i < 4; ++i) {
            s[i] |= bit ? (w[i] << bit) : w[i];
            if (bit && i + 1 < 5) s[i + 1] |= w[i] >> (64 - bit);
        }
        unsigned __int128 carry = 0;
        if (!subtract) {
            for (int i = limb; i < kLimbs; ++i) {
                const unsigned __int128 t = static_cast<unsigned __int128>(_limb[i]) + (i - limb < 5 ? s[i - limb] : 0) + carry;
                _limb[i] = static_cast<std::uint64_t>(t);
                carry = t >> 64;
                if (i - limb >= 4 && carry == 0) break;
            }
        } else {
            std::uint64_t borrow = 0;
            for (int i = limb; i < kLimbs; ++i) {
                const std::uint64_t sub = i - limb < 5 ? s[i - limb] : 0;
                const std::uint64_t a = _limb[i];
                const std::uint64_t r = a - sub - borrow;
                borrow = (a < sub || (a - sub) < borrow) ? 1 : 0;
                _limb[i] = r;
                if (i - limb >= 4 && borrow == 0) break;
            }
        }
    }
};

}  // namespace GmExactProductSum
