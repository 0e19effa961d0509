// Reading lists out of the service's answers.
#pragma once

#include "util/json_object.h"

/// The array at `path`; throws AERROR::ACCESS_VIOLATION when there is none. Anything else counts no
/// elements: an answer gone wrong would pass for an empty folder.
inline JsonObject GetArray(const JsonObject& document, const char* path) {
  JsonObject array = document.GetObject(path);
  if (!array.IsArray()) throw AERROR::ACCESS_VIOLATION;
  return array;
}
