// The version shims of py_compat.hpp that handle references.
#include "support/py_compat.hpp"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

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

// The stack left below which a call into the module is refused, whatever the recursion limit: a
// quarter of the thread's stack, at most 256 KiB (1 MiB in sanitizer builds, whose frames are
// larger). One more level of the module, the interpreter frames between two of its calls included,
// fits many times over.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kMaxStackReserve = 1 << 20;
#else
constexpr std::size_t kMaxStackReserve = 256 << 10;
#endif

// Where the calling thread's stack ends, looked up on its first call into the module.
struct ThreadCalls {
    const char* stack_low = nullptr;  // the stack's lowest address; null when unknown
    std::size_t stack_reserve = 0;    // the stack left below which a call is refused
    bool stack_known = false;         // the two above have been looked up
};

thread_local ThreadCalls thread_calls;

// The calling thread's record. Out of line, so that a call reaches thread-local storage once: the
// compiler would look the record's address up again after every call it makes.
[[gnu::noinline]] ThreadCalls& this_thread_calls() noexcept {
    return thread_calls;
}

void find_stack(ThreadCalls& calls) noexcept {
    calls.stack_known = true;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
    void* low = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &low, &size) == 0) {
        calls.stack_low = static_cast<const char*>(low);
        calls.stack_reserve = size / 4 < kMaxStackReserve ? size / 4 : kMaxStackReserve;
    }
    pthread_attr_destroy(&attributes);
}

bool stack_nearly_exhausted(ThreadCalls& calls) noexcept {
    if (!calls.stack_known) [[unlikely]]
        find_stack(calls);
    const char here = 0;
    return calls.stack_low != nullptr &&
           static_cast<std::size_t>(&here - calls.stack_low) < calls.stack_reserve;
}

#if PY_VERSION_HEX >= 0x030C0000
// The remembered names of one namespace. A watcher on the namespace starts a new generation at
// every change (it is told before the change is made), which forgets every value remembered.
struct RememberedGlobal {
    PyObject* name = nullptr;   // interned, kept alive by the module's constants
    PyObject* value = nullptr;  // borrowed from the namespace
    unsigned long generation = 0;
};

constexpr std::size_t kRememberedSlots = 32;  // more than the module's module-level names
constexpr int kNoWatcherYet = -1;
constexpr int kNoWatcher = -2;  // the interpreter had no watcher left to give

struct RememberedGlobals {
    int watcher = kNoWatcherYet;
    PyObject* globals = nullptr;  // the namespace watched, borrowed; null when none
    unsigned long generation = 1;
    RememberedGlobal slots[kRememberedSlots];
};

RememberedGlobals remembered;  // used with the interpreter lock held only

int on_namespace_change(PyDict_WatchEvent event, PyObject* dict, PyObject*, PyObject*) {
    if (dict == remembered.globals) {
        ++remembered.generation;
        if (event == PyDict_EVENT_DEALLOCATED) remembered.globals = nullptr;
    }
    return 0;
}

RememberedGlobal& slot_of(PyObject* name) noexcept {
    return remembered.slots[(reinterpret_cast<std::uintptr_t>(name) >> 4) % kRememberedSlots];
}

// Watches `globals` instead of the namespace watched so far; false when it cannot be watched.
bool watch(PyObject* globals) noexcept {
    if (remembered.watcher == kNoWatcherYet) {
        remembered.watcher = PyDict_AddWatcher(on_namespace_change);
        if (remembered.watcher < 0) {
            PyErr_Clear();
            remembered.watcher = kNoWatcher;
        }
    }
    if (remembered.watcher == kNoWatcher) return false;
    if (remembered.globals != nullptr) {
        if (PyDict_Unwatch(remembered.watcher, remembered.globals) < 0) PyErr_Clear();
        remembered.globals = nullptr;
    }
    ++remembered.generation;
    if (PyDict_Watch(remembered.watcher, globals) < 0) {
        PyErr_Clear();
        return false;
    }
    remembered.globals = globals;
    return true;
}
#endif

}  // namespace

PyObject* remembered_global([[maybe_unused]] PyObject* globals,
                            [[maybe_unused]] PyObject* name) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    if (globals != remembered.globals) return nullptr;
    const RememberedGlobal& slot = slot_of(name);
    if (slot.name != name || slot.generation != remembered.generation) return nullptr;
    return slot.value;
#else
    return nullptr;
#endif
}

void remember_global([[maybe_unused]] PyObject* globals, [[maybe_unused]] PyObject* name,
                     [[maybe_unused]] PyObject* value) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    if (globals != remembered.globals && !watch(globals)) return;
    slot_of(name) = {name, value, remembered.generation};
#endif
}

bool enter_recursive_call([[maybe_unused]] CallLevel& level) noexcept {
    if (stack_nearly_exhausted(this_thread_calls())) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
#if PY_VERSION_HEX >= 0x030C0000
    PyThreadState* thread = PyThreadState_Get();
    if (thread->py_recursion_remaining <= 0 || thread->c_recursion_remaining <= 0) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
    --thread->py_recursion_remaining;
    --thread->c_recursion_remaining;
    level.thread = thread;
#elif PY_VERSION_HEX >= 0x030B0000
    PyThreadState* thread = PyThreadState_Get();
    if (thread->recursion_remaining <= 0) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
    --thread->recursion_remaining;
    level.thread = thread;
#else
    if (Py_EnterRecursiveCall(kWhere) != 0) return false;
#endif
    return true;
}

void leave_recursive_call([[maybe_unused]] const CallLevel& level) noexcept {
    if (interpreter_finalizing() && !thread_holds_gil()) [[unlikely]]
        return;
#if PY_VERSION_HEX >= 0x030C0000
    ++level.thread->py_recursion_remaining;
    ++level.thread->c_recursion_remaining;
#elif PY_VERSION_HEX >= 0x030B0000
    ++level.thread->recursion_remaining;
#else
    Py_LeaveRecursiveCall();
#endif
}

void add_attribute_error_context([[maybe_unused]] PyObject* object,
                                 [[maybe_unused]] PyObject* name) noexcept {
#if PY_VERSION_HEX >= 0x030A0000
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return;
    Ref error = Ref::steal_or_null(take_raised_exception());
    if (PyErr_GivenExceptionMatches(error.get(), PyExc_AttributeError)) {
        const auto* fields = reinterpret_cast<const PyAttributeErrorObject*>(error.get());
        const bool known = fields->name != nullptr || fields->obj != nullptr;
        if (!known && (PyObject_SetAttrString(error.get(), "name", name) < 0 ||
                       PyObject_SetAttrString(error.get(), "obj", object) < 0)) {
            return;  // that failure's error is the one raised now, as in the interpreter
        }
    }
    set_raised_exception(error.release());
#endif
}

PendingError::PendingError() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    value_ = PyErr_GetRaisedException();
#else
    PyErr_Fetch(&type_, &value_, &traceback_);
#endif
}

PendingError::~PendingError() noexcept(false) {
    if (interpreter_finalizing() && !thread_holds_gil()) [[unlikely]]
        return;
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
