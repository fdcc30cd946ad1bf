// Reads the dimensions of exact numpy arrays (see ndarray.hpp). The array's layout comes from
// numpy's public header. numpy's array type is recognised the first time one of its objects is
// seen: a static type named "numpy.ndarray" with the array layout. No numpy API table is needed,
// so nothing is imported from here.
#include "support/ndarray.hpp"

#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#include <numpy/ndarraytypes.h>

#include <cstring>

namespace py {
namespace {

// numpy.ndarray once seen. A static type, so it lives as long as numpy, that is the process.
PyTypeObject* ndarray_type = nullptr;

bool is_numpy_ndarray(PyTypeObject* type) noexcept {
    return !PyType_HasFeature(type, Py_TPFLAGS_HEAPTYPE) &&
           std::strcmp(type->tp_name, "numpy.ndarray") == 0 &&
           type->tp_basicsize >= static_cast<Py_ssize_t>(sizeof(PyArrayObject_fields));
}

}  // namespace

std::optional<Py_ssize_t> ndarray_dimension(Handle object, int axis) noexcept {
    PyTypeObject* type = Py_TYPE(object.get());
    if (type != ndarray_type) {
        if (ndarray_type != nullptr || !is_numpy_ndarray(type)) return std::nullopt;
        ndarray_type = type;
    }
    const auto* array = reinterpret_cast<const PyArrayObject_fields*>(object.get());
    if (array->nd <= axis) return std::nullopt;
    return static_cast<Py_ssize_t>(array->dimensions[axis]);
}

}  // namespace py
