// The usage document.
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/usage_document.hpp"
#include "module/collaborators.hpp"
#include "module/mirror.hpp"
#include "module/operation.hpp"
#include "module/tracker.hpp"

namespace health {
namespace {

constexpr std::string_view kSelect = "SELECT value FROM schema_info WHERE key = ?";
constexpr std::string_view kReplace =
    "INSERT OR REPLACE INTO schema_info (key, value) VALUES (?, ?)";

// The registry

constexpr Signature<2> kKnownSignature{"_known", {Name::tool, Name::action}};

PyDoc_STRVAR(kKnownDoc, R"(_known($module, tool, action)
--

Whether the registry has the tool and, unless `action` is None, that action.)");

Ref known(const ModuleState& module, PyObject* tool, PyObject* action) {
    return to_python(registry_knows(module.names, find_collaborator(module, kTools), tool, action));
}

// Reading

struct StoredUsage {
    UsageCounts counts;
    bool is_whole = true;  // whether nothing was left out
};

// The counts of a document in the writer's form, read while others may run.
std::optional<UsageCounts> read_own_form(const Ref& document) {
    if (!PyUnicode_IS_COMPACT_ASCII(document.get())) {
        return std::nullopt;
    }
    const std::string_view text(static_cast<const char*>(PyUnicode_DATA(document.get())),
                                static_cast<std::size_t>(PyUnicode_GET_LENGTH(document.get())));
    return without_gil([&] { return read_usage_document(text, python_hash); });
}

Count count_member(const Ref& element, PyObject* name) {
    return to_count(owned(PyNumber_Long(element.item(name))));
}

void add_element(const Names& names, const Ref& element, StoredUsage& stored) {
    const auto tool = owned(PyObject_Str(element.item(names[Name::tool])));
    const auto action = element.item(names[Name::action]);
    const auto outcome = owned(PyObject_Str(element.item(names[Name::outcome])));
    const bool alias_hit = truth(element.item(names[Name::alias_hit]));
    const Count calls = count_member(element, names[Name::calls]);
    const Count timed_calls = count_member(element, names[Name::timed_calls]);
    const auto total = owned(PyNumber_Float(element.item(names[Name::total_ms])));
    if (PyObject_Hash(action) == -1) {  // an array or an object is no action
        throw PythonError();
    }
    // Only text names an action, whatever a registry would answer.
    if (!action.is_none() && !PyUnicode_Check(action.get())) {
        stored.is_whole = false;
        return;
    }
    const CallKey key(tool, action, outcome, alias_hit);
    stored.counts.seed(key.view(), {calls, timed_calls, PyFloat_AS_DOUBLE(total.get())});
}

// The same for any other document, with the interpreter's JSON reader.
StoredUsage read_any_form(const Names& names, const Ref& document) {
    StoredUsage stored;
    Pacer pacer;
    import_module("json").method(names[Name::loads], document).for_each([&](const Ref& element) {
        add_element(names, element, stored);
        pacer.step();
    });
    return stored;
}

StoredUsage read_usage(Tracker& tracker) {
    const auto row = database(tracker).method(tracker.names[Name::fetchone], to_python(kSelect),
                                              make_tuple(to_python(kUsageDocumentKey)));
    const auto document = row.is_none() ? none() : row.at(0);
    if (!PyUnicode_Check(document.get())) {
        return {};
    }
    if (auto counts = read_own_form(document)) {
        return {std::move(*counts)};
    }
    return read_any_form(tracker.names, document);
}

// The entries of what the registry still has.
std::vector<UsageEntry> known_entries(const ModuleState& module, const UsageCounts& counts) {
    std::vector<UsageEntry> known;
    if (counts.entries().empty()) {
        return known;
    }
    const auto tools = find_collaborator(module, kTools);
    std::unordered_map<const HashedText*, Ref> texts;  // the keys repeat few texts many times
    const auto object = [&](const HashedText* text) -> const Ref& {
        auto& made = texts[text];
        return made == nullptr ? made = to_python(text) : made;
    };
    Pacer pacer;
    for (const auto& [key, usage] : counts.entries()) {
        if (registry_knows(module.names, tools, object(key.tool), object(key.action))) {
            known.push_back({&key, usage});
        }
        pacer.step();
    }
    return known;
}

Ref load_usage(Tracker& tracker) {
    StoredUsage stored;
    if (!read_or_log(tracker.module, "Could not read the tool usage counts: %s",
                     [&] { stored = read_usage(tracker); })) {
        return none();
    }
    const auto known = known_entries(tracker.module, stored.counts);
    tracker.health.run_without_gil([&](Health& health) {
        const bool is_whole = known.size() == stored.counts.entries().size();
        health.usage.mark_changed(!is_whole || !stored.is_whole);
        if (is_whole && health.usage.entries().empty()) {
            health.usage.adopt(std::move(stored.counts));
            return;
        }
        for (const auto& [key, usage] : known) {
            health.usage.seed(*key, usage);
        }
    });
    return none();
}

// Writing

// The document as Python text, made without the interpreter lock but for its allocation.
Ref make_document(std::span<const UsageEntry> entries) {
    auto document = without_gil([&] { return write_usage_document(entries); });
    auto text = owned(PyUnicode_New(static_cast<Py_ssize_t>(document.size()), 127));
    // Nobody else has seen the text yet.
    without_gil([&] { std::memcpy(PyUnicode_DATA(text.get()), document.data(), document.size()); });
    free_without_gil(document);
    return text;
}

void write_document(Tracker& tracker, std::span<const UsageEntry> entries) {
    const auto parameters = make_tuple(to_python(kUsageDocumentKey), make_document(entries));
    database(tracker).method(tracker.names[Name::execute], to_python(kReplace), parameters);
}

Ref flush_usage(Tracker& tracker) {
    auto entries =
        tracker.health.run_without_gil([](Health& health) { return health.usage.take_changes(); });
    if (!entries) {
        return to_python(Count{0});
    }
    write_or_mark(
        tracker.health, [&] { write_document(tracker, *entries); },
        [](Health& health) { health.usage.mark_changed(true); });
    const auto count = static_cast<Count>(entries->size());
    free_without_gil(*entries);
    return to_python(count);
}

}  // namespace

Methods usage_mirror_methods() {
    return {
        method<load_usage>("_load_usage", "_load_usage($self)\n--\n\nRead the usage document."),
        method<flush_usage>("_flush_usage",
                            "_flush_usage($self)\n--\n\nWrite the usage document if a count "
                            "changed; return its number of rows."),
    };
}

Methods usage_mirror_functions() { return {method<known, kKnownSignature>(kKnownDoc)}; }

}  // namespace health
