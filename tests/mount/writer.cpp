#include "tests/mount/writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace host::mount {
namespace fs = std::filesystem;
namespace {

constexpr char kNothing[] = "\x01nothing";
constexpr char kUnreadable[] = "\x01";

std::string Slurp(const fs::path& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return kUnreadable + std::string("cannot open: ") + std::strerror(errno);
  std::string text;
  std::array<char, 65536> buffer;
  ssize_t count = 0;
  while ((count = read(file, buffer.data(), buffer.size())) > 0)
    text.append(buffer.data(), static_cast<size_t>(count));
  const int error = errno;
  close(file);
  return count < 0 ? kUnreadable + std::string("cannot read: ") + std::strerror(error) : text;
}

/// `seen` gathers the names that the service has.
void CompareBelow(emulator::DriveEmulator& service, const std::string& id,
                  const std::string& prefix, const Entries& shown, std::set<std::string>& seen,
                  std::vector<std::string>& faults) {
  for (const std::string& child : service.Children(id)) {
    const Json::Value item = service.Item(child);
    const std::string name = prefix + item["name"].asString();
    if (!seen.insert(name).second) faults.push_back("duplicate at the service: " + name);
    const auto at = shown.find(name);
    const bool folder = item["mimeType"].asString() == "application/vnd.google-apps.folder";
    const std::string value = folder ? kFolder : service.Content(child).value_or("");
    if (at == shown.end())
      faults.push_back("unexpected at the service: " + name);
    else if (at->second != value)
      faults.push_back("wrong at the service: " + name);
    if (folder) CompareBelow(service, child, name + "/", shown, seen, faults);
  }
}

}  // namespace

Entries Shown(const fs::path& root) {
  Entries shown;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const std::string name = entry.path().lexically_relative(root).string();
    shown[name] = entry.is_directory() ? kFolder : Slurp(entry.path());
  }
  return shown;
}

std::vector<std::string> CompareWithService(emulator::DriveEmulator& service,
                                            const std::string& folder, const Entries& shown) {
  std::vector<std::string> faults;
  std::set<std::string> seen;
  CompareBelow(service, service.Find(folder).value_or(""), "", shown, seen, faults);
  for (const auto& [name, value] : shown)
    if (seen.count(name) == 0) faults.push_back("missing at the service: " + name);
  return faults;
}

bool Writer::Work(int most) {
  for (int i = 0; i < most; ++i, ++operations)
    if (!Operate()) return false;
  return true;
}

void Writer::Compare(const Entries& shown, std::vector<std::string>& faults) {
  for (const auto& [name, allowed] : promised) {
    const auto at = shown.find(name);
    const std::string value = at == shown.end() ? kNothing : at->second;
    if (allowed.count(value) == 0 && !IsInterruptedWrite(name, value))
      faults.push_back((value == kNothing ? "missing " : "wrong ") + (root / name).string() + " (" +
                       std::to_string(value.size()) + " bytes, " + value.substr(0, 40) + ")");
  }
  for (const auto& [name, value] : shown)
    if (promised.count(name) == 0 && name.find(" (recovered ") == std::string::npos)
      faults.push_back("unexpected " + (root / name).string());
  promised.clear();
  for (const auto& [name, value] : shown) promised[name] = {value};
  writing.name.clear();
}

std::string Writer::Content() {
  std::string text(random() % 3 == 0 ? random() % 100'000 : random() % 300, '\0');
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

std::string Writer::Pick(bool folder) {
  std::vector<std::string> names;
  for (const auto& [name, values] : promised)
    if ((*values.begin() == kFolder) == folder) names.push_back(name);
  return names.empty() ? "" : names[random() % names.size()];
}

std::string Writer::NewName() {
  const std::string parent = random() % 2 == 0 ? "" : Pick(true);
  return (parent.empty() ? "" : parent + "/") + "n" + std::to_string(counter++);
}

/// The value of a name changes from what it is to `value`: until `act` is done either is allowed,
/// and what is `between`.
template <typename Function>
bool Writer::Change(const std::string& name, const std::string& value, Function&& act,
                    std::set<std::string> between) {
  const auto before = promised.find(name);
  std::set<std::string> allowed =
      before == promised.end() ? std::set<std::string>{kNothing} : before->second;
  allowed.insert(value);
  allowed.insert(between.begin(), between.end());
  promised[name] = allowed;
  if (!act()) return false;
  promised[name] = {value};
  if (value == kNothing) promised.erase(name);
  return true;
}

/// Nothing is promised of such a write. The kernel hands a long one over in runs of whole pages,
/// so the crash may have let any number of them through.
bool Writer::IsInterruptedWrite(const std::string& name, const std::string& value) const {
  constexpr size_t kPage = 4096;
  if (name != writing.name) return false;
  if (value == writing.base) return true;
  for (size_t end = (writing.offset / kPage + 1) * kPage;
       end < writing.offset + writing.piece.size(); end += kPage) {
    std::string content = writing.base;
    if (content.size() < end) content.resize(end);
    content.replace(writing.offset, end - writing.offset, writing.piece, 0, end - writing.offset);
    if (value == content) return true;
  }
  return false;
}

bool Writer::Put(const std::string& name, const std::string& content, int flags, off_t offset,
                 const std::string& base) {
  writing = {name, base, content, static_cast<size_t>(offset)};
  const int file = open((root / name).c_str(), flags | O_CLOEXEC, 0644);
  if (file < 0) return false;
  const bool written =
      pwrite(file, content.data(), content.size(), offset) == static_cast<ssize_t>(content.size());
  const bool synced = random() % 4 != 0 || fsync(file) == 0;
  const bool kept = close(file) == 0 && written && synced;
  if (kept) writing.name.clear();
  return kept;
}

bool Writer::Make() {
  const std::string name = NewName();
  const std::string content = Content();
  return Change(name, content, [&] { return Put(name, content, O_CREAT | O_WRONLY | O_EXCL, 0); },
                {""});
}

bool Writer::Rewrite() {
  const std::string name = Pick(false);
  if (name.empty()) return Make();
  const std::string content = Content();
  return Change(name, content, [&] { return Put(name, content, O_WRONLY | O_TRUNC, 0); });
}

bool Writer::Patch() {
  const std::string name = Pick(false);
  if (name.empty()) return Make();
  const std::string base = *promised[name].begin();
  std::string content = base;
  const std::string piece = Content();
  const size_t offset = content.empty() ? 0 : random() % content.size();
  content.resize(std::max(content.size(), offset + piece.size()));
  content.replace(offset, piece.size(), piece);
  return Change(name, content,
                [&] { return Put(name, piece, O_WRONLY, static_cast<off_t>(offset), base); });
}

/// Saves as editors do.
bool Writer::Save() {
  const std::string name = Pick(false);
  if (name.empty()) return Make();
  const std::string temporary = name + "~" + std::to_string(counter++);
  const std::string content = Content();
  if (!Change(temporary, content,
              [&] { return Put(temporary, content, O_CREAT | O_WRONLY | O_EXCL, 0); }, {""}))
    return false;
  return Move(temporary, name);
}

bool Writer::Move(const std::string& from, const std::string& to) {
  const std::string value = *promised[from].begin();
  return Change(from, kNothing, [&] {
    return Change(to, value,
                  [&] { return rename((root / from).c_str(), (root / to).c_str()) == 0; });
  });
}

bool Writer::Rename() {
  const std::string name = Pick(false);
  return name.empty() ? Make() : Move(name, NewName());
}

bool Writer::Delete() {
  const std::string name = Pick(false);
  if (name.empty()) return Make();
  return Change(name, kNothing, [&] { return unlink((root / name).c_str()) == 0; });
}

bool Writer::MakeFolder() {
  const std::string name = NewName();
  return Change(name, kFolder, [&] { return mkdir((root / name).c_str(), 0755) == 0; });
}

bool Writer::DeleteFolder() {
  const std::string name = Pick(true);
  const auto next = promised.upper_bound(name + "/");
  if (name.empty() || (next != promised.end() && next->first.starts_with(name + "/")))
    return Make();
  return Change(name, kNothing, [&] { return rmdir((root / name).c_str()) == 0; });
}

bool Writer::Operate() {
  switch (random() % 12) {
    case 0:
    case 1:
    case 2:
      return Make();
    case 3:
    case 4:
      return Rewrite();
    case 5:
      return Patch();
    case 6:
    case 7:
      return Save();
    case 8:
      return Rename();
    case 9:
      return Delete();
    case 10:
      return MakeFolder();
    default:
      return DeleteFolder();
  }
}

}  // namespace host::mount
