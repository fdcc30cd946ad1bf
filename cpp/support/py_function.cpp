// The function type behind every callable of the module (see py_function.hpp).
#include "support/py_function.hpp"

#include <array>
#include <new>
#include <optional>
#include <vector>

namespace py {
namespace {

const KeywordNames kCodeFields{"co_argcount", "co_nlocals", "co_varnames", "co_flags"};
const Str kReplace{"replace"};

struct FunctionObject {
    PyObject ob_base;
    vectorcallfunc vectorcall;
    PyObject* weakrefs;
    Py_ssize_t parameter_count;  // the definition's, kept here for the call's first test
    // The C++ part, constructed in place after allocation and destroyed before the memory goes.
    struct Fields {
        const FunctionDef* definition;
        Ref globals;
        Ref closure;
        Ref module;
        Ref name;
        Ref qualname;
        Ref doc;
        Ref defaults;     // tuple or None
        Ref kwdefaults;   // dict or None
        Ref annotations;  // made on first read
        Ref dict;  // the attribute dictionary, managed by the interpreter through tp_dictoffset
    } fields;
};

FunctionObject* as_function(PyObject* object) {
    return reinterpret_cast<FunctionObject*>(object);
}

PyObject* default_object(Default value) {
    switch (value) {
        case Default::true_value:
            return Py_True;
        case Default::false_value:
            return Py_False;
        default:
            return Py_None;
    }
}

// The objects of a definition that never change: made once, then shared by every function object.
void make_shared_objects(const FunctionDef& definition) {
    if (definition.names != nullptr) return;
    std::vector<Ref> names;
    std::vector<Ref> defaults;
    for (const Parameter& parameter : definition.parameters) {
        names.push_back(Ref::steal(PyUnicode_InternFromString(parameter.name)));
        if (parameter.default_value != Default::required) {
            defaults.push_back(Ref::borrow(default_object(parameter.default_value)));
        }
    }
    Ref name = Ref::steal(PyUnicode_InternFromString(definition.name));
    Ref qualname = Ref::steal(PyUnicode_FromString(definition.qualname));
    Ref doc = definition.doc ? Ref::steal(PyUnicode_FromString(definition.doc)) : Ref::none();
    Ref defaults_tuple = defaults.empty() ? Ref::none() : tuple_from(defaults);
    // Kept for the life of the process, like the module's code.
    definition.names = tuple_from(names).release();
    definition.name_object = name.release();
    definition.qualname_object = qualname.release();
    definition.doc_object = doc.release();
    definition.defaults = defaults_tuple.release();
}

// ---- argument binding ---------------------------------------------------------------------

[[noreturn]] void raise_count(const FunctionDef& definition, Py_ssize_t required,
                              Py_ssize_t given) {
    const auto total = static_cast<Py_ssize_t>(definition.parameters.size());
    const bool exact = required == total;
    const Py_ssize_t expected = given < required ? required : total;
    const char* more_or_less = exact ? "exactly" : given < required ? "at least" : "at most";
    raise(PyExc_TypeError, "%.200s() takes %.8s %zd positional argument%.1s (%zd given)",
          definition.name, more_or_less, expected, expected == 1 ? "" : "s", given);
}

// The keyword arguments of one call, as parallel arrays of names and values.
struct Keywords {
    PyObject* const* names;
    PyObject* const* values;
    Py_ssize_t count;
};

// What became of each keyword argument of a call: the index of the parameter it was bound to, or
// one of the two refusals below.
constexpr Py_ssize_t kNoSuchParameter = -1;
constexpr Py_ssize_t kAlreadyGiven = -2;  // its parameter has a value already

// The index of the parameter whose name is `key` itself, or -1.
Py_ssize_t parameter_by_identity(PyObject* names, PyObject* key) {
    const Py_ssize_t count = PyTuple_GET_SIZE(names);
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (PyTuple_GET_ITEM(names, i) == key) return i;
    }
    return -1;
}

// The index of the parameter whose name == `key`, a str, or -1. The comparison is the
// interpreter's, so a str subclass's own __eq__ runs, as it does when a Python function binds its
// keywords.
Py_ssize_t parameter_by_equality(PyObject* names, PyObject* key) {
    const Py_ssize_t count = PyTuple_GET_SIZE(names);
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (check_status(PyObject_RichCompareBool(PyTuple_GET_ITEM(names, i), key, Py_EQ)) != 0) {
            return i;
        }
    }
    return -1;
}

// Binds positional and keyword arguments to the parameters. Keyword names are interned str in
// nearly every call, so all are matched by identity first; names still unmatched then are
// compared with ==. A keyword whose parameter has a value already (by position, or by an earlier
// keyword of the same name) is refused. Errors are checked in this order: too many positionals;
// then each parameter not given, in order (a missing required one is reported with the number of
// arguments before it); then the keywords, in order, that are not strings, name a parameter given
// already, or match nothing. Returns the defaults tuple when a value was taken from it (the caller
// keeps it alive: __defaults__ may be replaced while the body runs), else null.
PyObject* bind(const FunctionObject& function, PyObject* const* positional, Py_ssize_t given,
               const Keywords& keywords, std::array<PyObject*, kMaxParameters>& values) {
    const FunctionDef& definition = *function.fields.definition;
    PyObject* const names = definition.names;
    const auto total = static_cast<Py_ssize_t>(definition.parameters.size());
    // The defaults as they are now, and again after the keywords: a keyword's __eq__ may replace
    // them.
    auto required_count = [&] {
        PyObject* defaults = function.fields.defaults.get();
        const Py_ssize_t default_count = PyTuple_Check(defaults) ? PyTuple_GET_SIZE(defaults) : 0;
        return total > default_count ? total - default_count : 0;
    };

    if (given > total) raise_count(definition, required_count(), given);
    for (Py_ssize_t i = 0; i < given; ++i) values[i] = positional[i];
    for (Py_ssize_t i = given; i < total; ++i) values[i] = nullptr;

    // Where each keyword went; a valid call has at most one keyword per parameter.
    std::array<Py_ssize_t, kMaxParameters> few_outcomes;
    std::vector<Py_ssize_t> many_outcomes;
    if (keywords.count > static_cast<Py_ssize_t>(kMaxParameters)) {
        many_outcomes.resize(static_cast<std::size_t>(keywords.count));
    }
    Py_ssize_t* outcome = many_outcomes.empty() ? few_outcomes.data() : many_outcomes.data();
    auto place = [&](Py_ssize_t k, Py_ssize_t index) {
        if (index < 0) {
            outcome[k] = kNoSuchParameter;
        } else if (index < given || values[index] != nullptr) {
            outcome[k] = kAlreadyGiven;
        } else {
            values[index] = keywords.values[k];
            outcome[k] = index;
        }
    };
    bool unmatched = false;
    for (Py_ssize_t k = 0; k < keywords.count; ++k) {
        place(k, parameter_by_identity(names, keywords.names[k]));
        unmatched = unmatched || outcome[k] < 0;
    }
    if (unmatched) {
        for (Py_ssize_t k = 0; k < keywords.count; ++k) {
            PyObject* key = keywords.names[k];
            if (outcome[k] == kNoSuchParameter && PyUnicode_Check(key)) {
                place(k, parameter_by_equality(names, key));
            }
        }
    }

    const Py_ssize_t required = required_count();
    PyObject* defaults = function.fields.defaults.get();
    PyObject* defaults_used = nullptr;
    for (Py_ssize_t i = given; i < total; ++i) {
        if (values[i] != nullptr) continue;
        if (i < required) raise_count(definition, required, i);
        values[i] = PyTuple_GET_ITEM(defaults, i - required);
        defaults_used = defaults;
    }

    if (unmatched) {
        for (Py_ssize_t k = 0; k < keywords.count; ++k) {
            PyObject* key = keywords.names[k];
            if (outcome[k] >= 0) continue;
            if (!PyUnicode_Check(key)) {
                raise(PyExc_TypeError, "%.200s() keywords must be strings", definition.name);
            }
            if (outcome[k] == kAlreadyGiven) {
                raise(PyExc_TypeError, "%s() got multiple values for argument '%U'",
                      definition.name, key);
            }
            raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", definition.name,
                  key);
        }
    }
    return defaults_used;
}

// A generator function's call only makes the generator, which runs no code of anyone's: its
// resumptions, which run the body, take the levels of the recursion count instead.
bool takes_recursion_level(const FunctionObject& function) {
    return !function.fields.definition->generator;
}

// A call that passes every argument by position, the common one: the body reads the arguments
// where the caller put them.
PyObject* run_positional(PyObject* self, PyObject* const* args) {
    return guard([&] {
        const FunctionObject& function = *as_function(self);
        std::optional<RecursionLevel> level;
        if (takes_recursion_level(function)) level.emplace();
        const Call call{self, function.fields.globals.get(), function.fields.closure.get(), args};
        return function.fields.definition->body(call);
    });
}

// Any other call: the arguments are bound to the parameters first.
PyObject* run(PyObject* self, PyObject* const* positional, Py_ssize_t given,
              const Keywords& keywords) {
    return guard([&] {
        const FunctionObject& function = *as_function(self);
        std::optional<RecursionLevel> level;
        if (takes_recursion_level(function)) level.emplace();
        std::array<PyObject*, kMaxParameters> values;
        const Ref defaults_in_use =
            Ref::borrow(bind(function, positional, given, keywords, values));
        const Call call{self, function.fields.globals.get(), function.fields.closure.get(),
                        values.data()};
        return function.fields.definition->body(call);
    });
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, std::size_t nargsf,
                              PyObject* kwnames) {
    const Py_ssize_t given = PyVectorcall_NARGS(nargsf);
    if (kwnames == nullptr) {
        if (given == as_function(self)->parameter_count) return run_positional(self, args);
        return run(self, args, given, Keywords{nullptr, nullptr, 0});
    }
    return run(self, args, given,
               Keywords{&PyTuple_GET_ITEM(kwnames, 0), args + given, PyTuple_GET_SIZE(kwnames)});
}

// The tuple-and-dict call (a slot wrapper's __call__, or C code using tp_call directly). The dict
// may be the caller's own, which the body can change: its keys and values are owned for the call,
// as the interpreter owns them when it unpacks a dict for a Python function. The tuple is
// immutable and the caller's for the whole call.
PyObject* function_call(PyObject* self, PyObject* args, PyObject* kwargs) {
    if (kwargs == nullptr || PyDict_GET_SIZE(kwargs) == 0) {
        return run(self, &PyTuple_GET_ITEM(args, 0), PyTuple_GET_SIZE(args),
                   Keywords{nullptr, nullptr, 0});
    }
    std::vector<PyObject*> names;
    std::vector<PyObject*> values;
    Ref owned_keywords;
    try {
        owned_keywords = Ref::steal(PyTuple_New(2 * PyDict_GET_SIZE(kwargs)));
        PyObject* key;
        PyObject* value;
        Py_ssize_t position = 0;
        Py_ssize_t owned = 0;
        while (PyDict_Next(kwargs, &position, &key, &value)) {
            // Nothing runs between PyDict_Next and the taking of both references.
            PyTuple_SET_ITEM(owned_keywords.get(), owned++, Ref::borrow(key).release());
            PyTuple_SET_ITEM(owned_keywords.get(), owned++, Ref::borrow(value).release());
            names.push_back(key);
            values.push_back(value);
        }
    } catch (const Error&) {
        return nullptr;
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
    Keywords keywords{names.data(), values.data(), static_cast<Py_ssize_t>(names.size())};
    return run(self, &PyTuple_GET_ITEM(args, 0), PyTuple_GET_SIZE(args), keywords);
}

// ---- the type -----------------------------------------------------------------------------

PyObject* function_descr_get(PyObject* self, PyObject* instance, PyObject*) {
    if (instance == nullptr || instance == Py_None) return Ref::borrow(self).release();
    return PyMethod_New(self, instance);
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
    auto& fields = as_function(self)->fields;
    for (const Ref* ref :
         {&fields.globals, &fields.closure, &fields.module, &fields.name, &fields.qualname,
          &fields.doc, &fields.defaults, &fields.kwdefaults, &fields.annotations, &fields.dict}) {
        Py_VISIT(ref->get());
    }
    return 0;
}

int function_clear(PyObject* self) {
    auto& fields = as_function(self)->fields;
    for (Ref* ref :
         {&fields.globals, &fields.closure, &fields.module, &fields.name, &fields.qualname,
          &fields.doc, &fields.defaults, &fields.kwdefaults, &fields.annotations, &fields.dict}) {
        *ref = Ref();
    }
    return 0;
}

void function_dealloc(PyObject* self) {
    PyObject_GC_UnTrack(self);
    FunctionObject* function = as_function(self);
    if (function->weakrefs != nullptr) PyObject_ClearWeakRefs(self);
    function->fields.~Fields();
    PyObject_GC_Del(self);
}

PyObject* function_repr(PyObject* self) {
    return PyUnicode_FromFormat("<function %U at %p>", as_function(self)->fields.qualname.get(),
                                self);
}

// A function pickles as a reference to its qualified name in its module, as Python's do.
PyObject* function_reduce(PyObject* self, PyObject*) {
    return Ref(as_function(self)->fields.qualname).release();
}

// Setters mirror the checks of Python's own function attributes.
PyObject* get_name(PyObject* self, void*) {
    return Ref(as_function(self)->fields.name).release();
}
int set_name(PyObject* self, PyObject* value, void*) {
    return assign_str(as_function(self)->fields.name, value,
                      "__name__ must be set to a string object");
}
PyObject* get_qualname(PyObject* self, void*) {
    return Ref(as_function(self)->fields.qualname).release();
}
int set_qualname(PyObject* self, PyObject* value, void*) {
    return assign_str(as_function(self)->fields.qualname, value,
                      "__qualname__ must be set to a string object");
}
PyObject* get_doc(PyObject* self, void*) {
    return Ref(as_function(self)->fields.doc).release();
}
int set_doc(PyObject* self, PyObject* value, void*) {
    as_function(self)->fields.doc = value ? Ref::borrow(value) : Ref::none();
    return 0;
}
PyObject* get_module(PyObject* self, void*) {
    return Ref(as_function(self)->fields.module).release();
}
int set_module(PyObject* self, PyObject* value, void*) {
    as_function(self)->fields.module = value ? Ref::borrow(value) : Ref::none();
    return 0;
}
PyObject* get_defaults(PyObject* self, void*) {
    return Ref(as_function(self)->fields.defaults).release();
}
int set_defaults(PyObject* self, PyObject* value, void*) {
    if (value == nullptr || value == Py_None) {
        as_function(self)->fields.defaults = Ref::none();
        return 0;
    }
    if (!PyTuple_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__defaults__ must be set to a tuple object");
        return -1;
    }
    if (PyTuple_GET_SIZE(value) >
        static_cast<Py_ssize_t>(as_function(self)->fields.definition->parameters.size())) {
        PyErr_SetString(PyExc_ValueError, "__defaults__ has more values than the parameters");
        return -1;
    }
    as_function(self)->fields.defaults = Ref::borrow(value);
    return 0;
}
PyObject* get_kwdefaults(PyObject* self, void*) {
    return Ref(as_function(self)->fields.kwdefaults).release();
}
int set_kwdefaults(PyObject* self, PyObject* value, void*) {
    if (value != nullptr && value != Py_None && !PyDict_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__kwdefaults__ must be set to a dict object");
        return -1;
    }
    as_function(self)->fields.kwdefaults = value ? Ref::borrow(value) : Ref::none();
    return 0;
}
PyObject* get_annotations(PyObject* self, void*) {
    return guard([&] {
        auto& fields = as_function(self)->fields;
        if (!fields.annotations) {
            Ref annotations = new_dict();
            for (const Parameter& parameter : fields.definition->parameters) {
                if (parameter.annotation != nullptr) {
                    set_item(annotations, str(parameter.name), str(parameter.annotation));
                }
            }
            if (fields.definition->return_annotation != nullptr) {
                set_item(annotations, str("return"), str(fields.definition->return_annotation));
            }
            fields.annotations = annotations;
        }
        return fields.annotations;
    });
}
int set_annotations(PyObject* self, PyObject* value, void*) {
    if (value != nullptr && value != Py_None && !PyDict_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__annotations__ must be set to a dict object");
        return -1;
    }
    // Like Python's functions: after deletion or None, the next read gives an empty dict.
    return guard_status([&] {
        as_function(self)->fields.annotations =
            (value == nullptr || value == Py_None) ? new_dict() : Ref::borrow(value);
    });
}
PyObject* get_globals(PyObject* self, void*) {
    return Ref(as_function(self)->fields.globals).release();
}
// A code object with the parameters' names and count, which is what inspect reads.
PyObject* get_code(PyObject* self, void*) {
    return guard([&] {
        const FunctionDef& definition = *as_function(self)->fields.definition;
        if (definition.code == nullptr) {
            Ref empty = Ref::steal(
                reinterpret_cast<PyObject*>(PyCode_NewEmpty("chunk_layer", definition.name, 0)));
            Ref count = size(static_cast<Py_ssize_t>(definition.parameters.size()));
            Ref flags =
                integer(CO_OPTIMIZED | CO_NEWLOCALS | (definition.generator ? CO_GENERATOR : 0));
            definition.code = call_method_keywords(empty, kReplace, 0, kCodeFields, count, count,
                                                   Handle(definition.names), flags)
                                  .release();
        }
        return Ref::borrow(definition.code);
    });
}

// The tables name only the fields they set, and leave the rest zero as the interpreter expects; g++
// warns about every member that a designated initialiser leaves out, hence the pragma.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

PyMethodDef function_methods[] = {
    {.ml_name = "__reduce__", .ml_meth = function_reduce, .ml_flags = METH_NOARGS},
    {},
};

PyGetSetDef function_getset[] = {
    {.name = "__name__", .get = get_name, .set = set_name},
    {.name = "__qualname__", .get = get_qualname, .set = set_qualname},
    {.name = "__doc__", .get = get_doc, .set = set_doc},
    {.name = "__module__", .get = get_module, .set = set_module},
    {.name = "__defaults__", .get = get_defaults, .set = set_defaults},
    {.name = "__kwdefaults__", .get = get_kwdefaults, .set = set_kwdefaults},
    {.name = "__annotations__", .get = get_annotations, .set = set_annotations},
    {.name = "__globals__", .get = get_globals},
    {.name = "__code__", .get = get_code},
    {.name = "__dict__", .get = PyObject_GenericGetDict, .set = PyObject_GenericSetDict},
    {},
};

PyTypeObject function_type = {
    .ob_base = PyVarObject{PyObject_HEAD_INIT(nullptr) 0},
    .tp_name = "quillmarsh.core.tree.chunk_layer.compiled_function",
    .tp_basicsize = sizeof(FunctionObject),
    .tp_dealloc = function_dealloc,
    .tp_vectorcall_offset = offsetof(FunctionObject, vectorcall),
    .tp_repr = function_repr,
    .tp_call = function_call,
    .tp_getattro = PyObject_GenericGetAttr,
    .tp_setattro = PyObject_GenericSetAttr,
    .tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                Py_TPFLAGS_METHOD_DESCRIPTOR,
    .tp_doc = "A function of the chunk layer module, compiled to machine code.",
    .tp_traverse = function_traverse,
    .tp_clear = function_clear,
    .tp_weaklistoffset = offsetof(FunctionObject, weakrefs),
    .tp_methods = function_methods,
    .tp_getset = function_getset,
    .tp_descr_get = function_descr_get,
    .tp_dictoffset = offsetof(FunctionObject, fields) + offsetof(FunctionObject::Fields, dict),
};

#pragma GCC diagnostic pop

}  // namespace

void ready_function_type() {
    check_status(PyType_Ready(&function_type));
}

Ref make_function(const FunctionDef& definition, Handle module_name, Handle globals,
                  Handle closure) {
    make_shared_objects(definition);
    FunctionObject* function = PyObject_GC_New(FunctionObject, &function_type);
    check(reinterpret_cast<PyObject*>(function));
    function->vectorcall = function_vectorcall;
    function->weakrefs = nullptr;
    function->parameter_count = static_cast<Py_ssize_t>(definition.parameters.size());
    new (&function->fields) FunctionObject::Fields{
        .definition = &definition,
        .globals = Ref::borrow(globals),
        .closure = Ref::borrow(closure),
        .module = Ref::borrow(module_name),
        .name = Ref::borrow(definition.name_object),
        .qualname = Ref::borrow(definition.qualname_object),
        .doc = Ref::borrow(definition.doc_object),
        .defaults = Ref::borrow(definition.defaults),
        .kwdefaults = Ref::none(),
        .annotations = Ref(),
        .dict = Ref(),
    };
    Ref result = Ref::steal(reinterpret_cast<PyObject*>(function));
    PyObject_GC_Track(function);
    return result;
}

Ref function_name(Handle function) {
    return as_function(function.get())->fields.name;
}
Ref function_qualname(Handle function) {
    return as_function(function.get())->fields.qualname;
}

Ref global(Handle globals, const Str& name) {
    if (PyObject* value = compat::remembered_global(globals.get(), name.get())) {
        return Ref::borrow(value);
    }
    PyObject* value = PyDict_GetItemWithError(globals.get(), name.get());
    if (value != nullptr) {
        Ref result = Ref::borrow(value);
        compat::remember_global(globals.get(), name.get(), value);
        return result;
    }
    if (!PyErr_Occurred()) {
        value = PyDict_GetItemWithError(PyEval_GetBuiltins(), name.get());
    }
    if (value == nullptr) {
        if (!PyErr_Occurred()) raise(PyExc_NameError, "name '%U' is not defined", name.get());
        throw Error{};
    }
    return Ref::borrow(value);
}

void require_exact_type(Handle value, PyTypeObject* type, const char* argument, bool none_allowed) {
    if (Py_TYPE(value.get()) == type || (none_allowed && value.is_none())) return;
    raise(PyExc_TypeError, "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)",
          argument, type->tp_name, Py_TYPE(value.get())->tp_name);
}

}  // namespace py
