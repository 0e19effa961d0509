// OAuth 2.0 for installed applications: consent page, code with PKCE, tokens, revocation.
// https://developers.google.com/identity/protocols/oauth2/native-app
#include <array>

#include "emulator/api_error.h"
#include "emulator/drive_emulator.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"
#include "emulator/tokens.h"

namespace emulator {

namespace {

constexpr int64_t kCodeSeconds = 600;
constexpr char kUsualScope[] = "https://www.googleapis.com/auth/drive";
// What the page hands on from the request to the answer.
constexpr std::array kCarried{"client_id", "redirect_uri",   "response_type",        "scope",
                              "state",     "code_challenge", "code_challenge_method"};

std::string HtmlText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string QueryText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_' || c == '.') {
      out += c;
    } else {
      out += '%' + Hex({&c, 1});
    }
  }
  return out;
}

Reply Page(int status, const std::string& body) {
  Reply reply;
  reply.status = status;
  reply.contentType = "text/html; charset=UTF-8";
  reply.body =
      "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Sign in"
      "</title><style>body{font-family:sans-serif;max-width:32em;margin:4em auto}"
      "button{padding:.6em 1.4em;margin-right:1em}label{display:block;margin:.6em 0}"
      "</style></head><body>" +
      body + "</body></html>\n";
  return reply;
}

Reply Refusal(const std::string& error, const std::string& text) {
  return Page(
      400, "<h1>Access blocked</h1><p>" + HtmlText(text) + "</p><p>Error 400: " + error + "</p>");
}

Reply TokenError(int status, const std::string& error, const std::string& description) {
  Json::Value value;
  value["error"] = error;
  value["error_description"] = description;
  return JsonReply(value, status);
}

// Installed applications listen on whatever port is free.
bool LoopbackRedirect(const std::string& uri) {
  for (const std::string host : {"http://127.0.0.1", "http://localhost", "http://[::1]"}) {
    if (uri.rfind(host, 0) != 0) continue;
    const std::string rest = uri.substr(host.size());
    if (rest.empty() || rest.front() == ':' || rest.front() == '/') return true;
  }
  return false;
}

/// The parameters of a form body, or of the query when there is no body.
httplib::Params FormOf(const Call& call) {
  if (call.body.empty()) return call.request.params;
  httplib::Params params;
  httplib::detail::parse_query_text(call.body, params);
  return params;
}

std::string Value(const httplib::Params& params, const std::string& name) {
  const auto found = params.find(name);
  return found == params.end() ? "" : found->second;
}

/// The refusal of a request that must not be answered by a redirect; none when it is in order.
std::optional<Reply> CheckRequest(const httplib::Params& params) {
  if (Value(params, "client_id") != kClientId) {
    return Refusal("invalid_client", "The OAuth client was not found.");
  }
  if (!LoopbackRedirect(Value(params, "redirect_uri"))) {
    return Refusal("redirect_uri_mismatch", "This app's request has an unknown redirect address.");
  }
  if (Value(params, "response_type") != "code") {
    return Refusal("unsupported_response_type", "Only response_type=code is supported.");
  }
  const std::string method = Value(params, "code_challenge_method");
  if (!method.empty() && method != "S256" && method != "plain") {
    return Refusal("invalid_request", "The code challenge method is not supported.");
  }
  return std::nullopt;
}

std::string AccountChoice(Service& service, const std::string& hint) {
  std::string html;
  const auto work = service.store.Begin();
  Statement row = service.store.Sql().Query("SELECT email, name FROM users ORDER BY n");
  while (row.Step()) {
    const std::string email = HtmlText(row.Text(0));
    const bool chosen = hint.empty() ? html.empty() : hint == row.Text(0);
    html += "<label><input type=\"radio\" name=\"account\" value=\"" + email + "\"" +
            (chosen ? " checked" : "") + "> " + HtmlText(row.Text(1)) + " &lt;" + email +
            "&gt;</label>";
  }
  return html;
}

std::string IssueCode(Service& service, const User& user, const httplib::Params& params) {
  Json::Value detail;
  for (const char* name : kCarried) detail[name] = Value(params, name);
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return service.tokens.Issue(TokenKind::kCode, user.n, "", kCodeSeconds,
                              Json::writeString(writer, detail));
}

bool ClientMatches(const httplib::Params& params) {
  return Value(params, "client_id") == kClientId && Value(params, "client_secret") == kClientSecret;
}

bool VerifierMatches(const Json::Value& detail, const std::string& verifier) {
  const std::string challenge = detail["code_challenge"].asString();
  if (challenge.empty()) return true;
  if (detail["code_challenge_method"] == "S256") return Base64Url(Sha256(verifier)) == challenge;
  return verifier == challenge;
}

Reply TokenReply(Service& service, int64_t user, const std::string& family,
                 const std::string& refresh, const std::string& scope) {
  Json::Value value;
  value["access_token"] =
      service.tokens.Issue(TokenKind::kAccess, user, family, Tokens::kLifetimeSeconds);
  value["expires_in"] = Json::Int64(Tokens::kLifetimeSeconds - 1);
  value["scope"] = scope.empty() ? kUsualScope : scope;
  value["token_type"] = "Bearer";
  if (!refresh.empty()) value["refresh_token"] = refresh;
  return JsonReply(value);
}

Reply ExchangeCode(Service& service, const httplib::Params& params) {
  const auto work = service.store.Begin();
  const auto code = service.tokens.Use(TokenKind::kCode, Value(params, "code"));
  if (!code) return TokenError(400, "invalid_grant", "Malformed or used auth code.");
  const Json::Value detail = ParseObject(code->detail);
  if (detail["redirect_uri"] != Value(params, "redirect_uri")) {
    return TokenError(400, "redirect_uri_mismatch", "Bad Request");
  }
  if (!VerifierMatches(detail, Value(params, "code_verifier"))) {
    return TokenError(400, "invalid_grant", "Invalid code verifier.");
  }
  const std::string refresh = service.tokens.Issue(TokenKind::kRefresh, code->user, "", 0);
  return TokenReply(service, code->user, refresh, refresh, detail["scope"].asString());
}

Reply Refresh(Service& service, const httplib::Params& params) {
  const auto work = service.store.Begin();
  const auto refresh = service.tokens.Find(TokenKind::kRefresh, Value(params, "refresh_token"));
  if (!refresh) {
    return TokenError(400, "invalid_grant", "Token has been expired or revoked.");
  }
  return TokenReply(service, refresh->user, refresh->family, "", "");
}

}  // namespace

Reply ConsentPage(Service& service, Call& call) {
  if (auto refusal = CheckRequest(call.request.params)) return *refusal;
  std::string form =
      "<h1>Choose an account</h1><form method=\"post\" action=\"/o/oauth2/v2/auth\">";
  for (const char* name : kCarried) {
    form += std::string("<input type=\"hidden\" name=\"") + name + "\" value=\"" +
            HtmlText(call.Param(name)) + "\">";
  }
  form += AccountChoice(service, call.Param("login_hint"));
  form += "<p><b>" + HtmlText(call.Param("client_id")) +
          "</b> wants to see, edit, create and delete all of your Drive files.</p>"
          "<button id=\"approve\" name=\"consent\" value=\"allow\">Allow</button>"
          "<button id=\"deny\" name=\"consent\" value=\"deny\">Cancel</button></form>";
  return Page(200, form);
}

Reply ConsentAnswer(Service& service, Call& call) {
  const httplib::Params params = FormOf(call);
  if (auto refusal = CheckRequest(params)) return *refusal;
  const auto user = service.store.UserNamed(Value(params, "account"));
  if (!user) return Refusal("invalid_request", "Choose an account.");
  const std::string uri = Value(params, "redirect_uri");
  std::string target = uri + (uri.find('?') == std::string::npos ? "?" : "&");
  target += Value(params, "consent") == "allow"
                ? "code=" + QueryText(IssueCode(service, *user, params)) +
                      "&scope=" + QueryText(Value(params, "scope"))
                : "error=access_denied";
  if (!Value(params, "state").empty()) target += "&state=" + QueryText(Value(params, "state"));
  Reply reply = Page(302, "");
  reply.headers.emplace_back("Location", target);
  return reply;
}

Reply IssueTokens(Service& service, Call& call) {
  const httplib::Params params = FormOf(call);
  if (!ClientMatches(params)) {
    return TokenError(401, "invalid_client", "The OAuth client was not found.");
  }
  const std::string grant = Value(params, "grant_type");
  if (grant == "authorization_code") return ExchangeCode(service, params);
  if (grant == "refresh_token") return Refresh(service, params);
  return TokenError(400, "unsupported_grant_type", "Invalid grant_type: " + grant);
}

Reply RevokeToken(Service& service, Call& call) {
  if (!service.tokens.Revoke(Value(FormOf(call), "token"))) {
    return TokenError(400, "invalid_token", "Token expired or revoked");
  }
  return JsonReply(Json::Value(Json::objectValue));
}

}  // namespace emulator
