// The module `health`: its functions, its constants and how it is loaded.
#include "module/module.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "module/mirror.hpp"
#include "module/operation.hpp"
#include "module/tracker.hpp"
#include "module/values.hpp"

namespace health {
namespace {

// "quillet." for "quillet.tool_handlers.health": the package that holds tool_handlers. Nothing
// for the plain module "health".
std::string package_of(std::string module_name) {
    for (int level = 0; level < 2; ++level) {
        const auto dot = module_name.rfind('.');
        if (dot == std::string::npos) {
            return "";
        }
        module_name.resize(dot);
    }
    return module_name + '.';
}

using StatePointer = std::unique_ptr<ModuleState>;

// The interpreter's memory for the module's state is zeroed: a null pointer until it is loaded.
StatePointer& state_pointer(PyObject* module) {
    return *static_cast<StatePointer*>(PyModule_GetState(module));
}

void add(PyObject* module, const char* name, const Ref& value) {
    checked(PyModule_AddObjectRef(module, name, value));
}

// The functions need the module's state, so they come once it is there: the interpreter asks for
// attributes, and so calls __getattr__, before it loads the module. It keeps the table.
void add_functions(PyObject* module) {
    static auto functions = table<Methods>({health_mirror_functions(), usage_mirror_functions(),
                                            status_functions(), collaborator_functions()});
    checked(PyModule_AddFunctions(module, functions.data()));
}

int load(PyObject* module) {
    const bool done = succeeds([&] {
        const auto name = owned(PyModule_GetNameObject(module));
        state_pointer(module) = std::make_unique<ModuleState>(ModuleState{
            .module = module,
            .name = name,
            .package = package_of(std::string(Text(name).text)),
            .names = {},
            .records = make_records(name),
            .enabled = make_tuple(to_python(false), none()),
        });
        const auto& state = state_of(module);
        add_functions(module);
        add(module, "logger", import_module("logging").method(state.names[Name::getLogger], name));
        checked(PyModule_AddStringConstant(module, "__version__", HEALTH_VERSION));
        checked(PyModule_AddStringConstant(module, "_SQLITE_TIMESTAMP", kTimestampFormat.data()));
        checked(PyModule_AddStringConstant(module, "_TOOL_HEALTH_COLUMNS", HEALTH_COLUMNS));
        checked(PyModule_AddStringConstant(module, "TOOL_USAGE_KEY", kUsageDocumentKey.data()));
        for (const auto type : {Name::_ToolState, Name::_Usage, Name::_UsageKey}) {
            add(module, text(type), state.records.item(state.names[type]));
        }
        add(module, "ToolHealthTracker", make_tracker_type(module, name));
    });
    return done ? 0 : -1;
}

int traverse(PyObject* module, visitproc visit, void* arg) {
    if (const auto& state = state_pointer(module)) {
        Py_VISIT(state->records.get());
    }
    return 0;
}

void unload(void* module) { std::destroy_at(&state_pointer(static_cast<PyObject*>(module))); }

std::array slots{
    PyModuleDef_Slot{Py_mod_exec, reinterpret_cast<void*>(load)},
    PyModuleDef_Slot{},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT,
    "health",
    "Tool health: which tools fail, which are disabled, and how all of them are used.",
    sizeof(StatePointer),
    nullptr,
    slots.data(),
    traverse,
    nullptr,
    unload,
};

}  // namespace

Names::Names() {
    std::transform(kNameTexts.begin(), kNameTexts.end(), names_.begin(),
                   [](const char* text) { return owned(PyUnicode_InternFromString(text)); });
}

const ModuleState& state_of(PyObject* module) { return *state_pointer(module); }

const ModuleState& state_of_class(PyTypeObject* type) {
    PyObject* module = PyType_GetModuleByDef(type, &definition);
    if (module == nullptr) {
        throw PythonError();
    }
    return state_of(module);
}

}  // namespace health

PyMODINIT_FUNC PyInit_health() { return PyModuleDef_Init(&health::definition); }
