// Small helpers shared by the code that reads configuration documents.
#pragma once

#include <jansson.h>

#include <memory>

namespace vigild::config {

struct JsonRelease {
    void operator()(json_t* json) const { json_decref(json); }
};
using JsonPtr = std::unique_ptr<json_t, JsonRelease>;

// Null when the member is missing or not a JSON string.
inline const char* stringMember(const json_t* object, const char* key) {
    return json_string_value(json_object_get(object, key));
}

// A module may leave a name or type null; it reads as empty, as in the document.
inline const char* orEmpty(const char* value) { return value != nullptr ? value : ""; }

}  // namespace vigild::config
