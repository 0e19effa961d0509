// The search language of files.list (parameter `q`), compiled to SQL over the store's tables.
// https://developers.google.com/drive/api/guides/search-files
//
//   expression := term { ( "and" | "or" ) term }          evaluated from left to right
//   term       := "not" term | "(" expression ")" | membership | comparison | property
//               | "sharedWithMe"
//   membership := value "in" ( "parents" | "owners" | "writers" | "readers" )
//   comparison := field operator value
//   property   := ( "properties" | "appProperties" ) "has"
//                 "{" "key" "=" value "and" "value" "=" value "}"
//   field      := "name" | "fullText" | "mimeType" | "modifiedTime" | "createdTime"
//               | "viewedByMeTime" | "sharedWithMeTime" | "trashed" | "starred" | "sharedWithMe"
//               | "visibility"
//   operator   := "contains" | "=" | "!=" | "<" | "<=" | ">" | ">="
//   value      := "'" text "'" | '"' text '"' | "true" | "false"     with \' \" and \\ in text
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "emulator/sql.h"

namespace emulator {

using SqlValue = std::variant<int64_t, std::string>;

/// A condition over `items i`, with the values of its question marks.
struct SqlCondition {
  std::string text = "1";
  std::vector<SqlValue> values;
  /// The folder id of a membership that everything found must satisfy; empty when there is none.
  /// The condition does not repeat it.
  std::string parent;
  bool sharedWithMe = false;  ///< everything found must be shared with the user
};

/// `user` is the number and `rootId` the root of the account that asks. Throws the ApiError that
/// the service gives for a query that does not parse.
SqlCondition CompileQuery(std::string_view query, int64_t user, const std::string& rootId);

/// Makes the SQL functions that compiled conditions call.
void AddQueryFunctions(Database& database);

}  // namespace emulator
