#include "emulator/paging.h"

#include <json/json.h>

#include <array>
#include <memory>
#include <utility>

#include "emulator/api_error.h"
#include "emulator/ids.h"

namespace emulator {

namespace {

constexpr std::array kSortKeys{
    std::pair{std::string_view("name"), "i.name COLLATE NOCASE"},
    std::pair{std::string_view("name_natural"), "i.name COLLATE NOCASE"},
    std::pair{std::string_view("folder"), "(i.mime <> 'application/vnd.google-apps.folder')"},
    std::pair{std::string_view("createdTime"), "i.created"},
    std::pair{std::string_view("modifiedTime"), "i.modified"},
    std::pair{std::string_view("modifiedByMeTime"), "i.modified"},
    std::pair{std::string_view("viewedByMeTime"), "i.modified"},
    std::pair{std::string_view("recency"), "i.modified"},
    std::pair{std::string_view("quotaBytesUsed"), "max(i.size, 0)"},
    std::pair{std::string_view("starred"), "i.starred"},
};

std::string SortExpression(std::string_view name, int64_t user) {
  if (name == "sharedWithMeTime") {
    return "coalesce((SELECT time FROM grants WHERE item = i.n AND user = " + std::to_string(user) +
           " AND inherited = 0), 0)";
  }
  for (const auto& [known, expression] : kSortKeys) {
    if (known == name) return expression;
  }
  throw InvalidValue("orderBy");
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

}  // namespace

std::vector<SortKey> ParseOrderBy(std::string_view orderBy, int64_t user) {
  std::vector<SortKey> keys;
  while (!orderBy.empty()) {
    const size_t comma = std::min(orderBy.find(','), orderBy.size());
    std::string_view key = Trimmed(orderBy.substr(0, comma));
    orderBy.remove_prefix(std::min(comma + 1, orderBy.size()));
    const size_t blank = key.find(' ');
    const bool descending = blank != std::string_view::npos;
    if (descending && Trimmed(key.substr(blank)) != "desc") throw InvalidValue("orderBy");
    keys.push_back({SortExpression(key.substr(0, blank), user), descending});
  }
  keys.push_back({"i.n", false});
  return keys;
}

std::string OrderClause(const std::vector<SortKey>& keys) {
  std::string clause;
  for (const SortKey& key : keys) {
    clause += (clause.empty() ? "" : ", ") + key.expression + (key.descending ? " DESC" : "");
  }
  return clause;
}

std::string MakePageToken(const std::string& scope, const std::vector<SqlValue>& last) {
  Json::Value token;
  token.append(Hex(Sha256(scope)).substr(0, 12));
  for (const SqlValue& value : last) {
    if (const auto* number = std::get_if<int64_t>(&value)) {
      token.append(Json::Int64(*number));
    } else {
      token.append(std::get<std::string>(value));
    }
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return "~!!~" + Base64Url(Json::writeString(writer, token));
}

std::vector<SqlValue> ReadPageToken(const std::string& token, const std::string& scope,
                                    size_t keys) {
  const std::string text = token.rfind("~!!~", 0) == 0 ? FromBase64Url(token.substr(4)) : "";
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isArray() ||
      value.size() != keys + 1 || value[0] != Hex(Sha256(scope)).substr(0, 12)) {
    throw InvalidValue("pageToken");
  }
  std::vector<SqlValue> last;
  for (Json::ArrayIndex i = 1; i < value.size(); ++i) {
    if (value[i].isInt64()) {
      last.emplace_back(static_cast<int64_t>(value[i].asInt64()));
    } else {
      last.emplace_back(value[i].asString());
    }
  }
  return last;
}

SqlCondition After(const std::vector<SortKey>& keys, const std::vector<SqlValue>& last) {
  SqlCondition condition;
  condition.text = "0";
  std::string same;
  std::vector<SqlValue> sameValues;
  for (size_t i = 0; i < keys.size(); ++i) {
    condition.text +=
        " OR (" + same + keys[i].expression + (keys[i].descending ? " < ?" : " > ?") + ")";
    condition.values.insert(condition.values.end(), sameValues.begin(), sameValues.end());
    condition.values.push_back(last[i]);
    same += keys[i].expression + " = ? AND ";
    sameValues.push_back(last[i]);
  }
  // Implied by the rest, but it lets the database start at the right place of an index.
  const SortKey& first = keys.front();
  condition.text =
      first.expression + (first.descending ? " <= ?" : " >= ?") + " AND (" + condition.text + ")";
  condition.values.insert(condition.values.begin(), last.front());
  return condition;
}

}  // namespace emulator
