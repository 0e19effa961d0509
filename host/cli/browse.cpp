// ls, stat
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <limits>
#include <vector>

#include "host/cli/commands.h"
#include "host/cli/terminal.h"
#include "host/core/drive_tree.h"
#include "host/core/json_text.h"
#include "host/core/time_text.h"

namespace host {
namespace {

struct ListOptions {
  std::string path = "/";
  bool details = false;
  bool recursive = false;
  bool human = false;
  bool tree = false;
  int depth = 0;  // folders below which nothing is shown; 0: no limit
};

std::string Coloured(const Item& item, const Paint& paint) {
  const std::string name = Printable(item.name);
  if (IsMadeUpFolder(item)) return paint.Cyan(name);
  if (IsFolder(item)) return paint.Blue(name);
  return IsDocument(item) ? paint.Green(name) : name;
}

std::string SizeText(const Item& item, bool human) {
  if (IsFolder(item)) return "-";
  return human ? HumanBytes(item.size) : std::to_string(item.size);
}

/// One line a name, or kind, size, time and name in columns.
std::string Lines(const std::vector<Branch>& items, const ListOptions& options) {
  const Paint paint(STDOUT_FILENO);
  int sizeWidth = 0;
  for (const Branch& branch : items)
    sizeWidth = std::max(sizeWidth, DisplayWidth(SizeText(branch.item, options.human)));
  std::string text;
  for (const Branch& branch : items) {
    const Item& item = branch.item;
    if (options.details)
      text += std::string(IsFolder(item)     ? "d"
                          : IsDocument(item) ? "w"
                                             : "-") +
              "  " + PadLeft(SizeText(item, options.human), sizeWidth) + "  " +
              paint.Faint(PadRight(ShortTime(item.time1), 16)) + "  ";
    text += Coloured(item, paint) + "\n";
  }
  return text;
}

/// The folder's lines under its path, then those of the folders in it.
void PrintBelow(const Branch& branch, const DrivePath& path, const ListOptions& options,
                bool first) {
  const Paint paint(STDOUT_FILENO);
  Print((first ? "" : "\n") + paint.Bold(Printable(path.Text()) + ":") + "\n" +
        Lines(branch.children, options));
  for (const Branch& child : branch.children)
    if (IsFolder(child.item)) PrintBelow(child, path.Child(child.item.name), options, false);
}

/// The items as a drawing, each level further in.
void DrawTree(const std::vector<Branch>& items, const std::string& indentation, const Paint& paint,
              std::string& text) {
  for (size_t i = 0; i < items.size(); ++i) {
    const bool last = i + 1 == items.size();
    text +=
        paint.Faint(indentation + (last ? "└── " : "├── ")) + Coloured(items[i].item, paint) + "\n";
    DrawTree(items[i].children, indentation + (last ? "    " : "│   "), paint, text);
  }
}

Json::Value ArrayJson(const std::vector<Branch>& items, bool recursive) {
  Json::Value array(Json::arrayValue);
  for (const Branch& branch : items)
    array.append(recursive ? BranchJson(branch) : ItemJson(branch.item));
  return array;
}

std::vector<Branch> Matching(DriveTree& tree, const DrivePath& path) {
  const DrivePath parent = path.Parent();
  const Item folder = tree.FindFolder(parent);
  std::vector<Branch> found;
  for (const Item& item : tree.Children(folder, parent))
    if (Matches(path.names.back(), item.name)) found.push_back({item, {}});
  if (found.empty())
    throw Failure("nothing in \"" + parent.Text() + "\" matches \"" + path.names.back() + "\"",
                  "look with `vormlane ls \"" + parent.Text() + "\"`", AERROR::FILE_NOT_FOUND);
  return found;
}

/// What a path shows: a folder's children, a file itself, or all that a pattern matches.
struct Listing {
  std::vector<Branch> items;
  bool isFolder = false;
};

Listing List(DriveTree& tree, const DrivePath& path, const ListOptions& options) {
  const bool pattern = !path.names.empty() && IsPattern(path.names.back());
  const auto exact = pattern ? tree.FindIfThere(path) : tree.Find(path);
  if (!exact) return {Matching(tree, path), false};
  if (!IsFolder(*exact)) return {{{*exact, {}}}, false};
  const int depth = options.depth > 0 ? options.depth : std::numeric_limits<int>::max();
  if (options.recursive) return {tree.Walk(*exact, path, depth).children, true};
  Listing listing{{}, true};
  for (Item& item : tree.Children(*exact, path)) listing.items.push_back({std::move(item), {}});
  return listing;
}

void RunList(Context& context, const ListOptions& options) {
  DriveTree tree(context.Connected());
  const DrivePath path = DrivePath::Parse(options.path);
  const Listing listing = List(tree, path, options);
  if (context.json) {
    Print(PrettyJson(ArrayJson(listing.items, options.recursive)));
  } else if (options.tree && listing.isFolder) {
    const Paint paint(STDOUT_FILENO);
    std::string text = paint.Bold(Printable(path.Text())) + "\n";
    DrawTree(listing.items, "", paint, text);
    Print(text);
  } else if (options.recursive && listing.isFolder) {
    PrintBelow({Item(), listing.items}, path, options, true);
  } else {
    Print(Lines(listing.items, options));
  }
}

Json::Value StatJson(const Item& item, const DrivePath& path) {
  Json::Value json = ItemJson(item);
  json["path"] = path.Text();
  json["parents"] = Json::arrayValue;
  for (const std::string& parent : item.parents) json["parents"].append(parent);
  return json;
}

void RunStat(Context& context, const std::string& text) {
  DriveTree tree(context.Connected());
  const DrivePath path = DrivePath::Parse(text);
  const Item item = tree.Find(path);
  if (context.json) return Print(PrettyJson(StatJson(item, path)));
  const Paint paint(STDOUT_FILENO);
  std::string out;
  const auto line = [&](const char* label, const std::string& value) {
    out += paint.Faint(PadRight(label, 10)) + value + "\n";
  };
  line("path", Printable(path.Text()));
  line("name", Coloured(item, paint));
  line("kind", KindOf(item));
  line("id", item.id);
  if (!IsFolder(item))
    line("size", std::to_string(item.size) + " bytes" +
                     (item.size < 1024 ? "" : " (" + HumanBytes(item.size) + ")"));
  line("modified", item.time1);
  for (const std::string& parent : item.parents) line("parent", parent);
  Print(out);
}

}  // namespace

void AddBrowseCommands(CLI::App& app, Context& context) {
  CLI::App* list = app.add_subcommand("ls", "List a folder, a file, or what a pattern matches");
  auto options = std::make_shared<ListOptions>();
  list->add_option("PATH", options->path, "Path, id:ID, or a pattern in the last name");
  list->add_flag("-l,--long", options->details, "With kind, size and time");
  list->add_flag("-R,--recursive", options->recursive, "Everything below as well");
  list->add_flag("--human", options->human, "Sizes in KiB, MiB, ...");
  list->add_flag("--tree", options->tree, "Everything below as well, drawn as a tree");
  list->add_option("--depth", options->depth, "Go down that many folders only (-R, --tree)")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  list->callback([&context, options] {
    options->recursive = options->recursive || options->tree;
    RunList(context, *options);
  });

  CLI::App* stat = app.add_subcommand("stat", "Show one item's record");
  auto path = std::make_shared<std::string>();
  stat->add_option("PATH", *path, "Path or id:ID")->required();
  stat->callback([&context, path] { RunStat(context, *path); });
}

}  // namespace host
