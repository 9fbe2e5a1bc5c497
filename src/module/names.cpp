#include "module/names.hpp"

#include <algorithm>

namespace health {

Names::Names() {
#define HEALTH_NAME(name) #name,
    constexpr std::array texts{HEALTH_NAMES(HEALTH_NAME)};
#undef HEALTH_NAME
    std::transform(texts.begin(), texts.end(), names_.begin(),
                   [](const char* text) { return owned(PyUnicode_InternFromString(text)); });
}

}  // namespace health
