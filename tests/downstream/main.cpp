// Uses the installed headers and libraries only: both libraries, their exceptions and one query.
#include <quarrygeom/quarrygeom.h>
#include <iostream>
#include <sstream>
#include <stdexcept>

int main() {
    using V = GmTVector<double>;
    GmAxisAlignedBox box;
    box.expand(V(0.0, 0.0, 0.0));
    std::ostringstream os;
    os << box;
    if (os.str().find("AABB (") != 0) return 1;
    try {
        V(0.0, 0.0, 0.0).normalize();
        return 2;
    } catch (const GmException& e) {
        std::cout << "downstream ok: " << os.str() << " / " << e.getMessage() << "\n";
    }
    GmTriangleMesh mesh;  // a tetrahedron
    for (const V& p : {V(0, 0, 0), V(1, 0, 0), V(0, 1, 0), V(0, 0, 1)}) mesh.addVertex(p);
    const int faces[4][3] = {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}};
    for (const auto& t : faces) mesh.addFace(t[0], t[1], t[2]);
    mesh.finishConstruction();
    GmBoundingTree tree(&mesh);
    if (!tree.isInsideMesh(V(0.1, 0.1, 0.1), false) || tree.isInsideMesh(V(1, 1, 1), false)) return 3;
    try {
        mesh.addFace(0, 0, 5);
        mesh.finishConstruction();
        return 4;
    } catch (const std::invalid_argument&) {
    }
    return 0;
}
