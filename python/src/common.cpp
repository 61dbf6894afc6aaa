#include "common.h"

#include <algorithm>

namespace qgpy {

namespace {

std::string shapeText(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

py::array asArray(const py::handle& obj, const char* what) {
    py::array a = py::array::ensure(obj);
    if (!a) throw py::type_error(std::string(what) + " must be an array-like of numbers");
    return a;
}

}  // namespace

void requireReal(const py::array& a, const char* what) {
    const char k = a.dtype().kind();
    if (k != 'f' && k != 'i' && k != 'u')
        throw py::type_error(std::string(what) + " must hold real numbers, not dtype " +
                             py::str(a.dtype()).cast<std::string>());
}

void requireInteger(const py::array& a, const char* what) {
    const char k = a.dtype().kind();
    if (k != 'i' && k != 'u')
        throw py::type_error(std::string(what) + " must hold integers, not dtype " +
                             py::str(a.dtype()).cast<std::string>());
}

py::array_t<double, py::array::c_style> points3(const py::handle& obj, const char* what, bool allowSingle) {
    py::array a = asArray(obj, what);
    requireReal(a, what);
    if (allowSingle && a.ndim() == 1 && a.shape(0) == 3) a = a.reshape({1, 3});
    if (a.ndim() != 2 || a.shape(1) != 3)
        throw py::value_error(std::string(what) + " must have shape (n, 3), not " + shapeText(a));
    // No copy when the array already is C-contiguous float64.
    auto d = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
    const double* p = d.data();
    const std::size_t n = 3 * rows(d);
    for (std::size_t i = 0; i < n; ++i)
        if (!std::isfinite(p[i]))
            throw py::value_error(std::string(what) + " must be finite; row " + std::to_string(i / 3) + " is not");
    return d;
}

std::vector<V3> positionsVector(const py::handle& obj, int nv, const char* what) {
    auto a = points3(obj, what, false);
    if (rows(a) != static_cast<std::size_t>(nv))
        throw py::value_error(std::string(what) + " must have one row per vertex (" + std::to_string(nv) + "), not " +
                              std::to_string(rows(a)));
    const V3* p = asV3(a);
    return std::vector<V3>(p, p + nv);
}

void prepareReads(const Mesh& m) {
    if (m.cachesReady.load(std::memory_order_acquire)) return;
    WriteGuard guard(m);
    m.mesh.fillCaches();
    m.cachesReady.store(true, std::memory_order_release);
}

py::object recordDtype(std::size_t itemsize, std::initializer_list<Field> fields) {
    py::list names, formats, offsets;
    for (const Field& f : fields) {
        names.append(f.name);
        formats.append(f.format);
        offsets.append(f.offset);
    }
    py::dict layout;
    layout["names"] = names;
    layout["formats"] = formats;
    layout["offsets"] = offsets;
    layout["itemsize"] = itemsize;
    return py::module_::import("numpy").attr("dtype")(layout);
}

ResultType::ResultType(const char* name, std::initializer_list<const char*> fields) {
    // The type lives as long as the interpreter; its description must too.
    auto* members = new PyStructSequence_Field[fields.size() + 1];
    std::size_t k = 0;
    for (const char* f : fields) members[k++] = PyStructSequence_Field{f, nullptr};
    members[k] = PyStructSequence_Field{nullptr, nullptr};
    auto* desc = new PyStructSequence_Desc{name, nullptr, members, static_cast<int>(fields.size())};
    _type = PyStructSequence_NewType(desc);
    if (_type == nullptr) throw py::error_already_set();
}

py::array_t<double> newVectors(std::size_t n) {
    return py::array_t<double>({static_cast<py::ssize_t>(n), py::ssize_t(3)});
}

std::vector<int> faceSelection(const py::handle& obj, int faces) {
    py::array a = asArray(obj, "faces");
    if (a.ndim() != 1) throw py::value_error("a face selection must be one-dimensional");
    std::vector<int> out;
    if (a.dtype().kind() == 'b') {
        if (a.shape(0) != faces)
            throw py::value_error("a boolean face selection must have one entry per face (" + std::to_string(faces) +
                                  ")");
        auto b = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(a);
        for (int f = 0; f < faces; ++f)
            if (b.data()[f]) out.push_back(f);
        return out;
    }
    requireInteger(a, "faces");
    auto i = py::array_t<long long, py::array::c_style | py::array::forcecast>::ensure(a);
    for (py::ssize_t k = 0; k < i.shape(0); ++k) {
        const long long f = i.data()[k];
        if (f < 0 || f >= faces)
            throw py::index_error("face index " + std::to_string(f) + " out of range [0, " + std::to_string(faces) +
                                  ")");
        out.push_back(static_cast<int>(f));
    }
    return out;
}

}  // namespace qgpy
