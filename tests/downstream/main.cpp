// Uses the installed headers and libraries only.
#include <quarrygeom/quarrygeom.h>

#include <iostream>
#include <sstream>
#include <stdexcept>

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

    // A tetrahedron, its hierarchy and one query.
    GmTriangleMesh mesh;
    mesh.addVertex(GmTVector<double>(0.0, 0.0, 0.0));
    mesh.addVertex(GmTVector<double>(1.0, 0.0, 0.0));
    mesh.addVertex(GmTVector<double>(0.0, 1.0, 0.0));
    mesh.addVertex(GmTVector<double>(0.0, 0.0, 1.0));
    mesh.addFace(0, 2, 1);
    mesh.addFace(0, 1, 3);
    mesh.addFace(0, 3, 2);
    mesh.addFace(1, 2, 3);
    mesh.finishConstruction();
    GmBoundingTree tree(&mesh);
    if (!tree.isInsideMesh(GmTVector<double>(0.1, 0.1, 0.1), false)) return 3;

    // Invalid input is reported by an exception.
    try {
        GmTriangleMesh bad;
        bad.addVertex(GmTVector<double>(0.0, 0.0, 0.0));
        bad.addFace(0, 0, 5);
        bad.finishConstruction();
        return 4;
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
