// The parts of py_compat.hpp compiled once: the stack and recursion checks, the remembered
// module-level names, and the stand-ins that handle references.
#include "support/py_compat.hpp"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#if defined(__GLIBC__) && defined(__x86_64__)
// The two functions that find the thread's stack, bound to the symbol versions every x86-64 glibc
// has. glibc 2.32 gave pthread_getattr_np a new default version and 2.34 pthread_attr_getstack, and
// glibc cannot be told to build for a release older than its own: without these lines a module
// built on a newer glibc needs 2.34, and auditwheel tags its wheels manylinux_2_34 instead of
// manylinux_2_24 (the floor libstdc++ sets), which shuts out Debian 11, Ubuntu 20.04 and RHEL 8.
// They can go once the wheels are built on a manylinux image, whose older glibc links the old
// versions by default.
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
// The remembered names of one namespace, each held with the namespace's version tag when it was
// looked up. 3.12 and 3.13 advance the tag at every change, after the change is made, whatever
// watches the namespace: a value is used again only while the tag is the one it was found under.
// So a value looked up while a change is pending (between the watchers' notice and the change,
// where another watcher's callback can call the module) is never used after the change, nor after
// changes that no watcher heard of (other code may clear the module's watcher or unwatch the
// namespace). The module's own watcher gives each remembered value back as soon as its name may
// change, so that the namespace's old values go when Python's would.
struct RememberedGlobal {
    PyObject* name = nullptr;  // interned, kept alive by the module's constants
    Ref value;
    std::uint64_t version = 0;  // the namespace's tag when `value` was found
};

constexpr std::size_t kRememberedSlots = 32;  // more than the module's module-level names
constexpr int kNoWatcherYet = -1;
constexpr int kNoWatcher = -2;  // the interpreter had no watcher left to give

struct RememberedGlobals {
    int watcher = kNoWatcherYet;
    PyObject* globals = nullptr;     // the namespace remembered, borrowed; null when none
    std::uint64_t notified = 0;      // the tag when the last change was announced
    std::uint64_t keys_version = 0;  // the tag when the keys were last found all exact str
    RememberedGlobal slots[kRememberedSlots];
};

// Made once and never destroyed: the values it holds go with the interpreter, not at process exit.
RememberedGlobals& remembered = *new RememberedGlobals;  // used with the interpreter lock held only

// The tag is deprecated from 3.12 on, in favour of watchers, which cannot tell that they have been
// cleared or the namespace unwatched; 3.12 and 3.13 still advance it at every change.
std::uint64_t version_of(PyObject* dict) noexcept {
    // clang-format off
    _Py_COMP_DIAG_PUSH
    _Py_COMP_DIAG_IGNORE_DEPR_DECLS
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
    _Py_COMP_DIAG_POP
    // clang-format on
}

// Whether the namespace is watched by `watcher`: its bit among the low bits of the tag.
bool watched_by(PyObject* dict, int watcher) noexcept {
    return (version_of(dict) >> watcher & 1) != 0;
}

// Gives back every remembered value that is still the namespace's own, as the namespace is about
// to change: the namespace holds each of them, so no finaliser can run here. The others (left
// over from changes the watcher did not hear of) wait for the next remember_global().
int on_namespace_change(PyDict_WatchEvent event, PyObject* dict, PyObject*, PyObject*) {
    if (dict != remembered.globals) return 0;
    const std::uint64_t version = version_of(dict);
    remembered.notified = version;
    for (RememberedGlobal& slot : remembered.slots) {
        if (slot.value && slot.version == version) slot.value = Ref();
    }
    if (event == PyDict_EVENT_DEALLOCATED) remembered.globals = nullptr;
    return 0;
}

RememberedGlobal& slot_of(PyObject* name) noexcept {
    return remembered.slots[(reinterpret_cast<std::uintptr_t>(name) >> 4) % kRememberedSlots];
}

// Whether every key of the namespace is an exact str, so that looking a name up runs no code: a
// key of another kind with the same hash has its __eq__ called at every look-up, as Python does.
bool keys_are_plain_str(PyObject* globals, std::uint64_t version) noexcept {
    if (remembered.keys_version == version) return true;
    PyObject* key;
    PyObject* value;
    Py_ssize_t position = 0;
    while (PyDict_Next(globals, &position, &key, &value)) {
        if (!PyUnicode_CheckExact(key)) return false;
    }
    remembered.keys_version = version;
    return true;
}

// Watches `globals` with the module's watcher (made on first use, and again if other code has
// cleared it); false when it cannot be watched.
bool watch(PyObject* globals) noexcept {
    if (remembered.watcher >= 0 && watched_by(globals, remembered.watcher)) return true;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (remembered.watcher == kNoWatcherYet) {
            remembered.watcher = PyDict_AddWatcher(on_namespace_change);
            if (remembered.watcher < 0) {
                PyErr_Clear();
                remembered.watcher = kNoWatcher;
            }
        }
        if (remembered.watcher == kNoWatcher) return false;
        if (PyDict_Watch(remembered.watcher, globals) == 0) return true;
        // The watcher was cleared by other code: make a new one.
        PyErr_Clear();
        remembered.watcher = kNoWatcherYet;
    }
    return false;
}
#endif

}  // namespace

PyObject* remembered_global([[maybe_unused]] PyObject* globals,
                            [[maybe_unused]] PyObject* name) noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    if (globals != remembered.globals) return nullptr;
    const RememberedGlobal& slot = slot_of(name);
    if (slot.name != name || !slot.value || slot.version != version_of(globals)) return nullptr;
    return slot.value.get();
#else
    return nullptr;
#endif
}

void remember_global([[maybe_unused]] PyObject* globals, [[maybe_unused]] PyObject* name,
                     [[maybe_unused]] PyObject* value) {
#if PY_VERSION_HEX >= 0x030C0000
    // Nothing may run between the caller's look-up and the storing of the value: the values given
    // back here, whose release may run code, are dropped at the end.
    const std::uint64_t found_under = version_of(globals);
    Ref dropped[kRememberedSlots + 1];
    std::size_t dropped_count = 0;
    if (globals != remembered.globals) {
        for (RememberedGlobal& slot : remembered.slots)
            dropped[dropped_count++] = std::move(slot.value);
        if (remembered.globals != nullptr && remembered.watcher >= 0 &&
            PyDict_Unwatch(remembered.watcher, remembered.globals) < 0) {
            PyErr_Clear();
        }
        remembered.globals = nullptr;
        remembered.keys_version = 0;
    } else {
        for (RememberedGlobal& slot : remembered.slots) {
            if (slot.value && slot.version != found_under) {
                dropped[dropped_count++] = std::move(slot.value);
            }
        }
        // A change announced and not yet made: the value found may be about to go.
        if (remembered.notified == found_under) return;
    }
    if (!keys_are_plain_str(globals, found_under) || !watch(globals)) return;
    if (remembered.globals != globals) {
        remembered.globals = globals;
        remembered.notified = 0;
    }
    // Watching sets a bit of the tag and changes nothing else: the value is still the one found.
    RememberedGlobal& slot = slot_of(name);
    dropped[dropped_count++] = std::move(slot.value);
    slot.name = name;
    slot.value = Ref::borrow(value);
    slot.version = version_of(globals);
#endif
}

bool enter_recursive_call([[maybe_unused]] CallLevel& level) noexcept {
    if (stack_nearly_exhausted(this_thread_calls())) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
#if PY_VERSION_HEX >= 0x030C0000  // a count for Python calls and one for C calls
    PyThreadState* thread = PyThreadState_Get();
    if (thread->py_recursion_remaining <= 0 || thread->c_recursion_remaining <= 0) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
    --thread->py_recursion_remaining;
    --thread->c_recursion_remaining;
    level.thread = thread;
#elif PY_VERSION_HEX >= 0x030B0000  // one count, read directly; can go once 3.12 is the oldest
    PyThreadState* thread = PyThreadState_Get();
    if (thread->recursion_remaining <= 0) [[unlikely]] {
        PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", kWhere);
        return false;
    }
    --thread->recursion_remaining;
    level.thread = thread;
#else  // 3.9 and 3.10 count through the call; can go once 3.11 is the oldest supported
    if (Py_EnterRecursiveCall(kWhere) != 0) return false;
#endif
    return true;
}

void leave_recursive_call([[maybe_unused]] const CallLevel& level) noexcept {
    if (thread_ends_at_finalisation()) [[unlikely]]
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
#if PY_VERSION_HEX >= 0x030A0000  // the guard can go once 3.10 is the oldest supported
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) return;
    Ref error = Ref::steal_or_null(PyErr_GetRaisedException());
    if (PyErr_GivenExceptionMatches(error.get(), PyExc_AttributeError)) {
        const auto* fields = reinterpret_cast<const PyAttributeErrorObject*>(error.get());
        const bool known = fields->name != nullptr || fields->obj != nullptr;
        if (!known && (PyObject_SetAttrString(error.get(), "name", name) < 0 ||
                       PyObject_SetAttrString(error.get(), "obj", object) < 0)) {
            return;  // that failure's error is the one raised now, as in the interpreter
        }
    }
    PyErr_SetRaisedException(error.release());
#endif
}

PendingError::PendingError() noexcept {
#if PY_VERSION_HEX >= 0x030C0000  // the three parts can go once 3.12 is the oldest supported
    value_ = PyErr_GetRaisedException();
#else
    PyErr_Fetch(&type_, &value_, &traceback_);
#endif
}

PendingError::~PendingError() noexcept(false) {
    if (thread_ends_at_finalisation()) [[unlikely]]
        return;
#if PY_VERSION_HEX >= 0x030C0000
    PyErr_SetRaisedException(value_);
#else
    PyErr_Restore(type_, value_, traceback_);
#endif
}

#if PY_VERSION_HEX < 0x030C0000  // the stand-ins of py_compat.hpp
PyObject* PyErr_GetRaisedException() noexcept {
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    if (type == nullptr) return nullptr;
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref owned_type = Ref::steal_or_null(type);
    Ref owned_traceback = Ref::steal_or_null(traceback);
    if (owned_traceback) PyException_SetTraceback(value, traceback);
    return value;
}

void PyErr_SetRaisedException(PyObject* exception) noexcept {
    if (exception == nullptr) {
        PyErr_Restore(nullptr, nullptr, nullptr);
        return;
    }
    PyErr_Restore(PyObject_Type(exception), exception, PyException_GetTraceback(exception));
}
#endif

}  // namespace py::compat
