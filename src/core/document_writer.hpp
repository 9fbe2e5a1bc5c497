// Writes the usage document: the counts as compact, ASCII-only JSON.
#pragma once

#include <span>
#include <string>

#include "core/usage.hpp"

namespace health {

// An array with an object per entry, in their order, its total rounded to 3 decimals.
std::string write_usage_document(std::span<const UsageEntry> entries);

}  // namespace health
