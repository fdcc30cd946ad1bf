// The shape of a numpy array read straight from the array: what `array.shape[axis]` gives,
// without building the shape tuple and boxing its items. Only exact numpy.ndarray objects are
// read so; for anything else (a subclass, another array type) the caller takes Python's way.
#pragma once

#include <optional>

#include "support/py_ref.hpp"

namespace py {

// array.shape[axis] when `object` is exactly a numpy.ndarray with more than `axis` dimensions,
// else nothing.
std::optional<Py_ssize_t> ndarray_dimension(Handle object, int axis) noexcept;

}  // namespace py
