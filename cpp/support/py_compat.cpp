// The version shims of py_compat.hpp that handle references.
#include "support/py_compat.hpp"

#include "support/py_ref.hpp"

namespace py::compat {

#if PY_VERSION_HEX >= 0x030C0000
namespace {
thread_local int module_call_depth = 0;
}  // namespace
#endif

bool enter_recursive_call() noexcept {
    constexpr const char* kWhere = " while calling a Python object";
    if (Py_EnterRecursiveCall(kWhere) != 0) return false;
#if PY_VERSION_HEX >= 0x030C0000
    if (++module_call_depth > Py_GetRecursionLimit()) {
        --module_call_depth;
        Py_LeaveRecursiveCall();
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
#endif
    return true;
}

void leave_recursive_call() noexcept {
    if (interpreter_finalizing() && !thread_holds_gil()) [[unlikely]]
        return;
#if PY_VERSION_HEX >= 0x030C0000
    --module_call_depth;
#endif
    Py_LeaveRecursiveCall();
}

PendingError::PendingError() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    value_ = PyErr_GetRaisedException();
#else
    PyErr_Fetch(&type_, &value_, &traceback_);
#endif
}

PendingError::~PendingError() {
#if PY_VERSION_HEX >= 0x030C0000
    PyErr_SetRaisedException(value_);
#else
    PyErr_Restore(type_, value_, traceback_);
#endif
}

PyObject* take_raised_exception() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return PyErr_GetRaisedException();
#else
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    if (type == nullptr) return nullptr;
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref owned_type = Ref::steal_or_null(type);
    Ref owned_traceback = Ref::steal_or_null(traceback);
    if (owned_traceback) PyException_SetTraceback(value, traceback);
    return value;
#endif
}

void set_raised_exception(PyObject* exception) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    PyErr_SetRaisedException(exception);
#else
    PyErr_Restore(PyObject_Type(exception), exception, PyException_GetTraceback(exception));
#endif
}

}  // namespace py::compat
