// Every difference between the CPython versions the module supports (3.9 to 3.13), and every use
// of an interpreter function outside the stable public API, in one place and gated on
// PY_VERSION_HEX. The rest of the extension calls these and never tests a version itself.
//
// Nothing here reads an interpreter structure directly: what 3.14 removes (ma_version_tag, for
// one) is not used at all.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstddef>

namespace py::compat {

// True once the interpreter has begun to finalise. From then on a thread that is not holding the
// interpreter lock may be ended with pthread_exit() while it is inside the module.
inline bool interpreter_finalizing() noexcept {
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing() != 0;
#else
    return _Py_IsFinalizing() != 0;
#endif
}

// True when the calling thread holds the interpreter lock.
inline bool thread_holds_gil() noexcept {
    return PyGILState_Check() != 0;
}

// What the module keeps per thread to count its calls: where the thread's stack ends, and from
// 3.12 on its own depth of calls.
struct ThreadCalls {
    const char* stack_low = nullptr;  // the stack's lowest address; null when unknown
    std::size_t stack_reserve = 0;    // the stack left below which a call is refused
    bool stack_known = false;         // the two above have been looked up
    int depth = 0;                    // calls into the module now running (3.12 and later)
};

// One more level of the interpreter's recursion count, for a call into the module; null, with
// RecursionError set, past the limit, else the thread's record, for leave_recursive_call. Up to
// 3.11 the count that Python functions use also guards C calls. From 3.12 on Python calls have a
// count of their own, which extensions cannot reach, so the module's calls are also counted per
// thread against sys.getrecursionlimit(). On every version a call is also refused when the
// thread's stack is nearly used up, as it can be on a thread with a small stack long before the
// limit.
ThreadCalls* enter_recursive_call() noexcept;

// Leaves the level entered by a successful enter_recursive_call(); not when the thread is ended
// without the interpreter lock (its thread state is gone with it).
void leave_recursive_call(ThreadCalls& calls) noexcept;

// Module-level names that the module's calls look up, remembered between calls where the
// interpreter reports every change of a namespace (dict watchers, 3.12 and later); earlier
// versions look every name up afresh. One namespace is remembered at a time, the module's own.
//
// The value of `name` last found in `globals`, borrowed from `globals` (the caller takes its own
// reference before anything else runs), or null when not remembered.
PyObject* remembered_global(PyObject* globals, PyObject* name) noexcept;

// Remembers `value`, just found for the interned `name` in `globals`, until `globals` changes.
void remember_global(PyObject* globals, PyObject* name, PyObject* value) noexcept;

// What the interpreter names a callable in its call errors: "module.qualname()", or
// "qualname()" for builtins, as in "f() argument after * must be an iterable, not int".
// A new reference, or null with an error set.
inline PyObject* function_str(PyObject* callable) {
    // The same text on every supported version; the function is exported by each of them.
    return _PyObject_FunctionStr(callable);
}

// The error being raised, taken out of the error indicator so that other code can run, and put
// back when this goes out of scope. Exceptions of 3.12 and later are one object; earlier versions
// keep three.
class PendingError {
  public:
    PendingError() noexcept;
    PendingError(const PendingError&) = delete;
    PendingError& operator=(const PendingError&) = delete;
    ~PendingError();  // puts the error back (whatever the indicator holds then is dropped)

  private:
    PyObject* type_ = nullptr;  // before 3.12 only
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;  // before 3.12 only
};

// The error being raised, as one normalised exception object whose traceback is attached, cleared
// from the indicator (new reference); null when none is set.
PyObject* take_raised_exception() noexcept;

// Raises `exception` with its traceback; steals the reference.
void set_raised_exception(PyObject* exception) noexcept;

}  // namespace py::compat
