// The module frame of quillmarsh.core.tree.chunk_layer: its multi-phase initialisation, the
// rules of loading (one interpreter per process, no re-initialisation), its imports, the
// constant BUFFER_NODE_ID, the two dataclass records, and the classes built with type().
#include <cstdio>
#include <cstring>

#include "chunk_layer/callables.hpp"
#include "chunk_layer/names.hpp"
#include "support/py_generator.hpp"

namespace chunk_layer {
namespace {

using py::Handle;
using py::Ref;

const py::Str kImport{"__import__"};
const py::Str kName{"__name__"};
const py::Str kFile{"__file__"};
const py::Str kModule{"__module__"};
const py::Str kQualname{"__qualname__"};
const py::Str kDoc{"__doc__"};
const py::Str kAnnotations{"__annotations__"};
const py::Str kLoader{"__loader__"};
const py::Str kPackage{"__package__"};
const py::Str kPath{"__path__"};
const py::Str kSpecName{"name"};
const py::Str kSpecLoader{"loader"};
const py::Str kSpecOrigin{"origin"};
const py::Str kSpecParent{"parent"};
const py::Str kSpecSearchLocations{"submodule_search_locations"};
const py::Str kDataclass{"dataclass"};
const py::Str kTest{"__test__"};

// The one module object this process loads, and the interpreter it belongs to.
PyObject* loaded_module = nullptr;  // owned, kept for the life of the process once initialised
bool module_initialised = false;
int64_t owning_interpreter = -1;

// ---- imports ------------------------------------------------------------------------------

// __import__(module, globals, None, fromlist, level), through the builtins' hook as the
// interpreter's import statement does.
Ref import_module(Handle globals, const char* module, Handle fromlist, long level) {
    Ref import = Ref::borrow(PyDict_GetItemWithError(PyEval_GetBuiltins(), kImport.get()));
    if (!import) {
        if (!PyErr_Occurred()) py::raise(PyExc_ImportError, "__import__ not found");
        throw py::Error{};
    }
    return py::call(import, py::str(module), globals, Py_None, fromlist, py::integer(level));
}

// `import module [as bound]`
void import_as(Handle globals, const char* module, const char* bound) {
    Ref imported = import_module(globals, module, Py_None, 0);
    py::check_status(PyDict_SetItemString(globals.get(), bound, imported.get()));
}

// One name of `from module import name`: the attribute, else the submodule of that name,
// else the interpreter's ImportError.
Ref import_name(Handle from, Handle name) {
    if (Ref value = Ref::steal_or_null(PyObject_GetAttr(from.get(), name.get()))) return value;
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::Error{};
    PyErr_Clear();
    Ref package = py::getattr(from, kName);
    Ref full_name = Ref::steal(PyUnicode_FromFormat("%U.%U", package.get(), name.get()));
    if (PyObject* submodule = PyImport_GetModule(full_name.get())) return Ref::steal(submodule);
    if (PyErr_Occurred()) throw py::Error{};
    Ref location = Ref::steal_or_null(PyObject_GetAttr(from.get(), kFile.get()));
    if (!location) {
        PyErr_Clear();
        location = py::str("unknown location");
    }
    Ref message = Ref::steal(PyUnicode_FromFormat("cannot import name %R from %R (%S)", name.get(),
                                                  package.get(), location.get()));
    PyErr_SetImportError(message.get(), package.get(), location.get());
    throw py::Error{};
}

// `from module import names...` with `level` leading dots, resolved against this module's
// package.
void import_from(Handle globals, const char* module, std::initializer_list<const char*> names,
                 long level = 0) {
    std::vector<Ref> name_objects;
    for (const char* name : names) name_objects.push_back(py::interned(name));
    Ref fromlist = py::tuple_from(name_objects);
    Ref imported = import_module(globals, module, fromlist, level);
    for (const Ref& name : name_objects) {
        Ref value = import_name(imported, name);
        py::check_status(PyDict_SetItem(globals.get(), name.get(), value.get()));
    }
}

void run_imports(Handle globals) {
    import_as(globals, "itertools", "itertools");
    import_as(globals, "time", "time");
    import_from(globals, "dataclasses", {"dataclass"});
    import_from(globals, "typing",
                {"Iterable", "Union", "Optional", "Any", "List", "Tuple", "Iterator", "Dict"});
    import_from(globals, "uuid", {"uuid4"});
    import_as(globals, "numpy", "np");
    import_as(globals, "pandas", "pd");
    import_as(globals, "psutil", "psutil");
    import_from(globals, "utils", {"evaluate_max_batch_size"}, 1);
    import_from(globals, "coreset._base", {"CoresetBase"}, 2);
    import_from(globals, "helpers", {"align_arrays_by_key"}, 2);
    import_from(globals, "numpy_extra", {"filter_missing_and_inf"}, 2);
    import_from(globals, "data.common", {"Dataset"}, 3);
    import_from(globals, "data.manager", {"DataManagerT"}, 3);
    import_from(globals, "", {"utils"}, 1);
    import_from(globals, "data.data_auto_processor", {"DataAutoProcessor"}, 3);
    import_from(globals, "common", {"ThreadPoolManager"}, 3);
}

// ---- records and classes ------------------------------------------------------------------

struct Field {
    const char* name;
    const char* annotation;
    long default_value;  // the defaults are None, or an integer where `is_integer` says so
    bool is_integer;
};

// A class body with annotated fields and their defaults, turned into a record by the module's
// `dataclass`, as `@dataclass class Name: ...` would.
void declare_record(Handle module_name, Handle globals, const char* name,
                    std::initializer_list<Field> fields) {
    Ref class_name = py::interned(name);
    Ref body = py::new_dict();
    py::set_item(body, kModule, module_name);
    py::set_item(body, kQualname, class_name);
    Ref annotations = py::new_dict();
    py::set_item(body, kAnnotations, annotations);
    for (const Field& field : fields) {
        py::set_item(annotations, py::interned(field.name), py::str(field.annotation));
        Ref value = field.is_integer ? py::integer(field.default_value) : Ref::none();
        py::set_item(body, py::interned(field.name), value);
    }
    Ref cls = py::call(reinterpret_cast<PyObject*>(&PyType_Type), class_name, py::tuple(), body);
    Ref dataclass = py::global(globals, kDataclass);
    Ref record = py::call(dataclass, cls);
    py::check_status(PyDict_SetItem(globals.get(), class_name.get(), record.get()));
}

// A plain class built with type(): its docstring, then its methods in order.
void build_class(Handle module_name, Handle globals, const ClassDef& definition) {
    Ref class_name = py::interned(definition.name);
    Ref body = py::new_dict();
    py::set_item(body, kModule, module_name);
    py::set_item(body, kQualname, class_name);
    py::set_item(body, kDoc, py::str(definition.doc));
    for (const py::FunctionDef* method : definition.methods) {
        Ref function = py::make_function(*method, module_name, globals);
        py::set_item(body, py::interned(method->name), function);
    }
    Ref cls = py::call(reinterpret_cast<PyObject*>(&PyType_Type), class_name, py::tuple(), body);
    py::check_status(PyDict_SetItem(globals.get(), class_name.get(), cls.get()));
}

// ---- load ---------------------------------------------------------------------------------

void warn_on_version_mismatch() {
    char compile_time[16];
    std::snprintf(compile_time, sizeof compile_time, "%d.%d", PY_MAJOR_VERSION, PY_MINOR_VERSION);
    const char* runtime = Py_GetVersion();
    const std::size_t length = std::strlen(compile_time);
    if (std::strncmp(runtime, compile_time, length) == 0 &&
        (runtime[length] < '0' || runtime[length] > '9')) {
        return;
    }
    char runtime_version[16];
    std::snprintf(runtime_version, sizeof runtime_version, "%.*s", static_cast<int>(length),
                  runtime);
    py::check_status(PyErr_WarnFormat(
        PyExc_RuntimeWarning, 1,
        "compile time version %s of module '%.100s' does not match runtime version %s",
        compile_time, kModuleName, runtime_version));
}

// Registers the module in sys.modules if it is not there yet; true when this call added it.
bool register_module(Handle module) {
    PyObject* modules = PyImport_GetModuleDict();
    if (PyDict_GetItemString(modules, kModuleName) != nullptr) return false;
    py::check_status(PyDict_SetItemString(modules, kModuleName, module.get()));
    return true;
}

void load(Handle module) {
    warn_on_version_mismatch();
    const bool registered_here = register_module(module);
    try {
        py::ready_function_type();
        py::ready_generator_type();
        Ref globals = Ref::borrow(PyModule_GetDict(module.get()));
        Ref module_name = py::str(kModuleName);
        run_imports(globals);
        py::set_item(globals, global::BUFFER_NODE_ID, py::str("buffer"));
        declare_record(module_name, globals, "ChunkSensitivitiesParams",
                       {{"coreset_params", "dict", 0, false},
                        {"coreset_cls", "Any", 0, false},
                        {"coreset_size", "int", 10, true},
                        {"chunk_id", "Any", 0, false}});
        declare_record(module_name, globals, "ChunkSensitivities",
                       {{"coreset", "dict", 0, false},
                        {"params", "ChunkSensitivitiesParams", 0, false},
                        {"removed_rows", "np.ndarray", 0, false},
                        {"no_features", "int", 0, false}});
        py::set_item(globals, global::exclude_removed,
                     py::make_function(exclude_removed, module_name, globals));
        build_class(module_name, globals, chunk_node_class);
        build_class(module_name, globals, chunk_layer_class);
        py::set_item(globals, kTest, py::new_dict());
    } catch (const py::Error&) {
        if (registered_here) {
            const py::compat::PendingError pending;
            PyDict_DelItemString(PyImport_GetModuleDict(), kModuleName);
        }
        throw;
    }
}

// Py_mod_create: one interpreter per process, and one module object for it.
PyObject* create_module(PyObject* module_spec, PyModuleDef*) {
    return py::guard([&]() -> Ref {
        const int64_t interpreter = PyInterpreterState_GetID(PyInterpreterState_Get());
        if (interpreter < 0) throw py::Error{};
        if (owning_interpreter == -1) owning_interpreter = interpreter;
        if (interpreter != owning_interpreter) {
            py::raise(PyExc_ImportError,
                      "Interpreter change detected - this module can only be loaded into one "
                      "interpreter per process.");
        }
        if (loaded_module != nullptr) return Ref::borrow(loaded_module);
        py::Constant::make_all();

        Ref module = Ref::steal(PyModule_NewObject(py::getattr(module_spec, kSpecName).get()));
        Ref globals = Ref::borrow(PyModule_GetDict(module.get()));
        struct Copy {
            const py::Str& from;
            const py::Str& to;
        };
        for (const Copy& copy : {Copy{kSpecLoader, kLoader}, Copy{kSpecOrigin, kFile},
                                 Copy{kSpecParent, kPackage}, Copy{kSpecSearchLocations, kPath}}) {
            Ref value = Ref::steal_or_null(PyObject_GetAttr(module_spec, copy.from.get()));
            if (!value) {
                if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::Error{};
                PyErr_Clear();
                continue;
            }
            if (!value.is_none()) py::set_item(globals, copy.to, value);
        }
        loaded_module = Ref(module).release();
        return module;
    });
}

// Py_mod_exec: runs the module's body once; running it again for the same module does nothing.
int exec_module(PyObject* module) {
    if (module_initialised) {
        if (module == loaded_module) return 0;
        PyErr_SetString(PyExc_RuntimeError,
                        "Module 'chunk_layer' has already been imported. Re-initialisation is "
                        "not supported.");
        return -1;
    }
    const int status = py::guard_status([&] { load(module); });
    if (status < 0) {
        // A failed load leaves nothing behind: the next import starts from a fresh module.
        if (module == loaded_module)
            Ref dropped = Ref::steal_or_null(std::exchange(loaded_module, nullptr));
        if (!PyErr_Occurred()) {
            PyErr_SetString(PyExc_ImportError, "init quillmarsh.core.tree.chunk_layer");
        }
        return -1;
    }
    module_initialised = true;
    return 0;
}

PyModuleDef_Slot module_slots[] = {
    {.slot = Py_mod_create, .value = reinterpret_cast<void*>(create_module)},
    {.slot = Py_mod_exec, .value = reinterpret_cast<void*>(exec_module)},
#if PY_VERSION_HEX >= 0x030C0000  // a slot of 3.12; the guard can go once 3.12 is the oldest
    // One interpreter per process: a sub-interpreter that checks its extensions refuses the module
    // itself, before any of it runs.
    {.slot = Py_mod_multiple_interpreters, .value = Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#endif
#if PY_VERSION_HEX >= 0x030D0000  // a slot of 3.13; the guard can go once 3.13 is the oldest
    // The module relies on the interpreter lock: a free-threaded build turns it back on.
    {.slot = Py_mod_gil, .value = Py_MOD_GIL_USED},
#endif
    {},
};

PyModuleDef module_def = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "chunk_layer",
    .m_doc = nullptr,
    .m_size = 0,
    .m_methods = nullptr,
    .m_slots = module_slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

}  // namespace
}  // namespace chunk_layer

PyMODINIT_FUNC PyInit_chunk_layer() {
    return PyModuleDef_Init(&chunk_layer::module_def);
}
