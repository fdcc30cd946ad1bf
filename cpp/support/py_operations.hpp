// The Python operations the extension is written in, on the reference types of py_ref.hpp: making
// objects, attribute and item access, truth and comparison, arithmetic, calls and iteration. Each
// does what the matching Python expression does, with the interpreter's messages, and throws
// `Error` when it fails; fast paths for exact built-in types read the objects directly where that
// gives the same result.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <utility>
#include <vector>

#include "support/py_compat.hpp"
#include "support/py_error.hpp"
#include "support/py_ref.hpp"

namespace py {

// ---- objects ------------------------------------------------------------------------------

inline Ref str(const char* text) {
    return Ref::steal(PyUnicode_FromString(text));
}
// A name: interned, as the compiler interns the names of Python code, so that dict look-ups by
// name find it by identity.
inline Ref interned(const char* text) {
    return Ref::steal(PyUnicode_InternFromString(text));
}
inline Ref integer(long value) {
    return Ref::steal(PyLong_FromLong(value));
}
inline Ref size(Py_ssize_t value) {
    return Ref::steal(PyLong_FromSsize_t(value));
}

template <class... Items>
Ref tuple(Items&&... items) {
    Ref result = Ref::steal(PyTuple_New(sizeof...(Items)));
    Py_ssize_t position = 0;
    // PyTuple_SET_ITEM steals: hand it a reference of its own for each item.
    ((PyTuple_SET_ITEM(result.get(), position++, Ref::borrow(Handle(items)).release())), ...);
    return result;
}

inline Ref tuple_from(const std::vector<Ref>& items) {
    Ref result = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(items.size())));
    for (std::size_t i = 0; i < items.size(); ++i) {
        PyTuple_SET_ITEM(result.get(), static_cast<Py_ssize_t>(i), Ref(items[i]).release());
    }
    return result;
}

// A tuple, or a subclass that keeps tuple's own iteration and length (a named record): walking
// it, or asking its length, gives exactly its items and their count, so both can be read directly.
inline bool iterates_as_tuple(PyObject* object) noexcept {
    return PyTuple_Check(object) && Py_TYPE(object)->tp_iter == PyTuple_Type.tp_iter &&
           Py_TYPE(object)->tp_as_sequence->sq_length == PyTuple_Type.tp_as_sequence->sq_length;
}

// The tuple of an iterable: an exact tuple as it is, anything else walked into a new one (a named
// record's items copied directly).
inline Ref as_tuple(Handle iterable) {
    PyObject* object = iterable.get();
    if (!PyTuple_CheckExact(object) && iterates_as_tuple(object)) {
        return Ref::steal(PyTuple_GetSlice(object, 0, PyTuple_GET_SIZE(object)));
    }
    return Ref::steal(PySequence_Tuple(object));
}

// Gathers the items of a tuple whose length is known only at the end: the first few in place,
// any further ones in a list.
class TupleBuilder {
  public:
    void append(Ref item) {
        if (count_ < kInPlace) {
            in_place_[count_++] = std::move(item);
            return;
        }
        if (!overflow_) overflow_ = Ref::steal(PyList_New(0));
        check_status(PyList_Append(overflow_.get(), item.get()));
    }

    Ref build() {
        const Py_ssize_t extra = overflow_ ? PyList_GET_SIZE(overflow_.get()) : 0;
        Ref result = Ref::steal(PyTuple_New(count_ + extra));
        for (Py_ssize_t i = 0; i < count_; ++i) {
            PyTuple_SET_ITEM(result.get(), i, in_place_[i].release());
        }
        for (Py_ssize_t i = 0; i < extra; ++i) {
            PyTuple_SET_ITEM(result.get(), count_ + i,
                             Ref::borrow(PyList_GET_ITEM(overflow_.get(), i)).release());
        }
        count_ = 0;
        overflow_ = Ref();
        return result;
    }

  private:
    static constexpr Py_ssize_t kInPlace = 8;  // a Dataset has 6 fields
    std::array<Ref, kInPlace> in_place_;
    Py_ssize_t count_ = 0;
    Ref overflow_;
};

inline Ref new_list() {
    return Ref::steal(PyList_New(0));
}
// [items...], made at its size as a list display is.
template <class... Items>
Ref list(Items&&... items) {
    Ref result = Ref::steal(PyList_New(sizeof...(Items)));
    Py_ssize_t position = 0;
    // PyList_SET_ITEM steals: hand it a reference of its own for each item.
    ((PyList_SET_ITEM(result.get(), position++, Ref::borrow(Handle(items)).release())), ...);
    return result;
}
inline void append(Handle list, Handle item) {
    check_status(PyList_Append(list.get(), item.get()));
}
inline Ref new_dict() {
    return Ref::steal(PyDict_New());
}
inline void set_item(Handle mapping, Handle key, Handle value) {
    check_status(PyObject_SetItem(mapping.get(), key.get(), value.get()));
}

// The setter of a str attribute such as __name__: refuses anything but a str with `message`.
inline int assign_str(Ref& field, PyObject* value, const char* message) {
    if (value == nullptr || !PyUnicode_Check(value)) {
        PyErr_SetString(PyExc_TypeError, message);
        return -1;
    }
    field = Ref::borrow(value);
    return 0;
}

// ---- attributes and items -----------------------------------------------------------------

// object.name through the type's slot, as PyObject_GetAttr reads a str name, without its checks.
inline Ref getattr_through_slot(getattrofunc slot, PyObject* object, PyObject* name) {
    PyObject* value = slot(object, name);
    if (value == nullptr) [[unlikely]] {
        compat::add_attribute_error_context(object, name);
        throw Error{};
    }
    return Ref::steal(value);
}
inline Ref getattr(Handle object, Handle name) {
    PyObject* target = object.get();
    getattrofunc slot = Py_TYPE(target)->tp_getattro;
    if (slot != nullptr && PyUnicode_CheckExact(name.get())) [[likely]] {
        return getattr_through_slot(slot, target, name.get());
    }
    return Ref::steal(PyObject_GetAttr(target, name.get()));
}
inline void setattr(Handle object, Handle name, Handle value) {
    // PyObject_SetAttr interns the name before it calls the type's slot; the module's names are
    // interned already, so the slot is called directly.
    PyObject* target = object.get();
    setattrofunc slot = Py_TYPE(target)->tp_setattro;
    if (slot != nullptr && PyUnicode_CheckExact(name.get()) && PyUnicode_CHECK_INTERNED(name.get()))
        [[likely]] {
        check_status(slot(target, name.get(), value.get()));
        return;
    }
    check_status(PyObject_SetAttr(target, name.get(), value.get()));
}
inline Ref item(Handle object, Handle key) {
    return Ref::steal(PyObject_GetItem(object.get(), key.get()));
}
// sequence[index] with a constant index, as Python's subscript takes it. A tuple, or a subclass
// that keeps tuple's own subscript (a named record), is read directly: for such subclasses the
// generic sequence slot would go through a Python-level __getitem__ call.
inline Ref item(Handle sequence, Py_ssize_t index) {
    PyObject* object = sequence.get();
    if (PyTuple_Check(object) &&
        Py_TYPE(object)->tp_as_mapping->mp_subscript == PyTuple_Type.tp_as_mapping->mp_subscript) {
        if (index < 0 || index >= PyTuple_GET_SIZE(object)) {
            raise(PyExc_IndexError, "tuple index out of range");
        }
        return Ref::borrow(PyTuple_GET_ITEM(object, index));
    }
    Ref key = Ref::steal(PyLong_FromSsize_t(index));
    return Ref::steal(PyObject_GetItem(object, key.get()));
}
inline Py_ssize_t length(Handle object) {
    Py_ssize_t size = PyObject_Length(object.get());
    if (size < 0) throw Error{};
    return size;
}

// The concatenation of str pieces, in one allocation, as an f-string builds its result.
inline Ref concat(std::initializer_list<Handle> pieces) {
    Py_ssize_t length = 0;
    Py_UCS4 max_char = 0;
    for (Handle piece : pieces) {
        check_status(PyUnicode_READY(piece.get()));
        length += PyUnicode_GET_LENGTH(piece.get());
        max_char = std::max(max_char, PyUnicode_MAX_CHAR_VALUE(piece.get()));
    }
    Ref result = Ref::steal(PyUnicode_New(length, max_char));
    const int kind = PyUnicode_KIND(result.get());
    Py_ssize_t position = 0;
    for (Handle piece : pieces) {
        const Py_ssize_t piece_length = PyUnicode_GET_LENGTH(piece.get());
        if (PyUnicode_KIND(piece.get()) == kind) {
            std::memcpy(static_cast<char*>(PyUnicode_DATA(result.get())) + position * kind,
                        PyUnicode_DATA(piece.get()), static_cast<std::size_t>(piece_length) * kind);
        } else {
            check_status(
                PyUnicode_CopyCharacters(result.get(), position, piece.get(), 0, piece_length));
        }
        position += piece_length;
    }
    return result;
}

// ---- truth and comparison -----------------------------------------------------------------

inline bool truth(Handle object) {
    return check_status(PyObject_IsTrue(object.get())) != 0;
}
// left <op> right between two numbers, op being one of Py_LT ... Py_GE.
constexpr bool compare_numbers(long long left, long long right, int op) noexcept {
    switch (op) {
        case Py_LT:
            return left < right;
        case Py_LE:
            return left <= right;
        case Py_EQ:
            return left == right;
        case Py_NE:
            return left != right;
        case Py_GT:
            return left > right;
        default:
            return left >= right;
    }
}

// Two exact ints that fit a long long are compared here, with the result int's own comparison
// gives; anything else compares itself.
inline Ref compare(Handle left, Handle right, int op) {
    long long left_value, right_value;
    if (compat::small_int_value(left.get(), left_value) &&
        compat::small_int_value(right.get(), right_value)) {
        return Ref::boolean(compare_numbers(left_value, right_value, op));
    }
    return Ref::steal(PyObject_RichCompare(left.get(), right.get(), op));
}
// The truth of a comparison, as an `if a == b:` takes it.
inline bool compare_truth(Handle left, Handle right, int op) {
    long long left_value, right_value;
    if (compat::small_int_value(left.get(), left_value) &&
        compat::small_int_value(right.get(), right_value)) {
        return compare_numbers(left_value, right_value, op);
    }
    return check_status(PyObject_RichCompareBool(left.get(), right.get(), op)) != 0;
}

// ---- numbers ------------------------------------------------------------------------------

inline Ref add(Handle left, Handle right) {
    return Ref::steal(PyNumber_Add(left.get(), right.get()));
}
inline Ref in_place_add(Handle left, Handle right) {
    return Ref::steal(PyNumber_InPlaceAdd(left.get(), right.get()));
}
inline Ref subtract(Handle left, Handle right) {
    return Ref::steal(PyNumber_Subtract(left.get(), right.get()));
}
inline Ref multiply(Handle left, Handle right) {
    return Ref::steal(PyNumber_Multiply(left.get(), right.get()));
}
inline Ref floor_divide(Handle left, Handle right) {
    return Ref::steal(PyNumber_FloorDivide(left.get(), right.get()));
}
inline Ref true_divide(Handle left, Handle right) {
    return Ref::steal(PyNumber_TrueDivide(left.get(), right.get()));
}
inline Ref invert(Handle operand) {
    return Ref::steal(PyNumber_Invert(operand.get()));
}

// ---- calls --------------------------------------------------------------------------------

// Calls `callable` with the arguments at stack[1:], stack[0] being a spare slot: a bound method's
// function is called with its `self` put in that slot, as the method itself would do it.
inline PyObject* vectorcall_with_spare_slot(PyObject* callable, PyObject** stack,
                                            std::size_t positional, PyObject* keyword_names) {
    if (PyMethod_Check(callable)) {  // exact: method objects cannot be subclassed
        stack[0] = PyMethod_GET_SELF(callable);
        return PyObject_Vectorcall(PyMethod_GET_FUNCTION(callable), stack, positional + 1,
                                   keyword_names);
    }
    return PyObject_Vectorcall(callable, stack + 1, positional | PY_VECTORCALL_ARGUMENTS_OFFSET,
                               keyword_names);
}

// callable(*args), through the vectorcall protocol.
template <class... Args>
Ref call(Handle callable, Args&&... args) {
    std::array<PyObject*, sizeof...(Args) + 1> stack{nullptr, Handle(args).get()...};
    return Ref::steal(
        vectorcall_with_spare_slot(callable.get(), stack.data(), sizeof...(Args), nullptr));
}

// callable(*positional, **dict(zip(keyword_names, keyword_values))); `keyword_names` is a tuple
// of str made once, the values follow the positional arguments in `args`.
template <class... Args>
Ref call_keywords(Handle callable, std::size_t positional, Handle keyword_names, Args&&... args) {
    std::array<PyObject*, sizeof...(Args) + 1> stack{nullptr, Handle(args).get()...};
    return Ref::steal(
        vectorcall_with_spare_slot(callable.get(), stack.data(), positional, keyword_names.get()));
}

// object.name(*args), looked up on the object as Python does (so overrides are honoured).
template <class... Args>
Ref call_method(Handle object, Handle name, Args&&... args) {
    std::array<PyObject*, sizeof...(Args) + 1> stack{object.get(), Handle(args).get()...};
    return Ref::steal(PyObject_VectorcallMethod(
        name.get(), stack.data(), (sizeof...(Args) + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

// object.name(*positional, **keywords), with the keyword names as a tuple made once.
template <class... Args>
Ref call_method_keywords(Handle object, Handle name, std::size_t positional, Handle keyword_names,
                         Args&&... args) {
    std::array<PyObject*, sizeof...(Args) + 1> stack{object.get(), Handle(args).get()...};
    return Ref::steal(PyObject_VectorcallMethod(name.get(), stack.data(),
                                                (positional + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                                keyword_names.get()));
}

// callable(*arguments) with the arguments in a tuple.
inline Ref call_tuple(Handle callable, Handle arguments) {
    return Ref::steal(PyObject_Call(callable.get(), arguments.get(), nullptr));
}

// ---- iteration ----------------------------------------------------------------------------

inline Ref iter(Handle iterable) {
    return Ref::steal(PyObject_GetIter(iterable.get()));
}

// The next item, or an empty Ref when the iterator is exhausted.
inline Ref next(Handle iterator) {
    PyObject* item = PyIter_Next(iterator.get());
    if (item == nullptr && PyErr_Occurred()) throw Error{};
    return Ref::steal_or_null(item);
}

// Calls `visit` with each item of `iterable` (a Ref the call owns), as a for loop walks it. An
// exact list is read by index, its length checked before each item as its iterator does, and a
// tuple, or a named record that keeps tuple's iteration, by index: no iterator is made for them.
// The caller keeps `iterable` alive meanwhile.
template <class Visit>
void for_each(Handle iterable, Visit&& visit) {
    PyObject* object = iterable.get();
    if (PyList_CheckExact(object)) {
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(object); ++i) {
            visit(Ref::borrow(PyList_GET_ITEM(object, i)));
        }
        return;
    }
    if (iterates_as_tuple(object)) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(object); ++i) {
            visit(Ref::borrow(PyTuple_GET_ITEM(object, i)));
        }
        return;
    }
    Ref iterator = iter(iterable);
    while (Ref item = next(iterator)) visit(std::move(item));
}

// How an unpacking reports too few values.
enum class TooFew {
    statement,  // as `a, b = x` does: "not enough values to unpack (expected N, got K)"
    need_more,  // "need more than K value(s) to unpack"
};

// Unpacks exactly N values from an iterable into an array, as `a, b = x` does: an object that
// cannot be iterated gives "cannot unpack non-iterable %.200s object", too many values give
// "too many values to unpack (expected N)", too few give the message that `too_few` names.
template <std::size_t N>
std::array<Ref, N> unpack(Handle iterable, TooFew too_few = TooFew::statement) {
    std::array<Ref, N> values;
    constexpr auto expected = static_cast<Py_ssize_t>(N);
    auto too_many = [] {
        raise(PyExc_ValueError, "too many values to unpack (expected %zd)", expected);
    };
    auto need_more = [too_few](Py_ssize_t got) {
        if (too_few == TooFew::need_more) {
            raise(PyExc_ValueError, "need more than %zd value%.1s to unpack", got,
                  got == 1 ? "" : "s");
        }
        raise(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)", expected,
              got);
    };
    PyObject* object = iterable.get();
    if (PyTuple_CheckExact(object) || PyList_CheckExact(object)) {
        Py_ssize_t size = PySequence_Fast_GET_SIZE(object);
        if (size > expected) too_many();
        if (size < expected) need_more(size);
        for (std::size_t i = 0; i < N; ++i) {
            values[i] = Ref::borrow(PySequence_Fast_GET_ITEM(object, i));
        }
        return values;
    }
    Ref iterator = Ref::steal_or_null(PyObject_GetIter(object));
    if (!iterator) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(object)->tp_iter == nullptr &&
            !PySequence_Check(object)) {
            raise(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                  Py_TYPE(object)->tp_name);
        }
        throw Error{};
    }
    for (std::size_t i = 0; i < N; ++i) {
        values[i] = next(iterator);
        if (!values[i]) need_more(static_cast<Py_ssize_t>(i));
    }
    if (next(iterator)) too_many();
    return values;
}

// callable(*iterable), as the interpreter evaluates it: the arguments are the items of the
// iterable (an exact tuple as it is), and an object that cannot be iterated is reported as
// "<callable>() argument after * must be an iterable, not <type>".
inline Ref call_unpacked(Handle callable, Handle iterable) {
    PyObject* object = iterable.get();
    if (!PyTuple_CheckExact(object) && Py_TYPE(object)->tp_iter == nullptr &&
        !PySequence_Check(object)) {
        Ref name = Ref::steal(compat::function_str(callable.get()));
        raise(PyExc_TypeError, "%U argument after * must be an iterable, not %.200s", name.get(),
              Py_TYPE(object)->tp_name);
    }
    return call_tuple(callable, as_tuple(iterable));
}

}  // namespace py
