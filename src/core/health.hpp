// What a tracker keeps in memory.
#pragma once

#include "core/tool_states.hpp"
#include "core/usage.hpp"

namespace health {

struct Health {
    ToolStates states;
    UsageCounts usage;

    bool has_changes() const { return states.has_changes() || usage.has_changes(); }
};

}  // namespace health
