// The generator type behind the module's generator methods (see py_generator.hpp). Its states
// and errors follow Python's own generators: not started, suspended at a yield, running, and
// finished; "generator already executing" on re-entry; a StopIteration escaping the body turned
// into RuntimeError; close() throwing GeneratorExit into a suspended body.
#include "support/py_generator.hpp"

#include <array>
#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>

namespace py {

// Not noexcept: the forced unwinding of a thread ended at finalisation matches none of the handlers
// and goes on to the resumer.
void Coroutine::promise_type::unhandled_exception() {
    try {
        throw;
    } catch (const Error&) {
        // The Python error is already set.
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& failure) {
        PyErr_SetString(PyExc_SystemError, failure.what());
    }
    failed = true;
}

namespace {

// Freed coroutine frames kept for reuse, each with its size (0: empty). They come from the C
// allocator, not Python's, so that a kept frame stays valid whatever the interpreter does.
struct SpareFrame {
    std::size_t size = 0;
    void* frame = nullptr;
};
SpareFrame spare_frames[4];  // used with the interpreter lock held only

}  // namespace

void* Coroutine::promise_type::operator new(std::size_t size) noexcept {
    for (SpareFrame& spare : spare_frames) {
        if (spare.size == size) {
            spare.size = 0;
            return std::exchange(spare.frame, nullptr);
        }
    }
    return std::malloc(size);
}

void Coroutine::promise_type::operator delete(void* frame, std::size_t size) noexcept {
    for (SpareFrame& spare : spare_frames) {
        if (spare.size == 0) {
            spare = {size, frame};
            return;
        }
    }
    std::free(frame);
}

namespace {

const Str kCollectionsAbc{"collections.abc"};
const Str kGenerator{"Generator"};
const Str kRegister{"register"};

struct GeneratorObject {
    PyObject ob_base;
    PyObject* weakrefs;
    // The C++ part, constructed in place after allocation and destroyed before the memory goes.
    struct Fields {
        Coroutine::Handle body;  // null once the generator has finished
        Ref function;
        Ref globals;
        Ref closure;
        std::array<Ref, kMaxParameters> arguments;                // the call's, owned here
        std::array<PyObject*, kMaxParameters> argument_pointers;  // what `call` reads them from
        Call call;
        Ref name;
        Ref qualname;
        Held* held = nullptr;  // what the body holds across its co_yields
        bool started = false;
        bool running = false;
    } fields;
};

GeneratorObject* as_generator(PyObject* object) {
    return reinterpret_cast<GeneratorObject*>(object);
}

// Destroys the coroutine frame. Its locals are released here, which may run arbitrary code, so
// the frame is detached first and a pending error is kept aside meanwhile. A body that never ran
// holds nothing of Python's yet: its frame is only freed.
void finish(GeneratorObject& generator) {
    Coroutine::Handle body = std::exchange(generator.fields.body, {});
    if (!body) return;
    if (!generator.fields.started) {
        body.destroy();
        return;
    }
    const compat::PendingError pending;
    body.destroy();
}

enum class Resume { next, send, throw_pending };

// One resumption: the heart of next(), send() and throw(). Returns the yielded value (new
// reference) or NULL: with StopIteration set when the body returned (not for next(), where the
// bare NULL ends the iteration), or with the body's error set.
PyObject* resume(GeneratorObject& generator, Resume how, PyObject* sent) {
    auto& fields = generator.fields;
    if (fields.running) {
        PyErr_SetString(PyExc_ValueError, "generator already executing");
        return nullptr;
    }
    if (!fields.body) {
        // Finished: a thrown exception comes straight back, send() raises StopIteration.
        if (how == Resume::send) PyErr_SetNone(PyExc_StopIteration);
        return nullptr;
    }
    if (!fields.started && how == Resume::send && sent != Py_None) {
        PyErr_SetString(PyExc_TypeError, "can't send non-None value to a just-started generator");
        return nullptr;
    }

    // A resumption counts against the recursion limit as a call does. Past it, the generator is
    // finished with the RecursionError, as a Python generator whose frame could not be entered.
    std::optional<RecursionLevel> level;
    try {
        level.emplace();
    } catch (const Error&) {
        finish(generator);
        return nullptr;
    }
    Coroutine::promise_type& promise = fields.body.promise();
    bool failed;
    if (!fields.started && how == Resume::throw_pending) {
        // Thrown in before the first statement: the body never runs and ends with the error.
        failed = true;
        finish(generator);
    } else {
        promise.sent = Ref::borrow(sent != nullptr ? sent : Py_None);
        promise.throw_on_resume = how == Resume::throw_pending;
        fields.started = true;
        fields.running = true;
        fields.body.resume();
        fields.running = false;
        if (!fields.body.done()) return std::move(promise.yielded).release();
        failed = promise.failed;
        finish(generator);
    }

    if (failed) {
        // A StopIteration leaving the body would end the caller's loop silently: make it loud.
        if (PyErr_ExceptionMatches(PyExc_StopIteration)) {
            Ref stop = Ref::steal_or_null(compat::PyErr_GetRaisedException());
            PyErr_SetString(PyExc_RuntimeError, "generator raised StopIteration");
            Ref error = Ref::steal_or_null(compat::PyErr_GetRaisedException());
            PyException_SetCause(error.get(), Ref(stop).release());
            PyException_SetContext(error.get(), stop.release());
            compat::PyErr_SetRaisedException(error.release());
        }
        return nullptr;
    }
    if (how != Resume::next) PyErr_SetNone(PyExc_StopIteration);
    return nullptr;
}

PyObject* generator_iternext(PyObject* self) {
    return resume(*as_generator(self), Resume::next, nullptr);
}

PyObject* generator_send(PyObject* self, PyObject* value) {
    return resume(*as_generator(self), Resume::send, value);
}

// throw(type[, value[, traceback]]), with the argument checks of Python's generators.
PyObject* generator_throw(PyObject* self, PyObject* args) {
    PyObject* type_arg;
    PyObject* value_arg = nullptr;
    PyObject* traceback_arg = nullptr;
    if (!PyArg_UnpackTuple(args, "throw", 1, 3, &type_arg, &value_arg, &traceback_arg)) {
        return nullptr;
    }
    if (value_arg != nullptr && compat::warn_three_argument_throw() < 0) return nullptr;
    if (traceback_arg == Py_None) traceback_arg = nullptr;
    if (traceback_arg != nullptr && !PyTraceBack_Check(traceback_arg)) {
        PyErr_SetString(PyExc_TypeError, "throw() third argument must be a traceback object");
        return nullptr;
    }
    Ref type = Ref::borrow(type_arg);
    Ref value = Ref::borrow(value_arg);
    Ref traceback = Ref::borrow(traceback_arg);
    if (PyExceptionClass_Check(type_arg)) {
        PyObject* raw_type = type.release();
        PyObject* raw_value = value.release();
        PyObject* raw_traceback = traceback.release();
        PyErr_NormalizeException(&raw_type, &raw_value, &raw_traceback);
        type = Ref::steal_or_null(raw_type);
        value = Ref::steal_or_null(raw_value);
        traceback = Ref::steal_or_null(raw_traceback);
        if (PyErr_Occurred()) return nullptr;
    } else if (PyExceptionInstance_Check(type_arg)) {
        if (value && !value.is_none()) {
            PyErr_SetString(PyExc_TypeError, "instance exception may not have a separate value");
            return nullptr;
        }
        value = type;
        type = Ref::borrow(reinterpret_cast<PyObject*>(Py_TYPE(type_arg)));
        if (!traceback) traceback = Ref::steal_or_null(PyException_GetTraceback(value.get()));
    } else {
        PyErr_Format(PyExc_TypeError,
                     "exceptions must be classes or instances deriving from BaseException, not %s",
                     Py_TYPE(type_arg)->tp_name);
        return nullptr;
    }
    PyErr_Restore(type.release(), value.release(), traceback.release());
    return resume(*as_generator(self), Resume::throw_pending, nullptr);
}

PyObject* close_generator(GeneratorObject& generator) {
    if (generator.fields.running) {
        PyErr_SetString(PyExc_ValueError, "generator already executing");
        return nullptr;
    }
    if (!generator.fields.body) return Ref::none().release();
    PyErr_SetNone(PyExc_GeneratorExit);
    Ref yielded = Ref::steal_or_null(resume(generator, Resume::throw_pending, nullptr));
    if (yielded) {
        PyErr_SetString(PyExc_RuntimeError, "generator ignored GeneratorExit");
        return nullptr;
    }
    if (PyErr_ExceptionMatches(PyExc_StopIteration) ||
        PyErr_ExceptionMatches(PyExc_GeneratorExit)) {
        PyErr_Clear();
        return Ref::none().release();
    }
    return nullptr;
}

PyObject* generator_close(PyObject* self, PyObject*) {
    return close_generator(*as_generator(self));
}

// A generator dropped while suspended is closed first, as Python's are. One that never started
// has nothing to close: closing it would run none of its body.
void generator_finalize(PyObject* self) {
    GeneratorObject& generator = *as_generator(self);
    if (!generator.fields.started) finish(generator);
    if (!generator.fields.body) return;
    const compat::PendingError pending;
    if (Ref result = Ref::steal_or_null(close_generator(generator)); !result) {
        PyErr_WriteUnraisable(self);
    }
    finish(generator);
}

int generator_traverse(PyObject* self, visitproc visit, void* arg) {
    auto& fields = as_generator(self)->fields;
    for (const Ref* ref :
         {&fields.function, &fields.globals, &fields.closure, &fields.name, &fields.qualname}) {
        Py_VISIT(ref->get());
    }
    for (const Ref& argument : fields.arguments) Py_VISIT(argument.get());
    return Held::traverse(fields.held, visit, arg);
}

int generator_clear(PyObject* self) {
    GeneratorObject& generator = *as_generator(self);
    finish(generator);  // the frame borrows the arguments: it goes first
    auto& fields = generator.fields;
    for (Ref* ref :
         {&fields.function, &fields.globals, &fields.closure, &fields.name, &fields.qualname}) {
        *ref = Ref();
    }
    for (Ref& argument : fields.arguments) argument = Ref();
    return 0;
}

void generator_dealloc(PyObject* self) {
    GeneratorObject* generator = as_generator(self);
    PyObject_GC_UnTrack(self);
    if (generator->weakrefs != nullptr) PyObject_ClearWeakRefs(self);
    if (generator->fields.started && generator->fields.body) {
        // The finalizer may run Python code, so the object is tracked again while it runs.
        PyObject_GC_Track(self);
        if (PyObject_CallFinalizerFromDealloc(self) < 0) return;  // resurrected by its finalizer
        PyObject_GC_UnTrack(self);
    }
    finish(*generator);
    generator->fields.~Fields();
    PyObject_GC_Del(self);
}

PyObject* generator_repr(PyObject* self) {
    return PyUnicode_FromFormat("<generator object %U at %p>",
                                as_generator(self)->fields.qualname.get(), self);
}

PyObject* get_name(PyObject* self, void*) {
    return Ref(as_generator(self)->fields.name).release();
}
int set_name(PyObject* self, PyObject* value, void*) {
    return assign_str(as_generator(self)->fields.name, value,
                      "__name__ must be set to a string object");
}
PyObject* get_qualname(PyObject* self, void*) {
    return Ref(as_generator(self)->fields.qualname).release();
}
int set_qualname(PyObject* self, PyObject* value, void*) {
    return assign_str(as_generator(self)->fields.qualname, value,
                      "__qualname__ must be set to a string object");
}
PyObject* get_running(PyObject* self, void*) {
    return Ref::boolean(as_generator(self)->fields.running).release();
}

// The tables name only the fields they set, and leave the rest zero as the interpreter expects; g++
// warns about every member that a designated initialiser leaves out, hence the pragma.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

PyMethodDef generator_methods[] = {
    {.ml_name = "send",
     .ml_meth = generator_send,
     .ml_flags = METH_O,
     .ml_doc = "send(arg) -> send 'arg' into generator,\nreturn next yielded value or raise "
               "StopIteration."},
    {.ml_name = "throw",
     .ml_meth = generator_throw,
     .ml_flags = METH_VARARGS,
     .ml_doc = "throw(typ[,val[,tb]]) -> raise exception in generator,\nreturn next yielded value "
               "or raise StopIteration."},
    {.ml_name = "close",
     .ml_meth = generator_close,
     .ml_flags = METH_NOARGS,
     .ml_doc = "close() -> raise GeneratorExit inside generator."},
    {},
};

PyGetSetDef generator_getset[] = {
    {.name = "__name__", .get = get_name, .set = set_name},
    {.name = "__qualname__", .get = get_qualname, .set = set_qualname},
    {.name = "gi_running", .get = get_running},
    {},
};

PyTypeObject generator_type = {
    .ob_base = PyVarObject{PyObject_HEAD_INIT(nullptr) 0},
    .tp_name = "quillmarsh.core.tree.chunk_layer.generator",
    .tp_basicsize = sizeof(GeneratorObject),
    .tp_dealloc = generator_dealloc,
    .tp_repr = generator_repr,
    .tp_getattro = PyObject_GenericGetAttr,
    .tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC,
    .tp_traverse = generator_traverse,
    .tp_clear = generator_clear,
    .tp_weaklistoffset = offsetof(GeneratorObject, weakrefs),
    .tp_iter = PyObject_SelfIter,
    .tp_iternext = generator_iternext,
    .tp_methods = generator_methods,
    .tp_getset = generator_getset,
    .tp_finalize = generator_finalize,
};

#pragma GCC diagnostic pop

}  // namespace

void ready_generator_type() {
    check_status(PyType_Ready(&generator_type));
    Ref abc = Ref::steal(PyImport_Import(kCollectionsAbc.get()));
    call_method(getattr(abc, kGenerator), kRegister, reinterpret_cast<PyObject*>(&generator_type));
}

Ref make_generator(const Call& call, std::size_t argument_count, GeneratorBody body) {
    GeneratorObject* generator = PyObject_GC_New(GeneratorObject, &generator_type);
    check(reinterpret_cast<PyObject*>(generator));
    generator->weakrefs = nullptr;
    new (&generator->fields) GeneratorObject::Fields{
        .body = {},
        .function = Ref::borrow(call.function),
        .globals = Ref::borrow(call.globals),
        .closure = Ref::borrow(call.closure),
        .arguments = {},
        .argument_pointers = {},
        .call = Call{.function = call.function,
                     .globals = call.globals,
                     .closure = call.closure,
                     .args = nullptr,
                     .held = nullptr},
        .name = function_name(call.function),
        .qualname = function_qualname(call.function),
    };
    Ref result = Ref::steal(reinterpret_cast<PyObject*>(generator));
    auto& fields = generator->fields;
    for (std::size_t i = 0; i < argument_count; ++i) {
        fields.arguments[i] = Ref::borrow(call.args[i]);
        fields.argument_pointers[i] = call.args[i];
    }
    // The body's Call points at the objects this generator owns, so it outlives every resumption.
    fields.call.args = fields.argument_pointers.data();
    fields.call.held = &fields.held;
    fields.body = body(fields.call).release();
    if (!fields.body) {
        PyErr_NoMemory();
        throw Error{};
    }
    PyObject_GC_Track(generator);
    return result;
}

}  // namespace py
