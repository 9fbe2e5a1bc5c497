#include "module/python.hpp"

#include <new>

#include "core/timestamp.hpp"

namespace health {

void set_error_from_exception() {
    try {
        throw;
    } catch (const PythonError&) {
        // The indicator is set already.
    } catch (const UnwritableTime& error) {
        PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
}

}  // namespace health
