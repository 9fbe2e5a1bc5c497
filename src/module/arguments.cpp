#include "module/arguments.hpp"

#include <string>
#include <vector>

namespace health {
namespace {

constexpr const char* plural(std::size_t count) { return count == 1 ? "" : "s"; }

// 'a', 'b', and 'c'
std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i > 0) {
            text += names.size() > 2 ? ", " : " ";
            text += i + 1 == names.size() ? "and " : "";
        }
        text += '\'' + names[i] + '\'';
    }
    return text;
}

[[noreturn]] void raise_missing(const AnySignature& signature, const char* kind,
                                const std::vector<std::string>& missing) {
    PyErr_Format(PyExc_TypeError, "%s() missing %zu required %s argument%s: %s", signature.function,
                 missing.size(), kind, plural(missing.size()), listed(missing).c_str());
    throw PythonError();
}

[[noreturn]] void raise_too_many(const AnySignature& signature, const Call& call,
                                 std::size_t by_name_only) {
    const auto most = signature.positional + signature.self;
    const auto given = call.positional + signature.self;
    const auto range = signature.required < signature.positional
                           ? "from " + std::to_string(signature.required + signature.self) +
                                 " to " + std::to_string(most)
                           : std::to_string(most);
    const bool takes_several = signature.required < signature.positional || most != 1;
    std::string counted = std::to_string(given);
    if (by_name_only > 0) {
        counted += std::string(" positional argument") + plural(given) + " (and " +
                   std::to_string(by_name_only) + " keyword-only argument" + plural(by_name_only) +
                   ")";
    }
    PyErr_Format(PyExc_TypeError, "%s() takes %s positional argument%s but %s %s given",
                 signature.function, range.c_str(), takes_several ? "s" : "", counted.c_str(),
                 given == 1 && by_name_only == 0 ? "was" : "were");
    throw PythonError();
}

// The parameter that a keyword names; the number of parameters when it names none.
std::size_t find_parameter(const AnySignature& signature, const Names& names, PyObject* keyword) {
    const auto& parameters = signature.parameters;
    const auto found = std::find_if(parameters.begin(), parameters.end(), [&](Name name) {
        return PyUnicode_Compare(names[name], keyword) == 0;
    });
    return static_cast<std::size_t>(found - parameters.begin());
}

std::size_t bind_keywords(const AnySignature& signature, const Names& names, const Call& call,
                          std::span<PyObject*> slots) {
    std::size_t by_name_only = 0;
    const auto count = call.keywords == nullptr ? 0 : PyTuple_GET_SIZE(call.keywords);
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyObject* keyword = PyTuple_GET_ITEM(call.keywords, i);
        const auto parameter = find_parameter(signature, names, keyword);
        if (parameter == slots.size()) {
            PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'",
                         signature.function, keyword);
            throw PythonError();
        }
        if (slots[parameter] != nullptr) {
            PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument '%U'",
                         signature.function, keyword);
            throw PythonError();
        }
        slots[parameter] = call.arguments[call.positional + static_cast<std::size_t>(i)];
        by_name_only += static_cast<std::size_t>(parameter >= signature.positional);
    }
    return by_name_only;
}

std::vector<std::string> missing(const AnySignature& signature, const Names& names,
                                 std::span<PyObject* const> slots, std::size_t first,
                                 std::size_t end) {
    std::vector<std::string> left_out;
    for (auto i = first; i < end; ++i) {
        if (slots[i] == nullptr) {
            left_out.emplace_back(PyUnicode_AsUTF8(names[signature.parameters[i]]));
        }
    }
    return left_out;
}

}  // namespace

void bind_slots(const AnySignature& signature, const Names& names, const Call& call,
                std::span<PyObject*> slots) {
    std::copy_n(call.arguments, std::min(call.positional, signature.positional), slots.begin());
    const auto by_name_only = bind_keywords(signature, names, call, slots);
    if (call.positional > signature.positional) {
        raise_too_many(signature, call, by_name_only);
    }
    if (std::find(slots.begin(), slots.end(), nullptr) == slots.end()) {
        return;
    }
    if (const auto left_out = missing(signature, names, slots, 0, signature.required);
        !left_out.empty()) {
        raise_missing(signature, "positional", left_out);
    }
    if (const auto left_out = missing(signature, names, slots, signature.positional, slots.size());
        !left_out.empty()) {
        raise_missing(signature, "keyword-only", left_out);
    }
}

void raise_wrong_type(const char* function, PyObject* parameter, const char* expected,
                      PyObject* given) {
    PyErr_Format(PyExc_TypeError, "%s() argument '%U' must be %s, not %.200s", function, parameter,
                 expected, given == Py_None ? "None" : Py_TYPE(given)->tp_name);
    throw PythonError();
}

double number_argument(const char* function, PyObject* parameter, PyObject* given) {
    if (PyFloat_CheckExact(given)) {
        return PyFloat_AS_DOUBLE(given);
    }
    const auto* type = Py_TYPE(given)->tp_as_number;
    if (type == nullptr || (type->nb_float == nullptr && type->nb_index == nullptr)) {
        raise_wrong_type(function, parameter, "a number or None", given);
    }
    const double number = PyFloat_AsDouble(given);
    if (number == -1.0 && PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return number;
}

}  // namespace health
