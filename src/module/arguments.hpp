// Binding a call's arguments to a function's parameters, with the errors that a function written
// in Python would raise.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "module/names.hpp"
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
    std::size_t self = 1;  // arguments that came before: errors count them, as Python does
};

// The same for any number of parameters.
struct AnySignature {
    const char* function;
    std::span<const Name> parameters;
    std::size_t positional;
    std::size_t required;
    std::size_t self;
};

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

void bind_slots(const AnySignature& signature, const Names& names, const Call& call,
                std::span<PyObject*> slots);

// The argument of each parameter; null for one that was left out and has a default. The
// references are the call's.
template <std::size_t Size>
std::array<PyObject*, Size> bind(const Signature<Size>& signature, const Names& names,
                                 const Call& call) {
    std::array<PyObject*, Size> slots{};
    if (is_in_order(signature, names, call)) {
        std::copy_n(call.arguments, Size, slots.begin());
    } else {
        bind_slots({signature.function, signature.parameters, signature.positional,
                    signature.required, signature.self},
                   names, call, slots);
    }
    return slots;
}

// Raises the TypeError of an argument that is not what it must be.
[[noreturn]] void raise_wrong_type(const char* function, PyObject* parameter, const char* expected,
                                   PyObject* given);

// A number given for a parameter, as a double.
double number_argument(const char* function, PyObject* parameter, PyObject* given);

}  // namespace health
