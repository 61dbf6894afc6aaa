#pragma once

// Helpers shared by the binding files: argument checks, array views and the per-mesh lock.

#include <atomic>
#include <cmath>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <quarrygeom/quarrygeom.h>

namespace qgpy {

namespace py = pybind11;
typedef GmTVector<double> V3;

static_assert(sizeof(V3) == 3 * sizeof(double) && std::is_standard_layout<V3>::value,
              "an (n, 3) float64 array is read as n GmTVector<double>");

// A mesh and the lock that orders Python threads around it: queries share it, changes of the
// positions, masks and trees take it alone. Taken with the GIL released.
struct Mesh {
    GmTriangleMesh mesh;
    mutable std::shared_mutex lock;
    // The mesh's lazily filled caches (normals, areas) are complete; cleared when the positions
    // change. Queries from several Python threads then only read them. (The orphan set that the
    // collision queries build on first use is published atomically by the mesh itself.)
    mutable std::atomic<bool> cachesReady{false};
};
typedef std::shared_ptr<Mesh> MeshPtr;

struct DisabledMask {
    MeshPtr owner;
    GmDisabledData data;
};
struct FrozenMask {
    MeshPtr owner;
    GmFrozenData data;
};

// Reads of one or two meshes, writes of one. The GIL is released for the lifetime of the guard
// (a read guard may keep it for a short call, sparing the hand-over: a writer takes the lock with
// the GIL released, so waiting for it with the GIL held cannot deadlock).
class ReadGuard {
public:
    explicit ReadGuard(const Mesh& a, const Mesh* b = nullptr, bool releaseGil = true) {
        if (releaseGil) _release.emplace();
        const Mesh* first = &a;
        const Mesh* second = b != nullptr && b != &a ? b : nullptr;
        if (second != nullptr && second < first) std::swap(first, second);
        _a = std::shared_lock<std::shared_mutex>(first->lock);
        if (second != nullptr) _b = std::shared_lock<std::shared_mutex>(second->lock);
    }

private:
    std::optional<py::gil_scoped_release> _release;  // released before the locks are taken, taken back after
    std::shared_lock<std::shared_mutex> _a, _b;
};
class WriteGuard {
public:
    explicit WriteGuard(const Mesh& m) : _l(m.lock) {}

private:
    py::gil_scoped_release _release;
    std::unique_lock<std::shared_mutex> _l;
};

// Fills the mesh's caches once after each change of positions (takes the mesh alone); the
// batched queries are then told to skip their own pass.
void prepareReads(const Mesh& m);

// Checks that a is a numeric (real) array; TypeError otherwise.
void requireReal(const py::array& a, const char* what);
// Checks that a is an integer array; TypeError otherwise.
void requireInteger(const py::array& a, const char* what);

// An (n, 3) float64 C-contiguous view of a: the array itself when it already is one, else a
// converted copy. Shape errors and non-finite values raise ValueError.
py::array_t<double, py::array::c_style> points3(const py::handle& obj, const char* what, bool allowSingle = true);
inline const V3* asV3(const py::array_t<double, py::array::c_style>& a) {
    return reinterpret_cast<const V3*>(a.data());
}
inline std::size_t rows(const py::array& a) { return a.ndim() == 0 ? 0 : static_cast<std::size_t>(a.shape(0)); }

// Positions for a mesh of nv vertices, copied into a vector (the library's storage type).
std::vector<V3> positionsVector(const py::handle& obj, int nv, const char* what);

// New arrays for results.
py::array_t<double> newVectors(std::size_t n);
template <class T>
py::array_t<T> newArray(std::size_t n) {
    return py::array_t<T>(static_cast<py::ssize_t>(n));
}
inline V3* mutableV3(py::array_t<double>& a) { return reinterpret_cast<V3*>(a.mutable_data()); }

// Face indices of a mask or selection: a boolean array of one entry per face or an integer
// array of face indices in [0, faces).
std::vector<int> faceSelection(const py::handle& obj, int faces);

// A NumPy structured dtype laid over the C struct Record: each field's name, NumPy format and
// offset (itemsize sizeof(Record)), so that the library's results are written straight into
// the array.
struct Field {
    const char* name;
    const char* format;
    std::size_t offset;
};
py::object recordDtype(std::size_t itemsize, std::initializer_list<Field> fields);
template <class Record>
py::object recordDtype(std::initializer_list<Field> fields) {
    static_assert(std::is_trivially_copyable<Record>::value, "records are copied as bytes");
    return recordDtype(sizeof(Record), fields);
}

// A named tuple type made as a C struct sequence (cheap to create, unlike collections.namedtuple):
// fields by name and by position, tuple unpacking.
class ResultType {
public:
    ResultType(const char* name, std::initializer_list<const char*> fields);
    template <class... A>
    py::object operator()(A&&... items) const {
        static_assert(sizeof...(A) > 0, "a result has fields");
        py::object r = py::reinterpret_steal<py::object>(PyStructSequence_New(_type));
        if (!r) throw py::error_already_set();
        Py_ssize_t i = 0;
        (PyStructSequence_SetItem(r.ptr(), i++, py::object(std::forward<A>(items)).release().ptr()), ...);
        return r;
    }
    py::handle type() const { return reinterpret_cast<PyObject*>(_type); }

private:
    PyTypeObject* _type;
};

// Registration of each part of the module.
void registerCore(py::module_& m);
void registerMesh(py::module_& m);

}  // namespace qgpy
