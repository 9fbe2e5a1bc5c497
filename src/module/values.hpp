// Values between Python and the core.
#pragma once

#include <concepts>
#include <optional>
#include <string_view>

#include "core/number.hpp"
#include "core/timestamp.hpp"
#include "core/tool_states.hpp"
#include "module/python.hpp"

namespace health {

// A Python text as the core reads it, lone surrogates included, with Python's hash, which the
// object keeps. Valid as long as the object.
class Text : public HashedText {
public:
    explicit Text(PyObject* object) : HashedText({}, hash_of(object)) {
        if (PyUnicode_IS_COMPACT_ASCII(object)) {
            text = {static_cast<const char*>(PyUnicode_DATA(object)),
                    static_cast<std::size_t>(PyUnicode_GET_LENGTH(object))};
        } else {
            encode(object);
        }
    }

private:
    // Python's hash of a text, whatever its class makes of hashing. It is computed once.
    static std::size_t hash_of(PyObject* object) {
        const auto known = reinterpret_cast<PyASCIIObject*>(object)->hash;
        return static_cast<std::size_t>(known != -1 ? known : PyUnicode_Type.tp_hash(object));
    }

    void encode(PyObject* object);

    Ref encoded_;  // only for text that UTF-8 cannot express
};

Ref to_python(std::string_view text);
Ref to_python(const HashedText& text);
Ref to_python(const HashedText* text);  // none for null
Ref to_python(const std::optional<TimestampText>& text);
Ref to_python(const LastError& error);
Ref to_python(const std::optional<double>& number);
Ref to_python(Count count);

// Of a bool only: anything that merely converts to one, such as a literal's address, is refused.
Ref to_python(std::same_as<bool> auto truth) { return shared(truth ? Py_True : Py_False); }

// A Python integer as a count; OverflowError when it does not fit.
Count to_count(PyObject* integer);

// A last error as the database holds it: none, text, integer, real or blob.
LastError to_last_error(PyObject* value);

// A tuple of values, which are references of the caller's.
template <class... Values>
Ref make_tuple(const Values&... values) {
    return owned(PyTuple_Pack(sizeof...(values), values.get()...));
}

}  // namespace health
