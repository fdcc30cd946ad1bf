// The version shims of py_compat.hpp that handle references.
#include "support/py_compat.hpp"

#include <pthread.h>

#include <cstddef>

#if defined(__GLIBC__) && defined(__x86_64__)
// glibc 2.32 and 2.34 moved these two into libc under new symbol versions; binding the versions
// every glibc has keeps the module loadable on systems older than the one that built it.
__asm__(".symver pthread_getattr_np,pthread_getattr_np@GLIBC_2.2.5");
__asm__(".symver pthread_attr_getstack,pthread_attr_getstack@GLIBC_2.2.5");
#endif

#include "support/py_ref.hpp"

namespace py::compat {
namespace {

constexpr const char* kWhere = " while calling a Python object";

#if PY_VERSION_HEX >= 0x030C0000
thread_local int module_call_depth = 0;
#endif

// The stack left below which a call into the module is refused, whatever the recursion limit: a
// quarter of the thread's stack, at most 256 KiB (1 MiB in sanitizer builds, whose frames are
// larger). One more level of the module, the interpreter frames between two of its calls included,
// fits many times over.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kMaxStackReserve = 1 << 20;
#else
constexpr std::size_t kMaxStackReserve = 256 << 10;
#endif

// The calling thread's stack: its lowest address (null when unknown) and the reserve kept above it,
// found once per thread.
thread_local const char* stack_low = nullptr;
thread_local std::size_t stack_reserve = 0;
thread_local bool stack_low_known = false;

bool stack_nearly_exhausted() noexcept {
    if (!stack_low_known) {
        stack_low_known = true;
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            void* low = nullptr;
            std::size_t size = 0;
            if (pthread_attr_getstack(&attributes, &low, &size) == 0) {
                stack_low = static_cast<const char*>(low);
                stack_reserve = size / 4 < kMaxStackReserve ? size / 4 : kMaxStackReserve;
            }
            pthread_attr_destroy(&attributes);
        }
    }
    const char here = 0;
    return stack_low != nullptr && static_cast<std::size_t>(&here - stack_low) < stack_reserve;
}

}  // namespace

bool enter_recursive_call() noexcept {
    if (stack_nearly_exhausted()) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
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
