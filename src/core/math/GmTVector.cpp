#include <quarrygeom/core/GmTVector.h>
#include <quarrygeom/core/GmException.h>

namespace {
template <typename T>
std::ostream& writeVector(std::ostream& os, const GmTVector<T>& v) {
    return os << '(' << v.x << ", " << v.y << ", " << v.z << ')';
}
}  // namespace

std::ostream& operator<<(std::ostream& os, const GmTVector<double>& v) { return writeVector(os, v); }
std::ostream& operator<<(std::ostream& os, const GmTVector<float>& v) { return writeVector(os, v); }

namespace GmTVectorDetail {
void throwZeroMagnitude() { throw GmException("GmTVector::normalize() ... Zero magnitude"); }
}  // namespace GmTVectorDetail
