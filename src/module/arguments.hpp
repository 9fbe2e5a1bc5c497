// How the interpreter's calls reach the operations: their parameters, and the entries of its tables
// of methods and properties.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

#include "module/module.hpp"
#include "module/python.hpp"

namespace health {

// A call as the vectorcall protocol hands it over.
struct Call {
    PyObject* const* arguments;
    std::size_t positional;
    PyObject* keywords;  // a tuple of names, or null
};

// A function's parameters, those taken by name only last.
template <std::size_t Size>
class Signature {
public:
    // The first `positional` of them may be given by position; all must be given, but for those
    // after `required` of these.
    Signature(const char* function, std::array<Name, Size> parameters,
              std::size_t positional = Size, std::size_t required = Size)
        : parameters_(parameters),
          positional_(positional),
          required_(std::min(required, positional)) {
        std::transform(parameters.begin(), parameters.end(), keywords_.begin(), text);
        parser_.keywords = keywords_.data();
        parser_.fname = function;
    }

    using Arguments = std::array<PyObject*, Size>;

    // The argument of each parameter; null for one that was left out and has a default. The
    // references are the call's.
    Arguments bind(const Names& names, const Call& call) {
        if (!is_in_order(names, call)) {
            return bind(call.arguments, call.positional, nullptr, call.keywords);
        }
        Arguments bound{};
        std::copy_n(call.arguments, Size, bound.begin());
        return bound;
    }
    Arguments bind(PyObject* tuple, PyObject* dict) {
        return bind(&PyTuple_GET_ITEM(tuple, 0), static_cast<std::size_t>(PyTuple_GET_SIZE(tuple)),
                    dict, nullptr);
    }

    // Raises the TypeError of an argument that is not what it must be.
    [[noreturn]] void raise_wrong_type(Name parameter, const char* expected,
                                       PyObject* given) const {
        raise(PyExc_TypeError, "%s() argument '%s' must be %s, not %.200s", parser_.fname,
              text(parameter), expected, given == Py_None ? "None" : Py_TYPE(given)->tp_name);
    }

private:
    // Whether a call gives every argument where its parameter stands, as nearly all calls do.
    // Names in a call are nearly always interned.
    bool is_in_order(const Names& names, const Call& call) const {
        const auto named = call.keywords == nullptr
                               ? 0
                               : static_cast<std::size_t>(PyTuple_GET_SIZE(call.keywords));
        if (call.positional > positional_ || call.positional + named != Size) {
            return false;
        }
        for (std::size_t i = 0; i < named; ++i) {
            if (PyTuple_GET_ITEM(call.keywords, i) != names[parameters_[call.positional + i]]) {
                return false;
            }
        }
        return true;
    }

    Arguments bind(PyObject* const* arguments, std::size_t positional, PyObject* dict,
                   PyObject* keywords) {
        Arguments bound{};
        const auto* found = _PyArg_UnpackKeywords(
            arguments, static_cast<Py_ssize_t>(positional), dict, keywords, &parser_,
            static_cast<int>(required_), static_cast<int>(positional_),
            static_cast<int>(Size - positional_), bound.data());
        if (found == nullptr) {
            throw PythonError();
        }
        if (found == arguments) {  // all that were given stand in their places
            std::copy_n(arguments, positional, bound.begin());
        }
        return bound;
    }

    std::array<Name, Size> parameters_;
    std::size_t positional_;
    std::size_t required_;
    std::array<const char*, Size + 1> keywords_{};  // a null pointer last
    _PyArg_Parser parser_{};
};

// The owner of an operation, behind the Python object that it is called on.
template <class Owner>
Owner& owner_of(PyObject* self);

template <>
inline const ModuleState& owner_of(PyObject* self) {
    return state_of(self);
}

// An operation's entry in the interpreter's table: Ref operation(Owner&, const Call&), or without
// the call for an operation without arguments.
template <auto Operation>
struct Method;

template <class Owner, Ref (*Operation)(Owner&, const Call&)>
struct Method<Operation> {
    static constexpr int kFlags = METH_FASTCALL | METH_KEYWORDS;

    static PyObject* call(PyObject* self, PyObject* const* arguments, Py_ssize_t positional,
                          PyObject* keywords) {
        return guarded([&] {
            return Operation(owner_of<Owner>(self),
                             {arguments, static_cast<std::size_t>(positional), keywords});
        });
    }
};

template <class Owner, Ref (*Operation)(Owner&)>
struct Method<Operation> {
    static constexpr int kFlags = METH_NOARGS;

    static PyObject* call(PyObject* self, PyObject* /*none*/) {
        return guarded([&] { return Operation(owner_of<Owner>(self)); });
    }
};

template <auto Operation>
PyMethodDef method(const char* name, const char* doc) {
    auto* function = reinterpret_cast<void (*)()>(Method<Operation>::call);
    return {name, reinterpret_cast<PyCFunction>(function), Method<Operation>::kFlags, doc};
}

template <auto Get>
PyGetSetDef property(const char* name, const char* doc) {
    const getter get = [](PyObject* self, void* /*closure*/) {
        return Method<Get>::call(self, nullptr);
    };
    return {name, get, nullptr, doc, nullptr};
}

}  // namespace health
