// The entries of the interpreter's tables, each made in the file of its subject.
#pragma once

#include <initializer_list>
#include <vector>

#include "module/python.hpp"

namespace health {

using Methods = std::vector<PyMethodDef>;
using Properties = std::vector<PyGetSetDef>;

// Of the class
Methods recording_methods();
Methods health_mirror_methods();
Methods usage_mirror_methods();
Methods report_methods();
Properties record_properties();

// Of the module
Methods health_mirror_functions();
Methods usage_mirror_functions();
Methods report_functions();
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
