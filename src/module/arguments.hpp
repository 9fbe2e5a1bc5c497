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
struct Signature {
    const char* function;
    std::array<Name, Size> parameters;
    std::size_t positional = Size;      // how many may be given by position
    std::size_t required = positional;  // how many of these have no default; the others never have
};

template <std::size_t Size>
using Arguments = std::array<PyObject*, Size>;

// Whether a call gives every argument where its parameter stands, as nearly all calls do. Names in
// a call are nearly always interned.
template <std::size_t Size>
bool is_in_order(const Signature<Size>& signature, const Names& names, const Call& call) {
    const auto named =
        call.keywords == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(call.keywords));
    if (call.positional > signature.positional || call.positional + named != Size) {
        return false;
    }
    for (std::size_t i = 0; i < named; ++i) {
        if (PyTuple_GET_ITEM(call.keywords, i) !=
            names[signature.parameters[call.positional + i]]) {
            return false;
        }
    }
    return true;
}

template <std::size_t Size>
constexpr auto keyword_texts(const Signature<Size>& signature) {
    std::array<const char*, Size + 1> texts{};  // a null pointer last
    std::transform(signature.parameters.begin(), signature.parameters.end(), texts.begin(), text);
    return texts;
}

// Binds any other call, its named arguments in a dict or, with their names in a tuple, after the
// others.
template <const auto& kSignature>
auto bind_otherwise(PyObject* const* arguments, std::size_t positional, PyObject* dict,
                    PyObject* keywords) {
    constexpr auto kSize = kSignature.parameters.size();
    static constexpr auto kKeywords = keyword_texts(kSignature);
    static _PyArg_Parser parser{nullptr, kKeywords.data(), kSignature.function, nullptr, 0, 0, 0,
                                nullptr, nullptr};
    Arguments<kSize> bound{};
    const auto* found = _PyArg_UnpackKeywords(
        arguments, static_cast<Py_ssize_t>(positional), dict, keywords, &parser,
        static_cast<int>(kSignature.required), static_cast<int>(kSignature.positional),
        static_cast<int>(kSize - kSignature.positional), bound.data());
    if (found == nullptr) {
        throw PythonError();
    }
    if (found == arguments) {  // all that were given stand in their places
        std::copy_n(arguments, positional, bound.begin());
    }
    return bound;
}

// The argument of each parameter; null for one that was left out and has a default. The
// references are the call's.
template <const auto& kSignature>
auto bind(const Names& names, const Call& call) {
    constexpr auto kSize = kSignature.parameters.size();
    if (!is_in_order(kSignature, names, call)) {
        return bind_otherwise<kSignature>(call.arguments, call.positional, nullptr, call.keywords);
    }
    Arguments<kSize> bound{};
    std::copy_n(call.arguments, kSize, bound.begin());
    return bound;
}

// Raises the TypeError of an argument that is not what it must be.
template <std::size_t Size>
[[noreturn]] void raise_wrong_type(const Signature<Size>& signature, Name parameter,
                                   const char* expected, PyObject* given) {
    raise(PyExc_TypeError, "%s() argument '%s' must be %s, not %.200s", signature.function,
          text(parameter), expected, given == Py_None ? "None" : Py_TYPE(given)->tp_name);
}

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
