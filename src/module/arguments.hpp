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

// The argument of each parameter, null for one that was left out and has a default, of a call as
// the vectorcall protocol hands it over. The references are the call's.
template <const auto& kSignature>
auto bind(const Names& names, PyObject* const* given, std::size_t positional, PyObject* keywords) {
    constexpr auto kSize = kSignature.parameters.size();
    const auto named =
        keywords == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(keywords));
    const bool too_many = positional + named > kSize;
    if (too_many || positional > kSignature.positional) {
        const auto most = too_many ? kSize : kSignature.positional;
        raise(PyExc_TypeError, "%s() takes %s %zu %sargument%s (%zu given)", kSignature.function,
              too_many ? "at most" : "exactly", most,
              !too_many         ? "positional "
              : positional == 0 ? "keyword "
                                : "",
              most == 1 ? "" : "s", too_many ? positional + named : positional);
    }
    std::array<PyObject*, kSize> bound{};
    for (std::size_t i = 0; i < kSize; ++i) {
        bound[i] = i < positional ? given[i] : nullptr;
    }
    PyObject* odd = nullptr;  // a name of no parameter, or of one given by position
    for (std::size_t i = positional; i < positional + named; ++i) {
        PyObject* keyword = PyTuple_GET_ITEM(keywords, i - positional);
        // Most calls name them in their order.
        const auto place =
            keyword == names[kSignature.parameters[i]] ? i : place_of(kSignature, names, keyword);
        if (place == kSize || bound[place] != nullptr) {
            odd = keyword;
        } else {
            bound[place] = given[i];
        }
    }
    for (std::size_t i = 0; i < kSize; ++i) {
        if (bound[i] == nullptr && kSignature.needs(i)) {
            raise(PyExc_TypeError, "%s() missing required argument '%s' (pos %zu)",
                  kSignature.function, text(kSignature.parameters[i]), i + 1);
        }
    }
    if (odd != nullptr) {
        const auto place = place_of(kSignature, names, odd);
        if (place == kSize) {
            raise(PyExc_TypeError, "'%U' is an invalid keyword argument for %s()", odd,
                  kSignature.function);
        }
        raise(PyExc_TypeError, "argument for %s() given by name ('%U') and position (%zu)",
              kSignature.function, odd, place + 1);
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
