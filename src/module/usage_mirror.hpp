// What the rest of the module shares with the usage document's reader and writer.
#pragma once

namespace health {

// The key of the document's row in schema_info.
inline constexpr const char* kUsageDocumentKey = "tool_usage";

}  // namespace health
