#include "tests/plugin/drive/host_objects.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

namespace {

int Answer(const std::string& text, char* buffer, int* length) {
  if (*length <= static_cast<int>(text.size())) return 1;
  memcpy(buffer, text.c_str(), text.size() + 1);
  *length = static_cast<int>(text.size());
  return 0;
}

}  // namespace

int Profile::GetProfileID(const char* module, char* buffer, int* length) {
  const std::lock_guard guard(mutex);
  askedModule = module;
  return Answer(kProfile, buffer, length);
}

int Profile::SetValue(const char* profile, const char* key, const char* value, int flag) {
  const std::lock_guard guard(mutex);
  writes.push_back({profile, key, value, flag});
  values[key] = value;
  return 0;
}

int Profile::GetValue(const char* profile, const char* key, char* buffer, int* length) {
  const std::lock_guard guard(mutex);
  keysRead.push_back(key);
  const auto found = values.find(key);
  if (found == values.end() || strcmp(profile, kProfile) != 0) return 1;
  return Answer(found->second, buffer, length);
}

void Profile::Set(const std::string& key, const std::string& value) {
  const std::lock_guard guard(mutex);
  values[key] = value;
}

void Profile::Erase(const std::string& key) {
  const std::lock_guard guard(mutex);
  values.erase(key);
}

std::string Profile::Get(const std::string& key) const {
  const std::lock_guard guard(mutex);
  const auto found = values.find(key);
  return found == values.end() ? "" : found->second;
}

std::vector<Profile::Write> Profile::Writes() const {
  const std::lock_guard guard(mutex);
  return writes;
}

std::string Profile::AskedModule() const {
  const std::lock_guard guard(mutex);
  return askedModule;
}

std::vector<std::string> Profile::KeysRead() const {
  const std::lock_guard guard(mutex);
  return keysRead;
}

const char* Authoriser::Renew(IProtocol_V2* protocol, const char* credential) {
  ++renewals;
  const auto renewed = onRenew ? onRenew(protocol, credential) : std::nullopt;
  if (!renewed) return nullptr;
  ++outstanding;
  return strdup(renewed->c_str());
}

void Authoriser::Free(const char* credential) {
  --outstanding;
  free(const_cast<char*>(credential));
}

void ItemList::Add(_FS_FILE_V2* file) {
  items.push_back(*file);
  if (onAdd) onAdd(*file);
}

std::vector<std::string> ItemList::Names() const {
  std::vector<std::string> names;
  for (const auto& item : items) names.push_back(item.name);
  return names;
}

const _FS_FILE_V2* ItemList::Find(const std::string& name) const {
  const auto found =
      std::find_if(items.begin(), items.end(), [&](const auto& item) { return item.name == name; });
  return found == items.end() ? nullptr : &*found;
}

void ChangeSink::Reserved0() { ADD_FAILURE() << "a slot of the host's own was called"; }
void ChangeSink::Reserved1() { ADD_FAILURE() << "a slot of the host's own was called"; }
void ChangeSink::Reserved2() { ADD_FAILURE() << "a slot of the host's own was called"; }

void ChangeSink::Changed(const char* folderId) {
  {
    const std::lock_guard guard(mutex);
    EXPECT_FALSE(closed) << "the sink was called after the drive had let go of it";
    ids.push_back(folderId);
  }
  arrived.notify_all();
  if (onChanged) onChanged(folderId);
}

std::vector<std::string> ChangeSink::Ids() const {
  const std::lock_guard guard(mutex);
  return ids;
}

bool ChangeSink::WaitFor(const std::string& folderId) {
  std::unique_lock guard(mutex);
  return arrived.wait_for(guard, std::chrono::seconds(20),
                          [&] { return std::find(ids.begin(), ids.end(), folderId) != ids.end(); });
}

void ChangeSink::Close() {
  const std::lock_guard guard(mutex);
  closed = true;
}

void Fetched::OnData(long long offset, const char* data, unsigned long long length,
                     long long* extra) {
  if (start < 0) start = offset;
  if (offset == start) bytes.clear();
  if (offset != start + static_cast<long long>(bytes.size())) gap = true;
  bytes.append(data, length);
  blocks.emplace_back(offset, length);
  inMemory = extra != nullptr && *extra == 0;
  if (onBlock) onBlock();
}

int32_t CachedFile::Read(CacheReadRequest* request) {
  offsets.push_back(request->offset);
  if (onRead) {
    const int32_t failure = onRead(*request);
    if (failure != 0) return failure;
  }
  const auto offset = std::min<uint64_t>(request->offset, content.size());
  request->read = std::min<uint64_t>(request->wanted, content.size() - offset);
  memcpy(request->buffer, content.data() + offset, request->read);
  return 0;
}
