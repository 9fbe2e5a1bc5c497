// The usage document: read when a tracker is made, written when it is flushed.
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/document.hpp"
#include "module/collaborators.hpp"
#include "module/tracker.hpp"
#include "module/usage_mirror.hpp"
#include "module/values.hpp"

namespace health {
namespace {

constexpr const char* kSelect = "SELECT value FROM schema_info WHERE key = ?";
constexpr const char* kReplace = "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)";

// The counts of a stored document: `keys` maps each usage key, as a tuple, to its place in
// `counts`. The keys stay Python's, and so does what makes two of them equal.
struct StoredUsage {
    Ref keys = owned(PyDict_New());
    std::vector<Usage> counts;
};

// The stored text; null when there is none.
Ref read_document(const Tracker& tracker) {
    const auto statement = owned(PyUnicode_FromString(kSelect));
    const auto parameters = make_tuple(owned(PyUnicode_FromString(kUsageDocumentKey)));
    const auto row = owned(PyObject_CallMethodObjArgs(database(tracker).get(),
                                                      tracker.module.names[Name::fetchone],
                                                      statement.get(), parameters.get(), nullptr));
    if (row.is_none()) {
        return {};
    }
    auto value = owned(PySequence_GetItem(row.get(), 0));
    return value.is_str() ? value : Ref();
}

Ref parse(const Tracker& tracker, PyObject* document) {
    const auto json = owned(PyImport_ImportModule("json"));
    return owned(
        PyObject_CallMethodOneArg(json.get(), tracker.module.names[Name::loads], document));
}

class ElementReader {
public:
    ElementReader(const Names& names, PyObject* element) : names_(names), element_(element) {}

    Ref value(Name member) const { return owned(PyObject_GetItem(element_, names_[member])); }
    Ref text(Name member) const { return owned(PyObject_Str(value(member).get())); }
    bool truth(Name member) const { return checked(PyObject_IsTrue(value(member).get())) != 0; }
    Count count(Name member) const {
        return to_count(owned(PyNumber_Long(value(member).get())).get());
    }
    double number(Name member) const {
        return PyFloat_AS_DOUBLE(owned(PyNumber_Float(value(member).get())).get());
    }

private:
    const Names& names_;
    PyObject* element_;
};

void add_element(const Names& names, PyObject* element, StoredUsage& stored) {
    const ElementReader reader(names, element);
    const auto tool = reader.text(Name::tool);
    const auto action = reader.value(Name::action);
    const auto outcome = reader.text(Name::outcome);
    const auto key = make_tuple(tool, action, outcome, to_python(reader.truth(Name::alias_hit)));
    const Count calls = reader.count(Name::calls);
    const Count timed_calls = reader.count(Name::timed_calls);
    const Usage usage{calls, timed_calls, reader.number(Name::total_ms)};

    const auto next = owned(PyLong_FromSize_t(stored.counts.size()));
    PyObject* place = PyDict_SetDefault(stored.keys.get(), key.get(), next.get());
    if (place == nullptr) {
        throw PythonError();
    }
    if (place == next.get()) {
        stored.counts.push_back(usage);
    } else {
        stored.counts[PyLong_AsSize_t(place)] = usage;
    }
}

void read_usage(const Tracker& tracker, StoredUsage& stored) {
    const auto document = read_document(tracker);
    if (!document) {
        return;
    }
    const auto elements = owned(PyObject_GetIter(parse(tracker, document.get()).get()));
    Pacer pacer;
    while (const Ref element = elements.next()) {
        add_element(tracker.module.names, element.get(), stored);
        pacer.step();
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
}

// An entry to install; the texts are those of its key, which the stored usage holds.
struct Survivor {
    Text tool;
    std::optional<Text> action;
    Text outcome;
    bool alias_hit;
    Usage usage;
};

std::vector<Survivor> prune(const Tracker& tracker, const StoredUsage& stored) {
    std::vector<Survivor> survivors;
    Ref tools;
    PyObject* key = nullptr;
    PyObject* place = nullptr;
    Py_ssize_t position = 0;
    Pacer pacer;
    while (PyDict_Next(stored.keys.get(), &position, &key, &place) != 0) {
        if (!tools) {
            tools = collaborator(tracker.module, "tool_registry", "TOOLS");
        }
        PyObject* tool = PyTuple_GET_ITEM(key, 0);
        PyObject* action = PyTuple_GET_ITEM(key, 1);
        const bool known = registry_knows(tracker.module.names, tools.get(), tool, action);
        // Only text names an action, whatever a registry answers.
        if (known && (action == Py_None || PyUnicode_Check(action))) {
            survivors.push_back(
                {Text(tool), action == Py_None ? std::nullopt : std::optional<Text>(action),
                 Text(PyTuple_GET_ITEM(key, 2)), PyTuple_GET_ITEM(key, 3) == Py_True,
                 stored.counts[PyLong_AsSize_t(place)]});
        }
        pacer.step();
    }
    return survivors;
}

// The document as Python text, made without the interpreter lock but for its allocation.
Ref make_document(std::span<const UsageEntry> entries) {
    std::string document;
    {
        const GilRelease others;
        document = write_usage_document(entries);
    }
    auto text = owned(PyUnicode_New(static_cast<Py_ssize_t>(document.size()), 127));
    {
        // Nobody else has seen the text yet.
        const GilRelease others;
        std::memcpy(PyUnicode_1BYTE_DATA(text.get()), document.data(), document.size());
    }
    return text;
}

void write_document(const Tracker& tracker, std::span<const UsageEntry> entries) {
    const auto statement = owned(PyUnicode_FromString(kReplace));
    const auto parameters =
        make_tuple(owned(PyUnicode_FromString(kUsageDocumentKey)), make_document(entries));
    owned(PyObject_CallMethodObjArgs(database(tracker).get(), tracker.module.names[Name::execute],
                                     statement.get(), parameters.get(), nullptr));
}

}  // namespace

Ref load_usage(Tracker& tracker) {
    StoredUsage stored;
    if (!read_history(tracker.module, "Could not read the tool usage counts: %s",
                      [&] { read_usage(tracker, stored); })) {
        return none();
    }
    const auto survivors = prune(tracker, stored);
    tracker.lock.run_aside([&] {
        for (const auto& [tool, action, outcome, alias_hit, usage] : survivors) {
            tracker.usage.seed({&tool, action ? &*action : nullptr, &outcome, alias_hit}, usage);
        }
        tracker.usage.mark_changed(survivors.size() < stored.counts.size());
    });
    return none();
}

Ref flush_usage(Tracker& tracker) {
    const auto entries = tracker.lock.run_aside([&] { return tracker.usage.take_changes(); });
    if (!entries) {
        return to_python(Count{0});
    }
    try {
        write_document(tracker, *entries);
    } catch (const std::exception&) {
        tracker.lock.run([&] { tracker.usage.mark_changed(true); });
        throw;
    }
    return to_python(static_cast<Count>(entries->size()));
}

}  // namespace health
