// A generator type for the module's generator methods. The body is a C++20 coroutine of type
// `Coroutine` that yields with `co_yield`; the generator object around it speaks the whole
// Python generator protocol (next, send, throw, close), passes
// isinstance(g, collections.abc.Generator), and runs nothing before the first next().
#pragma once

#include <coroutine>
#include <utility>

#include "support/py_function.hpp"

namespace py {

// The return type of a generator body. `co_yield value` hands `value` (a Ref) to the caller of
// next() or send() and evaluates to what the next send() passes in (None for next()); an
// exception thrown into the generator is raised from the co_yield as `Error`.
class Coroutine {
  public:
    struct promise_type;
    using Handle = std::coroutine_handle<promise_type>;

    struct YieldPoint {
        promise_type& promise;
        bool await_ready() const noexcept { return false; }
        void await_suspend(Handle) const noexcept {}
        Ref await_resume() const {
            if (std::exchange(promise.throw_on_resume, false)) throw Error{};
            return std::move(promise.sent);
        }
    };

    struct promise_type {
        Ref yielded;                   // what the last co_yield handed out
        Ref sent;                      // what the resumption passed in
        bool throw_on_resume = false;  // the Python error set by throw() is raised at co_yield
        bool failed = false;           // the body ended with the Python error set

        Coroutine get_return_object() { return Coroutine(Handle::from_promise(*this)); }
        // One frame per generator, most of them short-lived: a few freed frames are kept for the
        // next generators (both called with the interpreter lock held).
        static void* operator new(std::size_t size) noexcept;
        static void operator delete(void* frame, std::size_t size) noexcept;
        static Coroutine get_return_object_on_allocation_failure() noexcept {
            return Coroutine(Handle{});
        }
        std::suspend_always initial_suspend() const noexcept { return {}; }
        std::suspend_always final_suspend() const noexcept { return {}; }
        void return_void() const noexcept {}
        void unhandled_exception();
        YieldPoint yield_value(Ref value) noexcept {
            yielded = std::move(value);
            return YieldPoint{*this};
        }
    };

    Coroutine(Coroutine&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
    Coroutine(const Coroutine&) = delete;
    Coroutine& operator=(const Coroutine&) = delete;
    ~Coroutine() {
        if (handle_) handle_.destroy();
    }

    // Gives the coroutine frame to its new owner, the generator object.
    Handle release() noexcept { return std::exchange(handle_, {}); }

  private:
    explicit Coroutine(Handle handle) noexcept : handle_(handle) {}
    Handle handle_;
};

// An object that a generator body keeps across a co_yield. It is listed with its generator, so the
// cyclic collector sees it (tp_traverse) and can release it (tp_clear, which destroys the body).
// A body keeps every object that lives across a co_yield in a Held, never in a plain Ref; the
// objects a body uses only between two co_yields may stay plain Refs.
class Held {
  public:
    explicit Held(const Call& call, Ref value = Ref()) noexcept
        : list_(call.held), next_(*call.held), value_(std::move(value)) {
        *list_ = this;
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() noexcept(false) {
        // Locals go in the reverse order of their making, so this is normally the list's head.
        Held** link = list_;
        while (*link != this) link = &(*link)->next_;
        *link = next_;
    }

    Held& operator=(Ref value) {
        value_ = std::move(value);
        return *this;
    }

    PyObject* get() const noexcept { return value_.get(); }
    operator Handle() const noexcept { return value_.get(); }  // NOLINT: implicit by design
    explicit operator bool() const noexcept { return static_cast<bool>(value_); }
    bool is_none() const noexcept { return value_.is_none(); }

    // Visits every object held for the body whose list starts at `first`.
    static int traverse(const Held* first, visitproc visit, void* arg) {
        for (const Held* held = first; held != nullptr; held = held->next_) {
            Py_VISIT(held->value_.get());
        }
        return 0;
    }

  private:
    Held** list_;
    Held* next_;
    Ref value_;
};

// The body of a generator method: it receives the call of the method, whose arguments the
// generator object keeps alive for as long as the body can run.
using GeneratorBody = Coroutine (*)(const Call&);

// Makes the generator type ready and registers it as a collections.abc.Generator; called once
// when the module executes.
void ready_generator_type();

// A new, not yet started generator that will run `body` with the arguments of `call`; its
// __name__ and __qualname__ are those of the called function.
Ref make_generator(const Call& call, std::size_t argument_count, GeneratorBody body);

}  // namespace py
