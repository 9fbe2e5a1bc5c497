#include "module/values.hpp"

#include <memory>
#include <utility>
#include <variant>

namespace health {
namespace {

struct ErrorToPython {
    Ref operator()(const std::string& text) const { return to_python(std::string_view(text)); }
    Ref operator()(Count integer) const { return to_python(integer); }
    Ref operator()(double real) const { return owned(PyFloat_FromDouble(real)); }
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

Ref to_python(std::string_view text) {
    return owned(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
}

Ref to_python(const HashedText& text) { return to_python(text.text); }

Ref to_python(const HashedText* text) { return text == nullptr ? none() : to_python(*text); }

Ref to_python(const std::optional<TimestampText>& text) {
    return text ? to_python(view(*text)) : none();
}

Ref to_python(const LastError& error) {
    return error ? std::visit(ErrorToPython(), *error) : none();
}

Ref to_python(const std::optional<double>& number) {
    return number ? owned(PyFloat_FromDouble(*number)) : none();
}

Ref to_python(Count count) { return owned(PyLong_FromLongLong(count)); }

Count to_count(PyObject* integer) {
    const Count count = PyLong_AsLongLong(integer);
    if (count == -1 && PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return count;
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
        return make(to_count(value));
    }
    if (PyFloat_Check(value)) {
        return make(PyFloat_AS_DOUBLE(value));
    }
    if (PyBytes_Check(value)) {
        return make(Blob{std::string(PyBytes_AS_STRING(value),
                                     static_cast<std::size_t>(PyBytes_GET_SIZE(value)))});
    }
    PyErr_Format(PyExc_TypeError, "last_error cannot be %.200s", Py_TYPE(value)->tp_name);
    throw PythonError();
}

}  // namespace health
