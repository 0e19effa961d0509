// Pages that start after the last thing of the page before, whatever was inserted or deleted in
// between: a page token holds the sort keys of that last thing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "emulator/query.h"

namespace emulator {

struct SortKey {
  std::string expression;  ///< SQL
  bool descending = false;
};

/// Parses `orderBy` ("folder,modifiedTime desc,name"). The last key is always the item's number.
/// Throws ApiError for keys that the service does not know.
std::vector<SortKey> ParseOrderBy(std::string_view orderBy, int64_t user);

std::string OrderClause(const std::vector<SortKey>& keys);

/// `scope` names the listing that the token belongs to.
std::string MakePageToken(const std::string& scope, const std::vector<SqlValue>& last);
/// The keys after which to go on. Throws ApiError for a token that is not of this scope.
std::vector<SqlValue> ReadPageToken(const std::string& token, const std::string& scope,
                                    size_t keys);

/// The condition that holds for what comes after `last`.
SqlCondition After(const std::vector<SortKey>& keys, const std::vector<SqlValue>& last);

}  // namespace emulator
