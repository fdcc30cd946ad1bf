// Owned and borrowed references to Python objects: `Ref` owns one reference, `Handle` borrows one.
// The Python operations built on them are in py_operations.hpp.
//
// Rules of ownership, which every file of the extension keeps:
//
// 1. Every reference has one owner. A new reference from the C API goes straight into a `Ref`
//    (`Ref::steal`); a `Ref` is the only thing that increments or decrements a reference count, and
//    `release()` hands its reference on only where the interpreter takes it over (an entry point's
//    result, a stealing setter such as PyTuple_SET_ITEM). A function that only reads an object
//    takes a `Handle`.
//
// 2. A borrowed pointer is owned before any code that could run Python runs. Whatever calls into
//    Python (a call, an attribute access, a comparison, a dict look-up with keys other than exact
//    str, the release of another reference, whose finaliser may run) can drop the last reference
//    that made a borrowed object live. So an item read from a list, a dict or a tuple, or an object
//    found through a slot, is taken with `Ref::borrow` first, and only then used.
//
// 3. Nothing is cached across calls unless the interpreter documents how the cache is invalidated,
//    and what is cached is held. Slots, attributes and module-level names are looked up afresh at
//    every call; the one exception, the module-level names remembered from 3.12 on, follows the
//    namespace's version tag and a dict watcher, and each remembered value is a `Ref`. The
//    constants of py_constants.hpp are made once and never change; numpy's array type, once seen,
//    is a static type that lives as long as the process.
//
// 4. Everything a generator body holds is visible to tp_traverse. An object that lives across a
//    co_yield is kept in a `Held` (py_generator.hpp), never in a plain `Ref`, so that the cyclic
//    collector sees it and can break a cycle through it.
//
// 5. Calls between the module's own methods count against the recursion limit: every entry point
//    that can run a body takes a `RecursionLevel` (py_error.hpp), as a Python call takes a frame.
//
// 6. No destructor touches Python without the interpreter lock, or blocks forced unwinding. A
//    thread ended at finalisation unwinds through the module without the lock: its references are
//    left to the dying process (`release_reference`). Destructors that give references back are
//    noexcept(false), so that such unwinding passes through them, and nothing catches everything.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

#include "support/py_compat.hpp"
#include "support/py_error.hpp"

namespace py {

class Ref;

// Gives back one reference. At finalisation the interpreter ends threads that wait for its lock
// with pthread_exit(), whose unwinding runs the destructors of every frame in the module without
// the lock: such a thread leaves its references to the dying process instead. Not noexcept, nor is
// anything that gives a reference back: the release may run a finaliser, whose thread may be ended
// there, and that unwinding must pass through.
inline void release_reference(PyObject* object) {
    if (object == nullptr) return;
    if (compat::thread_ends_at_finalisation()) [[unlikely]]
        return;
    Py_DECREF(object);
}

// A borrowed reference: valid only while its owner keeps the object alive. Never null when it
// comes from an API result; may be null only where a signature says so.
class Handle {
  public:
    Handle(PyObject* object) noexcept : object_(object) {}  // NOLINT: implicit by design
    Handle(const Ref& ref) noexcept;                        // NOLINT: implicit by design

    PyObject* get() const noexcept { return object_; }
    bool is_none() const noexcept { return object_ == Py_None; }
    bool is(Handle other) const noexcept { return object_ == other.object_; }

  private:
    PyObject* object_;
};

// An owned reference: the only place in the extension that increments and decrements reference
// counts. Empty (null) only when default-constructed, moved from, or returned by `next` at the
// end of an iteration.
class Ref {
  public:
    Ref() noexcept = default;
    Ref(const Ref& other) noexcept : object_(other.object_) { Py_XINCREF(object_); }
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    ~Ref() noexcept(false) { release_reference(object_); }

    Ref& operator=(Ref other) {
        std::swap(object_, other.object_);
        return *this;
    }

    // Takes over a new reference from an API call; a NULL result throws `Error`.
    static Ref steal(PyObject* object) { return Ref(check(object)); }
    // Takes over a new reference that may be NULL without an error (for example a lookup miss).
    static Ref steal_or_null(PyObject* object) noexcept { return Ref(object); }
    // Takes a new reference to a borrowed object.
    static Ref borrow(Handle object) noexcept {
        Py_XINCREF(object.get());
        return Ref(object.get());
    }

    static Ref none() noexcept { return borrow(Py_None); }
    static Ref boolean(bool value) noexcept { return borrow(value ? Py_True : Py_False); }

    PyObject* get() const noexcept { return object_; }
    // Hands the reference to the caller (an entry point returning it to the interpreter).
    PyObject* release() noexcept { return std::exchange(object_, nullptr); }

    explicit operator bool() const noexcept { return object_ != nullptr; }
    bool is_none() const noexcept { return object_ == Py_None; }
    bool is(Handle other) const noexcept { return object_ == other.get(); }

  private:
    explicit Ref(PyObject* object) noexcept : object_(object) {}
    PyObject* object_ = nullptr;
};

inline Handle::Handle(const Ref& ref) noexcept : object_(ref.get()) {}

}  // namespace py
