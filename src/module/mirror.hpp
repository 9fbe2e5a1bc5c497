// The tracker's mirror in its repository's database: the tool_health table and the usage document.
// Both are read when a tracker is made and written when it is flushed.
#pragma once

#include <exception>

#include "module/python.hpp"

namespace health {

extern const char* const kHealthColumns;     // in the order in which they are read and written
extern const char* const kUsageDocumentKey;  // of the document's row in schema_info

// Writes to the database. When that fails, `mark` marks what was to be written as changed again,
// whatever signals arrive meanwhile: an error that one of their handlers raises is passed on in
// place of the database's, which is its context.
template <class Write, class Mark>
void write_or_mark(Write&& write, Mark&& mark) {
    try {
        write();
    } catch (const std::exception&) {
        set_error_from_exception();
        auto error = take_error();
        while (true) {
            try {
                mark();
                break;
            } catch (const PythonError&) {
                auto later = take_error();
                PyException_SetContext(later, error.release());
                error = std::move(later);
            }
        }
        raise_again(error);
    }
}

}  // namespace health
