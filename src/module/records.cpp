#include "module/records.hpp"

namespace health {
namespace {

Ref make_record(PyObject* module_name, const char* name, const char* doc, const Ref& fields) {
    const auto dataclasses = owned(PyImport_ImportModule("dataclasses"));
    auto type =
        owned(PyObject_CallMethod(dataclasses.get(), "make_dataclass", "sO", name, fields.get()));
    checked(PyObject_SetAttrString(type.get(), "__module__", module_name));
    checked(PyObject_SetAttrString(type.get(), "__doc__", owned(PyUnicode_FromString(doc)).get()));
    return type;
}

}  // namespace

Ref make_tool_state_type(PyObject* module_name) {
    return make_record(
        module_name, "_ToolState", "What is known about one tool's health; times in epoch seconds.",
        owned(Py_BuildValue("[(ssi)(ssi)(ssO)(ssO)(ssd)(ssi)]", "call_count", "int", 0,
                            "error_count", "int", 0, "last_error", "str | None", Py_None,
                            "disabled_at", "float | None", Py_None, "updated_at", "float", 0.0,
                            "consecutive_errors", "int", 0)));
}

Ref make_usage_type(PyObject* module_name) {
    return make_record(module_name, "_Usage",
                       "The calls that one usage key counts, and their handlers' time.",
                       owned(Py_BuildValue("[(ssi)(ssi)(ssd)]", "calls", "int", 0, "timed_calls",
                                           "int", 0, "total_ms", "float", 0.0)));
}

Ref make_usage_key_type() {
    auto* text = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    const auto optional_text = owned(PyNumber_Or(text, Py_None));
    const auto elements = owned(PyTuple_Pack(4, text, optional_text.get(), text, &PyBool_Type));
    return owned(Py_GenericAlias(reinterpret_cast<PyObject*>(&PyTuple_Type), elements.get()));
}

}  // namespace health
