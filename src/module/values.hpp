// Values between Python and the core.
#pragma once

#include <concepts>
#include <optional>
#include <string_view>

#include "core/number.hpp"
#include "core/timestamp.hpp"
#include "core/tool_states.hpp"
#include "core/usage.hpp"
#include "module/python.hpp"

namespace health {

// A Python text as the core reads it, lone surrogates included, with Python's hash, which the
// object keeps. Valid as long as the object.
class Text : public HashedText {
public:
    explicit Text(PyObject* object) {
        hash = hash_of(object);
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
        const auto hash = known != -1 ? known : PyUnicode_Type.tp_hash(object);
        if (hash == -1) {  // a text of the old C API that cannot be made ready
            throw PythonError();
        }
        return static_cast<std::size_t>(hash);
    }

    void encode(PyObject* object);

    Ref encoded_;  // only for text that UTF-8 cannot express
};

// The hash that Python gives a text, found without the interpreter.
std::size_t python_hash(std::string_view text);

// What a call is counted under; valid as long as its Python objects.
class CallKey {
public:
    // `action` may be none.
    CallKey(PyObject* tool, PyObject* action, PyObject* outcome, bool alias_hit)
        : tool_(tool), outcome_(outcome), alias_hit_(alias_hit) {
        if (action != Py_None) {
            action_.emplace(action);
        }
    }

    UsageKey view() const { return {&tool_, action_ ? &*action_ : nullptr, &outcome_, alias_hit_}; }

private:
    Text tool_;
    std::optional<Text> action_;
    Text outcome_;
    bool alias_hit_;
};

Ref to_python(std::string_view text);
Ref to_python(const HashedText& text);
Ref to_python(const HashedText* text);  // none for null
Ref to_python(const TimestampText& text);
Ref to_python(const LastError& error);
Ref to_python(double number);
Ref to_python(Count count);

// Of a bool only: anything that merely converts to one, such as a literal's address, is refused.
Ref to_python(std::same_as<bool> auto truth) { return shared(truth ? Py_True : Py_False); }

template <class Value>
Ref to_python(const std::optional<Value>& value) {
    return value ? to_python(*value) : none();
}

// A Python integer as a count, at the type's limit when it is beyond.
Count to_count(PyObject* integer);

// A Python number as a double. OverflowError for an integer beyond every double, and TypeError for
// what is no number.
double to_double(PyObject* number);

// The same, but an integer beyond 64 bits is as good as infinite.
double to_double_or_infinity(PyObject* number);

// A last error as the database holds it: none, text, integer, real or blob.
LastError to_last_error(PyObject* value);

// A tuple of values, which are references of the caller's.
template <class... Values>
Ref make_tuple(const Values&... values) {
    return owned(PyTuple_Pack(sizeof...(values), static_cast<PyObject*>(values)...));
}

}  // namespace health
