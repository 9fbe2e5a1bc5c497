// Answers for the agent: dicts whose keys keep a fixed order.
#pragma once

#include "module/names.hpp"
#include "module/python.hpp"
#include "module/values.hpp"

namespace health {

// Makes a dict, its keys in the order in which they are set.
class AnswerMap {
public:
    explicit AnswerMap(const Names& names) : names_(names) {}

    template <class Value>
    AnswerMap& set(Name key, const Value& value) {
        return set(key, to_python(value));
    }
    AnswerMap& set(Name key, const Ref& value) {
        checked(PyDict_SetItem(map_.get(), names_[key], value.get()));
        return *this;
    }

    Ref map() const { return map_; }

private:
    const Names& names_;
    Ref map_ = owned(PyDict_New());
};

}  // namespace health
