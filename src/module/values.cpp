#include "module/values.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <variant>

namespace health {
namespace {

struct ErrorToPython {
    Ref operator()(const std::string& text) const { return to_python(std::string_view(text)); }
    Ref operator()(const Integer& integer) const {
        return owned(PyLong_FromString(integer.hexadecimal.c_str(), nullptr, 16));
    }
    Ref operator()(double real) const { return to_python(real); }
    Ref operator()(const Blob& blob) const {
        return owned(PyBytes_FromStringAndSize(blob.bytes.data(),
                                               static_cast<Py_ssize_t>(blob.bytes.size())));
    }
};

}  // namespace

void Text::encode(PyObject* object) {
    Py_ssize_t size = 0;
    if (const char* utf8 = PyUnicode_AsUTF8AndSize(object, &size)) {
        text = {utf8, static_cast<std::size_t>(size)};
        return;
    }
    if (!PyErr_ExceptionMatches(PyExc_UnicodeEncodeError)) {
        throw PythonError();
    }
    PyErr_Clear();
    encoded_ = owned(PyUnicode_AsEncodedString(object, "utf-8", "surrogatepass"));
    text = {PyBytes_AS_STRING(encoded_.get()),
            static_cast<std::size_t>(PyBytes_GET_SIZE(encoded_.get()))};
}

// Python hashes the text's code points, each as wide as the widest needs.
std::size_t python_hash(std::string_view text) {
    const auto hash = [](const auto& units) {
        const auto bytes = static_cast<Py_ssize_t>(units.size() * sizeof(units[0]));
        const auto found = bytes == 0 ? 0 : PyHash_GetFuncDef()->hash(units.data(), bytes);
        return static_cast<std::size_t>(found == -1 ? -2 : found);
    };
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & '\x80') == 0; })) {
        return hash(text);
    }
    std::u32string code_points;
    for (auto rest = text; !rest.empty();) {
        code_points += take_code_point(rest);
    }
    const auto begin = code_points.begin();
    const auto end = code_points.end();
    const char32_t widest = *std::max_element(begin, end);
    return widest < 0x100     ? hash(std::basic_string<unsigned char>(begin, end))
           : widest < 0x10000 ? hash(std::u16string(begin, end))
                              : hash(code_points);
}

Ref to_python(std::string_view text) {
    return owned(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
}

Ref to_python(const HashedText& text) { return to_python(text.text); }

Ref to_python(const HashedText* text) { return text == nullptr ? none() : to_python(*text); }

Ref to_python(const TimestampText& text) { return to_python(view(text)); }

Ref to_python(const LastError& error) {
    return error ? std::visit(ErrorToPython(), *error) : none();
}

Ref to_python(double number) { return owned(PyFloat_FromDouble(number)); }

Ref to_python(Count count) { return owned(PyLong_FromLongLong(count)); }

Count to_count(PyObject* integer) {
    using Limits = std::numeric_limits<Count>;
    int beyond = 0;
    const Count count = PyLong_AsLongLongAndOverflow(integer, &beyond);
    return beyond == 0 ? count : beyond > 0 ? Limits::max() : Limits::min();
}

double to_double(PyObject* number) {
    if (PyFloat_CheckExact(number)) {
        return PyFloat_AS_DOUBLE(number);
    }
    const double value = PyFloat_AsDouble(number);
    if (value == -1.0 && PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return value;
}

double to_double_or_infinity(PyObject* number) {
    if (!PyLong_Check(number)) {
        return to_double(number);
    }
    int beyond = 0;
    const Count count = PyLong_AsLongLongAndOverflow(number, &beyond);
    return beyond == 0 ? static_cast<double>(count)
                       : beyond * std::numeric_limits<double>::infinity();
}

LastError to_last_error(PyObject* value) {
    const auto make = [](auto kept) { return std::make_shared<const ErrorValue>(std::move(kept)); };
    if (value == Py_None) {
        return nullptr;
    }
    if (PyUnicode_Check(value)) {
        return make(std::string(Text(value).text));
    }
    if (PyLong_Check(value)) {
        const auto digits = owned(PyNumber_ToBase(value, 16));
        return make(Integer{std::string(Text(digits).text)});
    }
    if (PyFloat_Check(value)) {
        return make(PyFloat_AS_DOUBLE(value));
    }
    if (PyBytes_Check(value)) {
        return make(Blob{std::string(PyBytes_AS_STRING(value),
                                     static_cast<std::size_t>(PyBytes_GET_SIZE(value)))});
    }
    raise(PyExc_TypeError, "last_error cannot be %.200s", Py_TYPE(value)->tp_name);
}

}  // namespace health
