// Every difference between the CPython versions the module supports (3.9 to 3.13), and every use
// of an interpreter function outside the stable public API, in one place and gated on
// PY_VERSION_HEX. The rest of the extension calls these and never tests a version itself, apart
// from the module's optional slots (module.cpp), which older versions do not know.
//
// A stand-in for an API that a newer version added carries that API's name, in this namespace, and
// says which version added it and from which oldest supported version it can go; on the versions
// that have the API, the name here is the interpreter's own.
//
// The interpreter structures read directly: the thread state's recursion count (from 3.11 on),
// so that a call into the module counts as a Python call does, without three calls into the
// interpreter; the thread state's thread id (up to 3.11), to tell whether the calling thread holds
// the lock; and, in 3.12 and 3.13 only, the version tag of the module's namespace, which tells
// whether a remembered module-level name is still current whatever has become of the dict watcher.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

namespace py::compat {

// ---- stand-ins for newer API ---------------------------------------------------------------

#if PY_VERSION_HEX >= 0x030D0000
using ::Py_IsFinalizing;
using ::PyThreadState_GetUnchecked;
#else
// Py_IsFinalizing() of 3.13 (private before); can go once 3.13 is the oldest supported.
inline int Py_IsFinalizing() noexcept {
    return _Py_IsFinalizing();
}
// PyThreadState_GetUnchecked() of 3.13 (private before); can go once 3.13 is the oldest supported.
inline PyThreadState* PyThreadState_GetUnchecked() noexcept {
    return _PyThreadState_UncheckedGet();
}
#endif

#if PY_VERSION_HEX >= 0x030C0000
using ::PyErr_GetRaisedException;
using ::PyErr_SetRaisedException;
#else
// PyErr_GetRaisedException() of 3.12; can go once 3.12 is the oldest supported. The error being
// raised, as one normalised exception object whose traceback is attached, cleared from the
// indicator (new reference); null when none is set.
PyObject* PyErr_GetRaisedException() noexcept;
// PyErr_SetRaisedException() of 3.12; can go once 3.12 is the oldest supported. Raises
// `exception` with its traceback, or clears the indicator for null; steals the reference.
void PyErr_SetRaisedException(PyObject* exception) noexcept;
#endif

// ---- the module's own ---------------------------------------------------------------------

// True when the calling thread holds the interpreter lock: it has a current thread state. Not
// PyGILState_Check(), which answers yes in every thread for good once any sub-interpreter has
// existed. Up to 3.11 the current thread state is one for the whole process, the lock holder's, so
// it must also be this thread's own; from 3.12 on it is per thread, and null while the thread
// waits for the lock.
inline bool thread_holds_gil() noexcept {
    const PyThreadState* current = PyThreadState_GetUnchecked();
#if PY_VERSION_HEX >= 0x030C0000
    return current != nullptr;
#else
    // The process-wide current thread state of 3.11 and older; can go once 3.12 is the oldest.
    return current != nullptr && current->thread_id == PyThread_get_thread_ident();
#endif
}

// True once the interpreter has begun to finalise and the calling thread does not hold its lock:
// such a thread may be ended with pthread_exit() while it is inside the module, and must not touch
// any object.
inline bool thread_ends_at_finalisation() noexcept {
    return Py_IsFinalizing() != 0 && !thread_holds_gil();
}

// One level of the recursion count, taken by enter_recursive_call() and given back by
// leave_recursive_call().
struct CallLevel {
    PyThreadState* thread = nullptr;  // the calling thread's state, from 3.11 on
};

// One more level of the interpreter's recursion count, for a call into the module; false, with
// RecursionError set, past the limit. Up to 3.11 one count guards Python and C calls alike. From
// 3.12 on Python calls have a count of their own, and a call into the module takes a level of
// each, as it is a C call that runs Python code. On every version a call is also refused when
// the thread's stack is nearly used up, as it can be on a thread with a small stack long before
// the limit.
bool enter_recursive_call(CallLevel& level) noexcept;

// Leaves the level entered by a successful enter_recursive_call(); not when the thread is ended
// without the interpreter lock (its thread state is gone with it).
void leave_recursive_call(const CallLevel& level) noexcept;

// Module-level names that the module's calls look up, remembered between calls from 3.12 on,
// each held with the namespace's version tag and used again only while the tag is unchanged; a
// dict watcher gives them back when the namespace changes. Earlier versions look every name up
// afresh. One namespace is remembered at a time, the module's own; one with a key other than an
// exact str is not remembered at all (looking a name up there may run that key's __eq__).
//
// The value of `name` last found in `globals`, borrowed from the remembered slot (the caller takes
// its own reference before anything else runs), or null when not remembered.
PyObject* remembered_global(PyObject* globals, PyObject* name) noexcept;

// Remembers `value`, just found for the interned `name` in `globals` (the caller holds it: values
// given back here may run code), unless a change of `globals` has been announced and not yet made.
void remember_global(PyObject* globals, PyObject* name, PyObject* value);

// The value of an exact int that fits a long long, read as cheaply as the version allows; false
// for anything else (the caller then lets the int compare itself).
inline bool small_int_value(PyObject* object, long long& value) noexcept {
    if (!PyLong_CheckExact(object)) return false;
#if PY_VERSION_HEX >= 0x030C0000  // the compact form of 3.12 and later
    if (PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(object))) {
        value = PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(object));
        return true;
    }
#endif
    int overflow = 0;
    value = PyLong_AsLongLongAndOverflow(object, &overflow);
    return overflow == 0 && !(value == -1 && PyErr_Occurred());
}

// What PyObject_GetAttr adds, from 3.10 on, to an AttributeError raised while `name` is read from
// `object`: the two, for the "Did you mean" suggestion of its traceback, unless an inner read put
// its own there first. Called with the error set, which stays set.
void add_attribute_error_context(PyObject* object, PyObject* name) noexcept;

// What the interpreter names a callable in its call errors: "module.qualname()", or
// "qualname()" for builtins, as in "f() argument after * must be an iterable, not int".
// A new reference, or null with an error set.
inline PyObject* function_str(PyObject* callable) {
    // The same text on every supported version; the function is exported by each of them.
    return _PyObject_FunctionStr(callable);
}

// What throw(type, value[, traceback]) of a generator warns from 3.12 on, where that form is
// deprecated: -1 when the warning is raised as an error, else 0.
inline int warn_three_argument_throw() noexcept {
#if PY_VERSION_HEX >= 0x030C0000  // the guard can go once 3.12 is the oldest supported
    return PyErr_WarnEx(PyExc_DeprecationWarning,
                        "the (type, exc, tb) signature of throw() is deprecated, use the "
                        "single-arg signature instead.",
                        1);
#else
    return 0;
#endif
}

// The error being raised, taken out of the error indicator so that other code can run, and put
// back when this goes out of scope. Exceptions of 3.12 and later are one object; earlier versions
// keep three, which are put aside as they are, unnormalised, so that nothing runs here (the three
// can go once 3.12 is the oldest supported).
class PendingError {
  public:
    PendingError() noexcept;
    PendingError(const PendingError&) = delete;
    PendingError& operator=(const PendingError&) = delete;
    // Puts the error back (whatever the indicator holds then is dropped, which may run a
    // finaliser); not in a thread ended at finalisation, which leaves it to the dying process.
    ~PendingError() noexcept(false);

  private:
    PyObject* type_ = nullptr;  // before 3.12 only
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;  // before 3.12 only
};

}  // namespace py::compat
