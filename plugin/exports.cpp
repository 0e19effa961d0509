// The module's entry points and the globals that all of its drives share.
#include <cstdlib>
#include <cstring>

#include "gdrive/google_drive.h"
#include "net/logging.h"
#include "policy/google_curl.h"

const char* protocol_version = "1.0.0";
ILog* logger = nullptr;
IAsyncQueue* aq = nullptr;
std::mutex _curlm;
std::atomic<int64_t> _curlcnt{0};
GoogleCURLQueue cq(0);
SteadyTime _curlbegin = SteadyNow();

int GetSupports() { return 3; }

bool GetProtocol(const char* name, IProtocolManager* manager, void** out) {
  if (out == nullptr) return false;
  try {
    IProtocol_V2* drive = new GoogleDrive(name, manager);
    *out = drive;
    return true;
  } catch (...) {
    return false;
  }
}

char* GetSupportProtocol(char** out) {
  char* name = strdup("gdrive");
  if (out != nullptr) *out = name;
  return name;
}

void FreeP(void* pointer) { free(pointer); }
const char* GetProtocolVersion() { return protocol_version; }
int GetAuthType() { return GoogleDrive::GetAuthType(); }

AERROR GetAuthFields(char* buffer, int* length) {
  return GoogleDrive::GetAuthFields(buffer, length);
}

AERROR GetOptFields(char* buffer, int* length) { return GoogleDrive::GetOptFields(buffer, length); }

bool BindLogger(ILog* log) {
  SetLogger(log);
  return true;
}

void UnbindLogger() { SetLogger(nullptr); }

bool BindAsyncQ(IAsyncQueue* queue) {
  if (queue != nullptr) aq = queue;
  return queue != nullptr;
}

void UnbindAsyncQ() { aq = nullptr; }

void OnLoad() {}

AERROR QueueAsync(IAsyncObj* job, void* context) {
  try {
    if (aq != nullptr) return aq->Enqueue(job, context);
    return job != nullptr ? job->Process(context) : AERROR::ASYNCQ_NULLOBJECT;
  } catch (...) {
    return AERROR::FAILED;
  }
}
