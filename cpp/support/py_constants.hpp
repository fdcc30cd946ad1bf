// Python objects the extension uses again and again: interned names (attributes, keys, module
// names), fixed strings, numbers, and tuples of keyword names for calls. Each is declared once as a
// static object; all are made together when the module executes and kept for the life of the
// process, so no call ever builds one of them again.
#pragma once

#include <initializer_list>
#include <vector>

#include "support/py_operations.hpp"

namespace py {

class Constant {
  public:
    Constant(const Constant&) = delete;
    Constant& operator=(const Constant&) = delete;

    PyObject* get() const noexcept { return object_; }
    operator Handle() const noexcept { return object_; }  // NOLINT: implicit by design

    // Makes every constant declared anywhere in the extension; throws `Error` on failure.
    static void make_all();

  protected:
    Constant() noexcept : next_(head_) { head_ = this; }
    ~Constant() = default;
    virtual Ref make() const = 0;

  private:
    PyObject* object_ = nullptr;
    Constant* next_;
    static inline constinit Constant* head_ = nullptr;
};

// An interned str.
class Str final : public Constant {
  public:
    explicit Str(const char* text) noexcept : text_(text) {}
    const char* text() const noexcept { return text_; }

  private:
    Ref make() const override { return Ref::steal(PyUnicode_InternFromString(text_)); }
    const char* text_;
};

// object.name and object.name = value for the module's own names, which are interned str: the
// type's slot is called as the interpreter would call it, without the checks of a name of
// unknown kind.
inline Ref getattr(Handle object, const Str& name) {
    PyObject* target = object.get();
    if (getattrofunc slot = Py_TYPE(target)->tp_getattro) {
        return getattr_through_slot(slot, target, name.get());
    }
    return getattr(object, Handle(name));
}
inline void setattr(Handle object, const Str& name, Handle value) {
    PyObject* target = object.get();
    if (setattrofunc slot = Py_TYPE(target)->tp_setattro) {
        check_status(slot(target, name.get(), value.get()));
        return;
    }
    setattr(object, Handle(name), value);
}

// An int.
class Int final : public Constant {
  public:
    explicit Int(long value) noexcept : value_(value) {}

  private:
    Ref make() const override { return integer(value_); }
    long value_;
};

// A tuple of interned str: the keyword names of a vectorcall.
class KeywordNames final : public Constant {
  public:
    KeywordNames(std::initializer_list<const char*> names) : names_(names) {}

  private:
    Ref make() const override;
    std::vector<const char*> names_;  // string literals, so the pointers stay valid
};

inline void Constant::make_all() {
    for (Constant* constant = head_; constant != nullptr; constant = constant->next_) {
        // Constants live as long as the process: the reference is never given back.
        if (constant->object_ == nullptr) constant->object_ = constant->make().release();
    }
}

inline Ref KeywordNames::make() const {
    std::vector<Ref> names;
    for (const char* name : names_) names.push_back(Ref::steal(PyUnicode_InternFromString(name)));
    return tuple_from(names);
}

}  // namespace py
