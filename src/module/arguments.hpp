// How the interpreter's calls reach the operations: their parameters, and the entries of its tables
// of methods and properties.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
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
    std::size_t required = positional;  // how many of these have no default; the others never have

    constexpr bool needs(std::size_t place) const {
        return place < required || place >= positional;
    }
};

// The place of the parameter with that name, Size for none. Names in a call are nearly always
// interned, so the same object is looked for first.
template <std::size_t Size>
std::size_t place_of(const Signature<Size>& signature, const Names& names, PyObject* keyword) {
    const auto place = [&](auto&& is_same) {
        std::size_t i = 0;
        while (i < Size && !is_same(names[signature.parameters[i]])) {
            ++i;
        }
        return i;
    };
    const auto same = place([&](PyObject* name) { return name == keyword; });
    return same < Size
               ? same
               : place([&](PyObject* name) { return PyUnicode_Compare(name, keyword) == 0; });
}

// Raises the TypeError of too many arguments.
template <std::size_t Size>
void check_number(const Signature<Size>& signature, std::size_t positional, std::size_t named) {
    const char* function = signature.function;
    const auto most = signature.positional;
    if (positional + named > Size) {
        raise(PyExc_TypeError, "%s() takes at most %zu %sargument%s (%zu given)", function, Size,
              positional == 0 ? "keyword " : "", Size == 1 ? "" : "s", positional + named);
    }
    if (positional > most) {
        raise(PyExc_TypeError, "%s() takes exactly %zu positional argument%s (%zu given)", function,
              most, most == 1 ? "" : "s", positional);
    }
}

// Raises the TypeError of an argument that is missing, or has an odd name: of no parameter, or of
// one given by position.
template <std::size_t Size>
void check_bound(const Signature<Size>& signature, const Names& names,
                 const std::array<PyObject*, Size>& bound, PyObject* odd) {
    const char* function = signature.function;
    for (std::size_t i = 0; i < Size; ++i) {
        if (bound[i] == nullptr && signature.needs(i)) {
            raise(PyExc_TypeError, "%s() missing required argument '%s' (pos %zu)", function,
                  text(signature.parameters[i]), i + 1);
        }
    }
    const auto place = odd == nullptr ? 0 : place_of(signature, names, odd);
    if (place == Size) {
        raise(PyExc_TypeError, "'%U' is an invalid keyword argument for %s()", odd, function);
    }
    if (odd != nullptr) {
        raise(PyExc_TypeError, "argument for %s() given by name ('%U') and position (%zu)",
              function, odd, place + 1);
    }
}

// The same as bind, for any call.
template <const auto& kSignature>
[[gnu::noinline]] auto bind_otherwise(const Names& names, PyObject* const* given,
                                      std::size_t positional, std::size_t named,
                                      PyObject* keywords) {
    constexpr auto kSize = kSignature.parameters.size();
    check_number(kSignature, positional, named);
    std::array<PyObject*, kSize> bound{};
    for (std::size_t i = 0; i < kSize; ++i) {
        bound[i] = i < positional ? given[i] : nullptr;
    }
    PyObject* odd = nullptr;
    for (std::size_t i = positional; i < positional + named; ++i) {
        PyObject* keyword = PyTuple_GET_ITEM(keywords, i - positional);
        const auto place = place_of(kSignature, names, keyword);
        if (place == kSize || bound[place] != nullptr) {
            odd = keyword;
        } else {
            bound[place] = given[i];
        }
    }
    check_bound(kSignature, names, bound, odd);
    return bound;
}

// The argument of each parameter, null for one that was left out and has a default, of a call as
// the vectorcall protocol hands it over. The references are the call's. Nearly all calls give every
// argument where its parameter stands.
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

// The owner of an operation, behind the Python object that it is called on.
template <class Owner>
Owner& owner_of(PyObject* self);

template <>
inline const ModuleState& owner_of(PyObject* self) {
    return state_of(self);
}

inline const Names& names_of(const ModuleState& module) { return module.names; }

// An operation as the interpreter calls it: Ref operation(Owner&, PyObject* argument...), with a
// signature when it has arguments.
template <auto Operation, const auto&... kSignature>
struct Method;

template <class Owner, class... Values, Ref (*Operation)(Owner&, Values...),
          const Signature<sizeof...(Values)>& kSignature>
struct Method<Operation, kSignature> {
    static PyObject* call(PyObject* self, PyObject* const* given, Py_ssize_t positional,
                          PyObject* keywords) {
        return guarded([&] {
            auto& owner = owner_of<Owner>(self);
            return std::apply([&](auto*... values) { return Operation(owner, values...); },
                              bind<kSignature>(names_of(owner), given,
                                               static_cast<std::size_t>(positional), keywords));
        });
    }
};

template <class Owner, Ref (*Operation)(Owner&)>
struct Method<Operation> {
    static PyObject* call(PyObject* self, PyObject* /*none*/) {
        return guarded([&] { return Operation(owner_of<Owner>(self)); });
    }
};

template <auto Operation>
PyMethodDef method(const char* name, const char* doc) {
    return {name, Method<Operation>::call, METH_NOARGS, doc};
}

template <auto Operation, const auto& kSignature>
PyMethodDef method(const char* doc) {
    auto* function = reinterpret_cast<void (*)()>(Method<Operation, kSignature>::call);
    return {kSignature.function, reinterpret_cast<PyCFunction>(function),
            METH_FASTCALL | METH_KEYWORDS, doc};
}

template <auto Get>
PyGetSetDef property(const char* name, const char* doc) {
    const getter get = [](PyObject* self, void* /*closure*/) {
        return Method<Get>::call(self, nullptr);
    };
    return {name, get, nullptr, doc, nullptr};
}

}  // namespace health
