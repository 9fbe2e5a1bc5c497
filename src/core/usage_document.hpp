// The usage document: the counts as compact, ASCII-only JSON.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/usage.hpp"

namespace health {

// The counts in a document, which must be ASCII, its texts hashed by `hash`. Nothing for one of
// any other form than the writer's, which the interpreter's JSON reader may still understand.
std::optional<UsageCounts> read_usage_document(std::string_view document,
                                               std::size_t (*hash)(std::string_view));

// An array with an object per entry, in their order, its total rounded to 3 decimals.
std::string write_usage_document(std::span<const UsageEntry> entries);

}  // namespace health
