// What chunk_node.cpp and chunk_layer.cpp define for the module frame (module.cpp) to bind: the
// function `exclude_removed` and the two classes, each a docstring and its methods in order.
#pragma once

#include <span>

#include "support/py_function.hpp"

namespace chunk_layer {

// The class object built for a ClassDef, and the version tag it had then. Any change to a class
// (a patched or added attribute) invalidates its version tag, so while the tag holds, the class is
// exactly as the module built it.
struct BuiltClass {
    PyTypeObject* type = nullptr;
    unsigned int version = 0;

    // True for an instance of exactly this class (no subclass) while the class is unchanged.
    bool is_unchanged_class_of(PyObject* instance) const noexcept {
        PyTypeObject* candidate = Py_TYPE(instance);
        return candidate == type && PyType_HasFeature(candidate, Py_TPFLAGS_VALID_VERSION_TAG) &&
               candidate->tp_version_tag == version;
    }
};

struct ClassDef {
    const char* name;
    const char* doc;
    std::span<const py::FunctionDef* const> methods;  // in the order of the class body
    BuiltClass* built;                                // filled in when the class is built
};

extern const py::FunctionDef exclude_removed;
extern const ClassDef chunk_node_class;
extern const ClassDef chunk_layer_class;

}  // namespace chunk_layer
