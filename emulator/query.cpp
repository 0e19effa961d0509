#include "emulator/query.h"

#include <array>
#include <cctype>
#include <optional>
#include <utility>

#include "emulator/api_error.h"
#include "emulator/query_lexer.h"
#include "emulator/times.h"

namespace emulator {

namespace {

class Compiler {
 public:
  Compiler(std::string_view query, int64_t userNumber, const std::string& root)
      : lexer(query), user(userNumber), rootId(root) {}

  SqlCondition Compile() {
    SqlCondition condition = Expression(true);
    if (lexer.Peek().kind != Token::kEnd) Fail();
    return condition;
  }

 private:
  [[noreturn]] static void Fail() { throw InvalidValue("q"); }

  bool Take(std::string_view word) {
    if (!lexer.Peek().Is(word)) return false;
    lexer.Next();
    return true;
  }
  void Expect(std::string_view word) {
    if (!Take(word)) Fail();
  }
  std::string Value() {
    if (lexer.Peek().kind != Token::kValue) Fail();
    return lexer.Next().text;
  }

  // `outermost`: a membership found here may be left to the caller, as long as only "and" follows.
  SqlCondition Expression(bool outermost) {
    SqlCondition left = Term(outermost);
    for (;;) {
      if (Take("and")) {
        left = And(std::move(left), Term(outermost));
      } else if (Take("or")) {
        left = Or(Whole(std::move(left)), Whole(Term(false)));
        outermost = false;
      } else {
        return left;
      }
    }
  }

  SqlCondition Term(bool outermost) {
    if (Take("not")) {
      SqlCondition inner = Whole(Term(false));
      inner.text = "NOT (" + inner.text + ")";
      return inner;
    }
    if (Take("(")) {
      SqlCondition inner = Expression(outermost);
      Expect(")");
      return inner;
    }
    if (lexer.Peek().kind == Token::kValue) return Membership();
    if (lexer.Peek().kind != Token::kWord) Fail();
    const std::string field = lexer.Next().text;
    if (field == "properties" || field == "appProperties") return Property(field);
    if (field == "sharedWithMe") return SharedWithMe();
    return Comparison(field);
  }

  static SqlCondition And(SqlCondition left, SqlCondition right) {
    if (!left.parent.empty() && !right.parent.empty()) right = Whole(std::move(right));
    if (left.parent.empty()) left.parent = right.parent;
    left.sharedWithMe |= right.sharedWithMe;
    return Join(std::move(left), " AND ", right);
  }
  static SqlCondition Or(SqlCondition left, const SqlCondition& right) {
    return Join(std::move(left), " OR ", right);
  }
  static SqlCondition Join(SqlCondition left, const char* word, const SqlCondition& right) {
    left.text = "(" + left.text + word + right.text + ")";
    left.values.insert(left.values.end(), right.values.begin(), right.values.end());
    return left;
  }

  // Writes out what the condition leaves to its user.
  static SqlCondition Whole(SqlCondition condition) {
    if (!condition.parent.empty()) {
      condition.text = "(" + condition.text +
                       " AND EXISTS(SELECT 1 FROM edges WHERE child = i.n AND parent ="
                       " (SELECT n FROM items WHERE id = ?)))";
      condition.values.emplace_back(std::exchange(condition.parent, ""));
    }
    condition.sharedWithMe = false;
    return condition;
  }

  SqlCondition Membership() {
    const std::string value = Value();
    Expect("in");
    const std::string collection = lexer.Next().text;
    SqlCondition condition;
    if (collection == "parents") {
      condition.parent = value == "root" ? rootId : value;
      return condition;
    }
    // "me" is whoever asks, by number; everybody else is named by address.
    const std::string account = value == "me" ? "?" : "(SELECT n FROM users WHERE email = ?)";
    condition.values.push_back(value == "me" ? SqlValue(user) : SqlValue(value));
    if (collection == "owners") {
      condition.text = "i.owner = " + account;
    } else if (collection == "writers") {
      condition.text = "EXISTS(SELECT 1 FROM grants WHERE item = i.n AND user = " + account +
                       " AND role NOT IN ('reader', 'commenter'))";
    } else if (collection == "readers") {
      condition.text = "EXISTS(SELECT 1 FROM grants WHERE item = i.n AND user = " + account + ")";
    } else {
      Fail();
    }
    return condition;
  }

  SqlCondition SharedWithMe() {
    const bool equal = Take("=");
    const bool unequal = !equal && Take("!=");
    const bool wanted = !equal && !unequal ? true : Boolean() == equal;
    SqlCondition condition;
    condition.text = std::string(wanted ? "" : "NOT ") +
                     "(i.drive = 0 AND i.owner <> ? AND EXISTS(SELECT 1 FROM grants WHERE"
                     " item = i.n AND user = ? AND inherited = 0))";
    condition.values = {user, user};
    condition.sharedWithMe = wanted;
    return condition;
  }

  bool Boolean() {
    const Token token = lexer.Next();
    if (token.text != "true" && token.text != "false") Fail();
    return token.text == "true";
  }

  SqlCondition Comparison(const std::string& field) {
    const std::string op = lexer.Next().text;
    if (field == "name" || field == "mimeType") return Text(field, op);
    if (field == "fullText") return FullText(op);
    if (field == "trashed" || field == "starred") return Flag(field, op);
    if (field == "visibility") return Visibility(op);
    return Time(field, op);
  }

  SqlCondition Text(const std::string& field, const std::string& op) {
    const std::string value = Value();
    const std::string column = field == "name" ? "i.name" : "i.mime";
    if (op == "=" || op == "!=") return {column + " " + op + " ?", {value}, "", false};
    if (op != "contains") Fail();
    if (field == "name") return {"has_word(i.name, ?)", {value}, "", false};
    return {"substr(i.mime, 1, length(?)) = ?", {value, value}, "", false};
  }

  SqlCondition FullText(const std::string& op) {
    if (op != "contains") Fail();
    const std::string value = Value();
    return {"(has_word(i.name, ?) OR has_word(i.extra, ?))", {value, value}, "", false};
  }

  SqlCondition Flag(const std::string& field, const std::string& op) {
    if (op != "=" && op != "!=") Fail();
    const bool wanted = Boolean() == (op == "=");
    return {"i." + field + (wanted ? " <> 0" : " = 0"), {}, "", false};
  }

  SqlCondition Visibility(const std::string& op) {
    if (op != "=" && op != "!=") Fail();
    const std::string value = Value();
    const bool anyone = value.rfind("anyone", 0) == 0;
    if (!anyone && value != "limited") Fail();
    return {std::string(anyone == (op == "=") ? "" : "NOT ") +
                "EXISTS(SELECT 1 FROM grants WHERE item = i.n AND type = 'anyone')",
            {},
            "",
            false};
  }

  SqlCondition Time(const std::string& field, const std::string& op) {
    static constexpr std::array<std::string_view, 6> kOrders{"<", "<=", "=", "!=", ">", ">="};
    bool known = false;
    for (const std::string_view order : kOrders) known |= order == op;
    const auto time = known ? ParseRfc3339(Value()) : std::nullopt;
    if (!time) Fail();
    if (field == "modifiedTime") return {"i.modified " + op + " ?", {*time}, "", false};
    if (field == "createdTime") return {"i.created " + op + " ?", {*time}, "", false};
    if (field == "viewedByMeTime") return {"i.modified " + op + " ?", {*time}, "", false};
    if (field != "sharedWithMeTime") Fail();
    return {
        "EXISTS(SELECT 1 FROM grants WHERE item = i.n AND user = ? AND inherited = 0"
        " AND time " +
            op + " ?)",
        {user, *time},
        "",
        false};
  }

  SqlCondition Property(const std::string& field) {
    Expect("has");
    Expect("{");
    Expect("key");
    Expect("=");
    const std::string key = Value();
    Expect("and");
    Expect("value");
    Expect("=");
    const std::string value = Value();
    Expect("}");
    return {"(i.extra <> '' AND EXISTS(SELECT 1 FROM json_each(i.extra, '$." + field +
                "') p WHERE p.key = ? AND p.value = ?))",
            {key, value},
            "",
            false};
  }

  QueryLexer lexer;
  int64_t user;
  const std::string& rootId;
};

char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool WordPart(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || static_cast<unsigned char>(c) >= 0x80;
}

bool StartsAt(std::string_view text, size_t at, std::string_view wanted) {
  if (text.size() - at < wanted.size()) return false;
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (Lower(text[at + i]) != Lower(wanted[i])) return false;
  }
  return true;
}

// Whether a word of `text` begins with `wanted`: the service matches prefixes of words.
bool HasWord(std::string_view text, std::string_view wanted) {
  for (size_t at = 0; at < text.size(); ++at) {
    const bool wordBegins = at == 0 || !WordPart(text[at - 1]) || !WordPart(text[at]);
    if (wordBegins && StartsAt(text, at, wanted)) return true;
  }
  return wanted.empty();
}

std::string_view TextArgument(sqlite3_value* value) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
  if (text == nullptr) return {};
  return {text, static_cast<size_t>(sqlite3_value_bytes(value))};
}

void HasWordFunction(sqlite3_context* context, int, sqlite3_value** arguments) {
  sqlite3_result_int(context, HasWord(TextArgument(arguments[0]), TextArgument(arguments[1])));
}

}  // namespace

SqlCondition CompileQuery(std::string_view query, int64_t user, const std::string& rootId) {
  return Compiler(query, user, rootId).Compile();
}

void AddQueryFunctions(Database& database) {
  sqlite3_create_function_v2(database.Raw(), "has_word", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                             nullptr, HasWordFunction, nullptr, nullptr, nullptr);
}

}  // namespace emulator
