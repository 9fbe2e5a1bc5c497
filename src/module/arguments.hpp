// A call's arguments, bound to the parameters of what it calls.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <tuple>

#include "module/module.hpp"
#include "module/python.hpp"

namespace health {

// A function's parameters, those taken by name only last.
template <std::size_t Size>
struct Signature {
    const char* function;
    std::array<Name, Size> parameters;
    std::size_t positional = Size;      // how many may be given by position
    std::size_t required = positional;  // how many of those have no default; by-name ones never do

    // As the interpreter's own parser takes it.
    std::string format() const {
        std::string format;
        for (std::size_t i = 0; i < Size; ++i) {
            format += i == positional ? "$O" : i == required ? "|O" : "O";
        }
        return format + ':' + function;
    }
};

// The argument of each parameter, null for one that was left out and has a default, as the
// interpreter's own parser finds them, which raises its own errors.
template <std::size_t Size>
auto parse(const Signature<Size>& signature, PyObject* args, PyObject* kwargs) {
    std::array<char*, Size + 1> names{};
    std::transform(signature.parameters.begin(), signature.parameters.end(), names.begin(),
                   [](Name name) { return const_cast<char*>(text(name)); });
    std::array<PyObject*, Size> bound{};
    const auto parse_into = [&](auto&... places) {
        return PyArg_ParseTupleAndKeywords(args, kwargs, signature.format().c_str(), names.data(),
                                           &places...);
    };
    if (std::apply(parse_into, bound) == 0) {
        throw PythonError();
    }
    return bound;
}

// The same of a call as the vectorcall protocol hands it over.
template <std::size_t Size>
[[gnu::noinline]] auto parse(const Signature<Size>& signature, PyObject* const* given,
                             std::size_t positional, std::size_t named, PyObject* keywords) {
    const auto args = owned(PyTuple_New(static_cast<Py_ssize_t>(positional)));
    for (std::size_t i = 0; i < positional; ++i) {
        PyTuple_SET_ITEM(args.get(), i, Py_NewRef(given[i]));
    }
    const auto kwargs = owned(PyDict_New());
    for (std::size_t i = 0; i < named; ++i) {
        checked(PyDict_SetItem(kwargs, PyTuple_GET_ITEM(keywords, i), given[positional + i]));
    }
    return parse(signature, args, kwargs);
}

// The same once more; the references are the call's. Nearly all calls give every argument, the
// names interned; the interpreter's parser is too slow for these.
template <const auto& kSignature>
auto bind(const Names& names, PyObject* const* given, std::size_t positional, PyObject* keywords) {
    constexpr auto kSize = kSignature.parameters.size();
    const auto named =
        keywords == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(keywords));
    if (positional > kSignature.positional || positional + named != kSize) {
        return parse(kSignature, given, positional, named, keywords);
    }
    std::array<PyObject*, kSize> bound{};
    // One by one: they were stored so just before, and a wider read would have to wait for that.
    for (std::size_t i = 0; i < kSize; ++i) {
        bound[i] = *static_cast<PyObject* const volatile*>(given + i);
    }
    for (std::size_t i = 0; i < named; ++i) {
        auto place = positional;
        while (names[kSignature.parameters[place]] != PyTuple_GET_ITEM(keywords, i)) {
            if (++place == kSize) {
                return parse(kSignature, given, positional, named, keywords);
            }
        }
        bound[place] = given[positional + i];
    }
    return bound;
}

// Raises the TypeError of an argument that is not what it must be.
template <std::size_t Size>
[[noreturn]] void raise_wrong_type(const Signature<Size>& signature, Name parameter,
                                   const char* expected, PyObject* given) {
    raise(PyExc_TypeError, "%s() argument '%s' must be %s, not %.200s", signature.function,
          text(parameter), expected, given == Py_None ? "None" : Py_TYPE(given)->tp_name);
}

template <std::size_t Size>
PyObject* text_argument(const Signature<Size>& signature, Name parameter, PyObject* argument) {
    if (!PyUnicode_Check(argument)) {
        raise_wrong_type(signature, parameter, "str", argument);
    }
    return argument;
}

}  // namespace health
