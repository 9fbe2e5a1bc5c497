// A call's arguments, bound to the parameters of what it calls.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

#include "module/module.hpp"
#include "module/python.hpp"

namespace health {

// A function's parameters, those taken by name only last.
template <std::size_t Size>
struct Signature {
    const char* function;
    std::array<Name, Size> parameters;
    std::size_t positional = Size;      // how many may be given by position
    std::size_t required = positional;  // how many of these have no default; the others never have

    constexpr bool needs(std::size_t place) const {
        return place < required || place >= positional;
    }
};

// The place of the parameter with that name, Size for none.
template <std::size_t Size>
std::size_t place_of(const Signature<Size>& signature, const Names& names, PyObject* keyword) {
    std::size_t place = 0;
    while (place < Size && PyUnicode_Compare(names[signature.parameters[place]], keyword) != 0) {
        ++place;
    }
    return place;
}

// Raises the TypeError of too many arguments.
template <std::size_t Size>
void check_number(const Signature<Size>& signature, std::size_t positional, std::size_t named) {
    const auto plural = [](std::size_t number) { return number == 1 ? "" : "s"; };
    if (positional + named > Size) {
        raise(PyExc_TypeError, "%s() takes at most %zu %sargument%s (%zu given)",
              signature.function, Size, positional == 0 ? "keyword " : "", plural(Size),
              positional + named);
    }
    if (positional > signature.positional) {
        raise(PyExc_TypeError, "%s() takes exactly %zu positional argument%s (%zu given)",
              signature.function, signature.positional, plural(signature.positional), positional);
    }
}

// Raises the TypeError of a name that is no parameter's, or one's that has its argument already.
template <std::size_t Size>
[[noreturn]] void raise_odd_name(const Signature<Size>& signature, std::size_t place,
                                 PyObject* keyword) {
    if (place == Size) {
        raise(PyExc_TypeError, "'%U' is an invalid keyword argument for %s()", keyword,
              signature.function);
    }
    raise(PyExc_TypeError, "argument for %s() given by name ('%U') and position (%zu)",
          signature.function, keyword, place + 1);
}

// The same as bind, for any call.
template <const auto& kSignature>
[[gnu::noinline]] auto bind_otherwise(const Names& names, PyObject* const* given,
                                      std::size_t positional, std::size_t named,
                                      PyObject* keywords) {
    constexpr auto kSize = kSignature.parameters.size();
    check_number(kSignature, positional, named);
    std::array<PyObject*, kSize> bound{};
    std::copy_n(given, positional, bound.begin());
    PyObject* odd = nullptr;
    for (std::size_t i = 0; i < named; ++i) {
        PyObject* keyword = PyTuple_GET_ITEM(keywords, i);
        const auto place = place_of(kSignature, names, keyword);
        if (place == kSize || bound[place] != nullptr) {
            odd = keyword;
        } else {
            bound[place] = given[positional + i];
        }
    }
    for (std::size_t i = 0; i < kSize; ++i) {
        if (bound[i] == nullptr && kSignature.needs(i)) {
            raise(PyExc_TypeError, "%s() missing required argument '%s' (pos %zu)",
                  kSignature.function, text(kSignature.parameters[i]), i + 1);
        }
    }
    if (odd != nullptr) {
        raise_odd_name(kSignature, place_of(kSignature, names, odd), odd);
    }
    return bound;
}

// The argument of each parameter, null for one that was left out and has a default, of a call as
// the vectorcall protocol hands it over. The references are the call's. Nearly all calls give every
// argument where its parameter stands, its name interned.
template <const auto& kSignature>
auto bind(const Names& names, PyObject* const* given, std::size_t positional, PyObject* keywords) {
    constexpr auto kSize = kSignature.parameters.size();
    const auto named =
        keywords == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(keywords));
    bool in_order = positional <= kSignature.positional && positional + named == kSize;
    for (std::size_t i = positional; in_order && i < kSize; ++i) {
        in_order = PyTuple_GET_ITEM(keywords, i - positional) == names[kSignature.parameters[i]];
    }
    if (!in_order) {
        return bind_otherwise<kSignature>(names, given, positional, named, keywords);
    }
    std::array<PyObject*, kSize> bound{};
    std::copy_n(given, kSize, bound.begin());
    return bound;
}

// Raises the TypeError of an argument that is not what it must be.
template <std::size_t Size>
[[noreturn]] void raise_wrong_type(const Signature<Size>& signature, Name parameter,
                                   const char* expected, PyObject* given) {
    raise(PyExc_TypeError, "%s() argument '%s' must be %s, not %.200s", signature.function,
          text(parameter), expected, given == Py_None ? "None" : Py_TYPE(given)->tp_name);
}

}  // namespace health
