// Collision, proximity and continuous-time queries of quarrygeom.Tree, with their records as
// NumPy structured arrays.

#include "tree.h"

namespace qgpy {

namespace {

// Row of a contact record array (continuous-time and proximity): the fields of the library's
// record, vectors as three doubles.
struct Contact {
    int object1, object2, triangle1, triangle2;
    double time, distance, falloff;
    double normal[3];
    int type, feature1, feature2;
    double point[3];
    int pointType;
    double barycentric1[3], barycentric2[3];
    int vertices[4];
    int edges[2];
    bool pinched0, pinched1;
};

struct Pair {
    int triangle1, triangle2;
    long long firstPoint;
    int pointCount;
};

#define QG_FIELD(S, name, fmt, member) Field{name, fmt, offsetof(S, member)}

py::object contactDtype(bool continuous) {
    const Field common[] = {
        QG_FIELD(Contact, "object1", "<i4", object1),      QG_FIELD(Contact, "object2", "<i4", object2),
        QG_FIELD(Contact, "triangle1", "<i4", triangle1),  QG_FIELD(Contact, "triangle2", "<i4", triangle2),
        QG_FIELD(Contact, "time", "<f8", time),            QG_FIELD(Contact, "distance", "<f8", distance),
        QG_FIELD(Contact, "falloff", "<f8", falloff),      QG_FIELD(Contact, "normal", "(3,)<f8", normal),
        QG_FIELD(Contact, "type", "<i4", type),            QG_FIELD(Contact, "feature1", "<i4", feature1),
        QG_FIELD(Contact, "feature2", "<i4", feature2),    QG_FIELD(Contact, "point", "(3,)<f8", point),
        QG_FIELD(Contact, "point_type", "<i4", pointType), QG_FIELD(Contact, "barycentric1", "(3,)<f8", barycentric1),
        QG_FIELD(Contact, "barycentric2", "(3,)<f8", barycentric2),
        QG_FIELD(Contact, "vertices", "(4,)<i4", vertices), QG_FIELD(Contact, "edges", "(2,)<i4", edges)};
    if (continuous)
        return recordDtype<Contact>({common[0], common[1], common[2], common[3], common[4], common[5], common[6],
                                     common[7], common[8], common[9], common[10], common[11], common[12], common[13],
                                     common[14], common[15], common[16], QG_FIELD(Contact, "pinched0", "?", pinched0),
                                     QG_FIELD(Contact, "pinched1", "?", pinched1)});
    return recordDtype<Contact>({common[0], common[1], common[2], common[3], common[4], common[5], common[6], common[7],
                                 common[8], common[9], common[10], common[11], common[12], common[13], common[14],
                                 common[15], common[16], QG_FIELD(Contact, "pinched", "?", pinched0)});
}

struct Types {
    py::object continuous, proximity, pair, staticResult;
};
Types& types() {
    static Types* t = nullptr;  // lives as long as the interpreter
    if (t == nullptr) {
        t = new Types;
        t->continuous = contactDtype(true);
        t->proximity = contactDtype(false);
        t->pair = recordDtype<Pair>({QG_FIELD(Pair, "triangle1", "<i4", triangle1),
                                     QG_FIELD(Pair, "triangle2", "<i4", triangle2),
                                     QG_FIELD(Pair, "first_point", "<i8", firstPoint),
                                     QG_FIELD(Pair, "point_count", "<i4", pointCount)});
        t->staticResult = py::module_::import("collections").attr("namedtuple")("Intersections", "pairs points");
    }
    return *t;
}

void put(double* d, const V3& v) { d[0] = v.x, d[1] = v.y, d[2] = v.z; }

template <class Info, class Flags>
py::array contacts(const std::vector<Info>& records, const py::object& dtype, Flags flags) {
    py::array out(dtype, {static_cast<py::ssize_t>(records.size())}, {});
    Contact* c = static_cast<Contact*>(out.mutable_data());
    for (const Info& r : records) {
        Contact k{};
        k.object1 = r.objectIndex1, k.object2 = r.objectIndex2;
        k.triangle1 = r.triangleIndex1, k.triangle2 = r.triangleIndex2;
        k.time = r.time, k.distance = r.distance, k.falloff = r.falloff;
        put(k.normal, r.normal);
        k.type = static_cast<int>(r.type), k.feature1 = r.feature1, k.feature2 = r.feature2;
        put(k.point, r.point);
        k.pointType = static_cast<int>(r.pointType);
        put(k.barycentric1, r.barycentric1);
        put(k.barycentric2, r.barycentric2);
        std::copy(r.vertexIndices, r.vertexIndices + 4, k.vertices);
        std::copy(r.edgeIndices, r.edgeIndices + 2, k.edges);
        flags(r, k);
        *c++ = k;
    }
    return out;
}

py::object intersections(const std::vector<GmIntersectionInfo>& records) {
    std::size_t points = 0;
    for (const GmIntersectionInfo& r : records) points += r.points.size();
    py::array pairs(types().pair, {static_cast<py::ssize_t>(records.size())}, {});
    auto pts = newVectors(points);
    Pair* p = static_cast<Pair*>(pairs.mutable_data());
    V3* o = mutableV3(pts);
    long long first = 0;
    for (const GmIntersectionInfo& r : records) {
        *p++ = Pair{r.triangleIndex1, r.triangleIndex2, first, static_cast<int>(r.points.size())};
        o = std::copy(r.points.begin(), r.points.end(), o);
        first += static_cast<long long>(r.points.size());
    }
    return types().staticResult(pairs, pts);
}

GmIntersection::ComponentTests componentTests(long tests) {
    if (tests < 0 || tests > static_cast<long>(GmIntersection::ComponentTests::kAllBits))
        throw py::value_error("tests must be a set of the 15 feature-test bits (0 .. 0x7fff)");
    return GmIntersection::ComponentTests(static_cast<std::uint32_t>(tests));
}

void addMetrics(const py::object& target, const GmBVHMetrics& counted) {
    if (!target.is_none()) target.cast<GmBVHMetrics&>() += counted;
}

const std::vector<V3>& endPositions(const Tree& t, const py::object& given, std::vector<V3>& storage,
                                    const char* what) {
    if (!given.is_none()) {
        storage = positionsVector(given, t.mesh->mesh.getNumberVertices(), what);
        return storage;
    }
    if (t.mode != Tree::kSwept)
        throw py::value_error(std::string(what) + " are needed unless the tree is swept");
    return t.end;
}

}  // namespace

void registerCollision(py::module_& m, TreeClass& tree) {
    types();
    m.attr("VERTEX_FACE_TESTS") = GmIntersection::kVertexFaceTests.bits();
    m.attr("FACE_VERTEX_TESTS") = GmIntersection::kFaceVertexTests.bits();
    m.attr("EDGE_EDGE_TESTS") = GmIntersection::kEdgeEdgeTests.bits();
    m.attr("ALL_TESTS") = GmIntersection::kAllTests.bits();
    m.attr("continuous_dtype") = types().continuous;
    m.attr("proximity_dtype") = types().proximity;
    m.attr("intersection_pair_dtype") = types().pair;

    tree.def("self_intersections", [](const Tree& t, bool inc, const py::object& metrics) {
            std::vector<GmIntersectionInfo> r;
            GmBVHMetrics counted;
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh);
                t.h->selfIntersect(r, false, false, inc, counted);
            }
            addMetrics(metrics, counted);
            return intersections(r);
        }, py::arg("include_disabled") = true, py::arg("metrics") = py::none(), R"doc(
Static self-intersection (faces sharing a vertex are not paired): Intersections(pairs, points),
pairs a structured array (triangle1, triangle2, first_point, point_count), points (P, 3) the
intersection points, those of pair k at points[first_point : first_point + point_count].
metrics, a Metrics, receives the counts.)doc")
        .def("intersections", [](const Tree& t, const Tree& other, bool inc, const py::object& metrics) {
            std::vector<GmIntersectionInfo> r;
            GmBVHMetrics counted;
            prepareReads(*t.mesh);
            prepareReads(*other.mesh);
            {
                ReadGuard guard(*t.mesh, other.mesh.get());
                t.h->meshMeshIntersect(r, *other.h, false, inc, counted);
            }
            addMetrics(metrics, counted);
            return intersections(r);
        }, py::arg("other"), py::arg("include_disabled") = true, py::arg("metrics") = py::none(),
           "Static intersection with another tree's mesh; triangle1 is this mesh's face.")
        .def("continuous_self", [](const Tree& t, const py::object& end, long tests, bool inc, int object,
                                   const py::object& metrics) {
            std::vector<V3> storage;
            const std::vector<V3>& e = endPositions(t, end, storage, "end_positions");
            const auto ct = componentTests(tests);
            std::vector<GmContinuousTimeIntersectionInfo> r;
            GmBVHMetrics counted;
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh);
                t.h->continuousTimeSelfIntersect(r, e, ct, false, inc, object, counted);
            }
            addMetrics(metrics, counted);
            return contacts(r, types().continuous, [](const GmContinuousTimeIntersectionInfo& i, Contact& k) {
                k.pinched0 = i.pinched0, k.pinched1 = i.pinched1;
            });
        }, py::arg("end_positions") = py::none(), py::arg("tests") = GmIntersection::kAllTests.bits(),
           py::arg("include_disabled") = true, py::arg("object_index") = -1, py::arg("metrics") = py::none(), R"doc(
Continuous-time self collision over the step from the mesh's positions to end_positions (default:
a swept tree's own end positions; the tree's boxes must enclose the motion). Returns a structured
array of continuous_dtype: object1, object2, triangle1, triangle2, time, distance, falloff,
normal (3), type (1 vertex-face, 2 face-vertex, 3 edge-edge), feature1, feature2, point (3),
point_type, barycentric1 (3), barycentric2 (3), vertices (4), edges (2), pinched0, pinched1.
tests selects the feature tests (ALL_TESTS, VERTEX_FACE_TESTS, ...).)doc")
        .def("continuous", [](const Tree& t, const Tree& other, const py::object& end, const py::object& otherEnd,
                              long tests, bool inc, int object1, int object2, const py::object& metrics) {
            std::vector<V3> s1, s2;
            const std::vector<V3>& e1 = endPositions(t, end, s1, "end_positions");
            const std::vector<V3>& e2 = endPositions(other, otherEnd, s2, "other_end_positions");
            const auto ct = componentTests(tests);
            std::vector<GmContinuousTimeIntersectionInfo> r;
            GmBVHMetrics counted;
            prepareReads(*t.mesh);
            prepareReads(*other.mesh);
            {
                ReadGuard guard(*t.mesh, other.mesh.get());
                t.h->continuousTimeIntersect(r, e1, *other.h, e2, nullptr, nullptr, ct, false, false, inc, object1,
                                             object2, counted);
            }
            addMetrics(metrics, counted);
            return contacts(r, types().continuous, [](const GmContinuousTimeIntersectionInfo& i, Contact& k) {
                k.pinched0 = i.pinched0, k.pinched1 = i.pinched1;
            });
        }, py::arg("other"), py::arg("end_positions") = py::none(), py::arg("other_end_positions") = py::none(),
           py::arg("tests") = GmIntersection::kAllTests.bits(), py::arg("include_disabled") = true,
           py::arg("object_index1") = -1, py::arg("object_index2") = -1, py::arg("metrics") = py::none(),
           "Continuous-time collision between this mesh (triangle1) and other's (triangle2); as continuous_self.")
        .def("self_proximity", [](const Tree& t, double distance, long tests, bool inc, int object,
                                  const py::object& metrics) {
            if (!std::isfinite(distance) || distance < 0) throw py::value_error("distance must be finite and >= 0");
            const auto ct = componentTests(tests);
            std::vector<GmProximityCheckInfo> r;
            GmBVHMetrics counted;
            prepareReads(*t.mesh);
            {
                ReadGuard guard(*t.mesh);
                t.h->selfProximityCheck(r, distance, ct, false, inc, object, 0.0, counted);
            }
            addMetrics(metrics, counted);
            return contacts(r, types().proximity,
                            [](const GmProximityCheckInfo& i, Contact& k) { k.pinched0 = i.pinched; });
        }, py::arg("distance"), py::arg("tests") = GmIntersection::kAllTests.bits(), py::arg("include_disabled") = true,
           py::arg("object_index") = -1, py::arg("metrics") = py::none(), R"doc(
Feature pairs of the mesh closer than distance (use a tree thickened by at least distance).
Structured array of proximity_dtype: the fields of continuous_dtype with one flag, pinched.)doc")
        .def("proximity", [](const Tree& t, const Tree& other, double distance, long tests, bool inc, int object1,
                             int object2, const py::object& metrics) {
            if (!std::isfinite(distance) || distance < 0) throw py::value_error("distance must be finite and >= 0");
            const auto ct = componentTests(tests);
            std::vector<GmProximityCheckInfo> r;
            GmBVHMetrics counted;
            prepareReads(*t.mesh);
            prepareReads(*other.mesh);
            {
                ReadGuard guard(*t.mesh, other.mesh.get());
                t.h->proximityCheck(r, distance, *other.h, nullptr, ct, false, inc, object1, object2, 0.0, counted);
            }
            addMetrics(metrics, counted);
            return contacts(r, types().proximity,
                            [](const GmProximityCheckInfo& i, Contact& k) { k.pinched0 = i.pinched; });
        }, py::arg("other"), py::arg("distance"), py::arg("tests") = GmIntersection::kAllTests.bits(),
           py::arg("include_disabled") = true, py::arg("object_index1") = -1, py::arg("object_index2") = -1,
           py::arg("metrics") = py::none(), "Proximity between this mesh (triangle1) and other's (triangle2).");
}

}  // namespace qgpy
