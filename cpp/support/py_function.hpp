// A function type that behaves like a Python function: it binds as a method through __get__,
// carries __name__, __qualname__, __module__, __doc__, __defaults__, __kwdefaults__, string
// __annotations__ and a __code__ that inspect.signature reads, and parses its arguments by
// position or keyword with the interpreter's messages. Its body is a C++ function that receives
// the bound arguments and the namespace in which module-level names are looked up at call time.
#pragma once

#include <cstddef>
#include <span>

#include "support/py_constants.hpp"

namespace py {

// No callable of the module takes more parameters than this.
inline constexpr std::size_t kMaxParameters = 8;

// The default value of a parameter; the module's signatures need no others.
enum class Default { required, none, true_value, false_value };

struct Parameter {
    const char* name;
    Default default_value = Default::required;
    const char* annotation = nullptr;  // stored as a string, never evaluated
};

class Held;  // py_generator.hpp

// What a body receives: the bound arguments, one per parameter in order (defaults filled in),
// all borrowed for the duration of the call.
struct Call {
    PyObject* function;     // the function object being called
    PyObject* globals;      // its module's namespace
    PyObject* closure;      // what an inner function captured, or null
    PyObject* const* args;  // one per parameter
    Held** held = nullptr;  // a generator body's: the objects it holds (see Held), else null

    Handle operator[](std::size_t index) const noexcept { return args[index]; }
};

using Body = Ref (*)(const Call&);

// The static description of one function: everything but the objects made at run time.
struct FunctionDef {
    const char* name;
    const char* qualname;
    const char* doc;  // null: the function has no docstring
    std::span<const Parameter> parameters;
    const char* return_annotation;  // null: no "return" annotation
    Body body;
    bool generator = false;  // the body returns a generator object (sets CO_GENERATOR)

    // Made on first use and kept for the life of the process.
    mutable PyObject* names = nullptr;  // tuple of the parameter names
    mutable PyObject* name_object = nullptr;
    mutable PyObject* qualname_object = nullptr;
    mutable PyObject* doc_object = nullptr;
    mutable PyObject* defaults = nullptr;  // tuple of the trailing defaults, or None
    mutable PyObject* code = nullptr;      // made when __code__ is first read
};

// Makes the function type ready; called once when the module executes.
void ready_function_type();

// A new function object for `definition`, defined in the module named `module_name` whose namespace
// is `globals`; `closure` (may be null) is what an inner function captures.
Ref make_function(const FunctionDef& definition, Handle module_name, Handle globals,
                  Handle closure = nullptr);

// The current __name__ and __qualname__ of a function object (for the generators it makes).
Ref function_name(Handle function);
Ref function_qualname(Handle function);

// A module-level name, looked up at call time in the function's namespace and then among the
// builtins; a missing one raises NameError "name '%U' is not defined".
Ref global(Handle globals, const Str& name);
inline Ref global(const Call& call, const Str& name) {
    return global(call.globals, name);
}

// The exact-type check of an argument: raises TypeError "Argument '%.200s' has incorrect type
// (expected %.200s, got %.200s)" unless `value` is of exactly `type` (or None where allowed).
void require_exact_type(Handle value, PyTypeObject* type, const char* argument, bool none_allowed);

}  // namespace py
