// What chunk_node.cpp and chunk_layer.cpp define for the module frame (module.cpp) to bind: the
// function `exclude_removed` and the two classes, each a docstring and its methods in order.
#pragma once

#include <span>

#include "support/py_function.hpp"

namespace chunk_layer {

struct ClassDef {
    const char* name;
    const char* doc;
    std::span<const py::FunctionDef* const> methods;  // in the order of the class body
};

extern const py::FunctionDef exclude_removed;

// np.in1d, looked up on the `np` given; where numpy has it no more (2.4 and later), np.isin,
// which gives the same mask for the one-dimensional index arrays the module passes.
py::Ref membership_test(py::Handle np);
extern const ClassDef chunk_node_class;
extern const ClassDef chunk_layer_class;

}  // namespace chunk_layer
