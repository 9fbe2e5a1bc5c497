// Texts for the core, hashed as no interpreter would.
#pragma once

#include <functional>
#include <string_view>

#include "core/text.hpp"

namespace health {

inline std::size_t hash_of(std::string_view text) { return std::hash<std::string_view>{}(text); }

inline HashedText hashed(std::string_view text) { return {text, hash_of(text)}; }

}  // namespace health
