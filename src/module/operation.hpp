// The operations as entries of the interpreter's tables of methods and properties.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <tuple>
#include <vector>

#include "module/arguments.hpp"
#include "module/module.hpp"
#include "module/python.hpp"

namespace health {

// The owner of an operation, behind the Python object that it is called on.
template <class Owner>
Owner& owner_of(PyObject* self);

template <>
inline const ModuleState& owner_of(PyObject* self) {
    return state_of(self);
}

// An operation as the interpreter calls it: Ref operation(Owner&, PyObject* argument...), with a
// signature when it has arguments.
template <auto Operation, const auto&... kSignature>
struct Method;

template <class Owner, class... Values, Ref (*Operation)(Owner&, Values...),
          const Signature<sizeof...(Values)>& kSignature>
struct Method<Operation, kSignature> {
    static PyObject* call(PyObject* self, PyObject* const* given, Py_ssize_t positional,
                          PyObject* keywords) {
        return c_result([&] {
            auto& owner = owner_of<Owner>(self);
            return std::apply([&](auto*... values) { return Operation(owner, values...); },
                              bind<kSignature>(owner.names, given,
                                               static_cast<std::size_t>(positional), keywords));
        });
    }
};

template <class Owner, Ref (*Operation)(Owner&)>
struct Method<Operation> {
    static PyObject* call(PyObject* self, PyObject* /*none*/) {
        return c_result([&] { return Operation(owner_of<Owner>(self)); });
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
    return {name,
            [](PyObject* self, void* /*closure*/) { return Method<Get>::call(self, nullptr); },
            nullptr, doc, nullptr};
}

// The tables' parts, each made in the file of its subject.

using Methods = std::vector<PyMethodDef>;
using Properties = std::vector<PyGetSetDef>;

// Of the class
Methods call_methods();
Methods health_mirror_methods();
Methods usage_mirror_methods();
Methods summary_methods();
Properties view_properties();

// Of the module
Methods health_mirror_functions();
Methods usage_mirror_functions();
Methods status_functions();
Methods collaborator_functions();

// One table of many, its end marked as the interpreter wants it.
template <class Entries>
Entries table(std::initializer_list<Entries> parts) {
    Entries all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    all.push_back({});
    return all;
}

}  // namespace health
