// How a failure crosses between C++ and the interpreter: a failed API call becomes `Error` (the
// Python error stays set) and travels up as a C++ exception, and every entry point that the
// interpreter calls turns it back into the NULL or -1 that the C API expects (`guard`). An entry
// point that may run Python code also takes a level of the recursion count (`RecursionLevel`).
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <exception>
#include <new>

#include "support/py_compat.hpp"

namespace py {

// Thrown when a Python API call fails. The Python error indicator is set and stays set until
// the exception is turned back into a NULL return at an entry point (see `guard`).
struct Error {};

// Turns a NULL result into `Error`.
inline PyObject* check(PyObject* result) {
    if (result == nullptr) throw Error{};
    return result;
}

// Turns a -1 status into `Error`.
inline int check_status(int status) {
    if (status < 0) throw Error{};
    return status;
}

// Raises a Python exception of `type` with a printf-style message (the interpreter's format).
template <class... Args>
[[noreturn]] void raise(PyObject* type, const char* format, Args... args) {
    PyErr_Format(type, format, args...);
    throw Error{};
}

// ---- entry points -------------------------------------------------------------------------

// Runs `body` at an entry point called by the interpreter: a thrown `Error` becomes a NULL
// return with the Python error set, and C++ failures become the matching Python errors. `body`
// returns an owned reference, handed to the interpreter. The forced unwinding of a thread ended by
// pthread_exit() (abi::__forced_unwind) matches none of the handlers and passes through, as it
// must: entry points are never noexcept, and nothing here catches everything.
template <class Body>
PyObject* guard(Body&& body) {
    try {
        return body().release();
    } catch (const Error&) {
        return nullptr;
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    } catch (const std::exception& failure) {
        PyErr_SetString(PyExc_SystemError, failure.what());
        return nullptr;
    }
}

// Same for entry points that report failure with -1.
template <class Body>
int guard_status(Body&& body) {
    try {
        body();
        return 0;
    } catch (const Error&) {
        return -1;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return -1;
    } catch (const std::exception& failure) {
        PyErr_SetString(PyExc_SystemError, failure.what());
        return -1;
    }
}

// One level of the interpreter's recursion count, held while a call into the module runs: calls
// between the module's own methods recurse as deep as Python functions would, and then raise
// RecursionError.
class RecursionLevel {
  public:
    RecursionLevel() {
        if (!compat::enter_recursive_call(level_)) throw Error{};
    }
    RecursionLevel(const RecursionLevel&) = delete;
    RecursionLevel& operator=(const RecursionLevel&) = delete;
    ~RecursionLevel() { compat::leave_recursive_call(level_); }

  private:
    compat::CallLevel level_;
};

}  // namespace py
