#include "host/core/item.h"

namespace host {
namespace {

constexpr char kDocumentEnding[] = ".webloc";

/// ".Google Docs.webloc" of "Plan.Google Docs.webloc"; empty when the name has no such end.
std::string EndingOf(const std::string& name) {
  const size_t webloc = name.rfind(kDocumentEnding);
  if (webloc == std::string::npos || webloc == 0 ||
      webloc + sizeof kDocumentEnding - 1 != name.size())
    return {};
  const size_t type = name.rfind('.', webloc - 1);
  return type == std::string::npos ? std::string() : name.substr(type);
}

std::string Without(const std::string& name, const std::string& ending) {
  const bool ends = !ending.empty() && name.size() > ending.size() &&
                    name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
  return ends ? name.substr(0, name.size() - ending.size()) : name;
}

}  // namespace

const char* KindOf(const Item& item) {
  if (IsMadeUpFolder(item)) return "virtual folder";
  if (IsFolder(item)) return "folder";
  return IsDocument(item) ? "document" : "file";
}

std::string ServiceName(const Item& item) { return ServiceNameFor(item, item.name); }

std::string ServiceNameFor(const Item& item, const std::string& shown) {
  return IsDocument(item) ? Without(shown, EndingOf(item.name)) : shown;
}

Json::Value ItemJson(const Item& item) {
  Json::Value json;
  json["id"] = item.id;
  json["name"] = item.name;
  json["kind"] = KindOf(item);
  json["modified"] = item.time1;
  if (!IsFolder(item)) json["size"] = Json::Int64(item.size);
  return json;
}

Json::Value BranchJson(const Branch& branch) {
  Json::Value json = ItemJson(branch.item);
  if (!IsFolder(branch.item)) return json;
  json["children"] = Json::arrayValue;
  for (const Branch& child : branch.children) json["children"].append(BranchJson(child));
  return json;
}

}  // namespace host
