// Uses the installed headers and libraries only.
#include <quarrygeom/quarrygeom.h>

#include <iostream>
#include <sstream>

int main() {
    GmAxisAlignedBox box;
    box.expand(GmTVector<double>(0.0, 0.0, 0.0));
    box.expand(GmTVector<double>(2.0, 4.0, 6.0));
    std::ostringstream os;
    os << box;
    if (os.str().find("AABB (") != 0) return 1;

    try {
        GmTVector<double> zero(0.0, 0.0, 0.0);
        zero.normalize();
        return 2;
    } catch (const GmException& e) {
        std::cout << "downstream ok: " << os.str() << " / " << e.getMessage() << "\n";
    }
    return 0;
}
