// The tracker's mirror in its repository's database: the tool_health table and the usage document.
// Both are read when a tracker is made and written when it is flushed.
#pragma once

#include <list>

#include "module/lock.hpp"
#include "module/python.hpp"

namespace health {

extern const char* const kHealthColumns;     // in the order in which they are read and written
extern const char* const kUsageDocumentKey;  // of the document's row in schema_info

// Writes to the database. When that fails, what was to be written counts as changed again.
template <class Write>
void write_or_mark(SharedHealth& health, std::list<Taken>& taken, Write&& write) {
    const auto error = error_of(write);
    if (error != nullptr) {
        health.mark_again(taken);
        raise_again(error);
    }
}

}  // namespace health
