#include "module/values.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <utility>

// Needs Python.h before it.
#include <marshal.h>

namespace health {

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
    if (!error) {
        return none();
    }
    const std::string& bytes = error->bytes;
    return error->is_text ? to_python(std::string_view(bytes))
                          : owned(PyMarshal_ReadObjectFromString(
                                bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
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
    if (value == Py_None) {
        return nullptr;
    }
    ErrorValue error;
    if (PyUnicode_Check(value)) {
        error.bytes = Text(value).text;
    } else if (PyLong_Check(value) || PyFloat_Check(value) || PyBytes_Check(value)) {
        const auto written = owned(PyMarshal_WriteObjectToString(value, Py_MARSHAL_VERSION));
        error = {std::string(PyBytes_AS_STRING(written.get()),
                             static_cast<std::size_t>(PyBytes_GET_SIZE(written.get()))),
                 false};
    } else {
        raise(PyExc_TypeError, "last_error cannot be %.200s", Py_TYPE(value)->tp_name);
    }
    return std::make_shared<const ErrorValue>(std::move(error));
}

}  // namespace health
