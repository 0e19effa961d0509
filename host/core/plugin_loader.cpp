#include "host/core/plugin_loader.h"

#include <dlfcn.h>

#include <vector>

#include "host/core/failure.h"

namespace host {
namespace {

constexpr char kVersion[] = "1.0.0";
constexpr char kProtocol[] = "gdrive";

[[noreturn]] void Refuse(const std::filesystem::path& module, const std::string& why) {
  throw Failure("cannot use the protocol module " + module.string() + ": " + why,
                "use the module that came with this program, or name one with --plugin");
}

std::string Reason() {
  const char* error = dlerror();
  return error == nullptr ? "unknown error" : error;
}

}  // namespace

struct Plugin::Functions {
  decltype(&::GetSupports) getSupports;
  decltype(&::GetProtocol) getProtocol;
  decltype(&::GetSupportProtocol) getSupportProtocol;
  decltype(&::FreeP) freeP;
  decltype(&::GetProtocolVersion) getProtocolVersion;
  decltype(&::GetAuthType) getAuthType;
  decltype(&::GetAuthFields) getAuthFields;
  decltype(&::GetOptFields) getOptFields;
  decltype(&::BindLogger) bindLogger;
  decltype(&::UnbindLogger) unbindLogger;
  decltype(&::BindAsyncQ) bindAsyncQ;
  decltype(&::UnbindAsyncQ) unbindAsyncQ;
  decltype(&::OnLoad) onLoad;
  decltype(&::QueueAsync) queueAsync;
  decltype(&::GetAERRORA) getAERRORA;
  decltype(&::ConvertAERROR) convertAERROR;

  Functions(void* handle, const std::filesystem::path& module) {
    Resolve(handle, module, "GetSupports", getSupports);
    Resolve(handle, module, "GetProtocol", getProtocol);
    Resolve(handle, module, "GetSupportProtocol", getSupportProtocol);
    Resolve(handle, module, "FreeP", freeP);
    Resolve(handle, module, "GetProtocolVersion", getProtocolVersion);
    Resolve(handle, module, "GetAuthType", getAuthType);
    Resolve(handle, module, "GetAuthFields", getAuthFields);
    Resolve(handle, module, "GetOptFields", getOptFields);
    Resolve(handle, module, "BindLogger", bindLogger);
    Resolve(handle, module, "UnbindLogger", unbindLogger);
    Resolve(handle, module, "BindAsyncQ", bindAsyncQ);
    Resolve(handle, module, "UnbindAsyncQ", unbindAsyncQ);
    Resolve(handle, module, "_Z6OnLoadv", onLoad);
    Resolve(handle, module, "_Z10QueueAsyncP9IAsyncObjPv", queueAsync);
    Resolve(handle, module, "GetAERRORA", getAERRORA);
    Resolve(handle, module, "ConvertAERROR", convertAERROR);
  }

  template <typename Function>
  static void Resolve(void* handle, const std::filesystem::path& module, const char* name,
                      Function& function) {
    void* symbol = dlsym(handle, name);
    if (symbol == nullptr) Refuse(module, std::string("it does not export ") + name);
    function = reinterpret_cast<Function>(symbol);
  }

  std::string SupportedProtocol() const {
    char* text = getSupportProtocol(nullptr);
    const std::string protocol = text == nullptr ? "" : text;
    freeP(text);
    return protocol;
  }
};

void Plugin::Close::operator()(void* module) const { dlclose(module); }

Plugin::Plugin(const std::filesystem::path& module, ILog* log, IAsyncQueue* queue) {
  handle.reset(dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!handle) Refuse(module, Reason());
  functions = std::make_unique<Functions>(handle.get(), module);
  const std::string version = Version();
  if (version != kVersion) Refuse(module, "it has version " + version + ", not " + kVersion);
  const std::string protocol = functions->SupportedProtocol();
  if (protocol != kProtocol) Refuse(module, "it speaks \"" + protocol + "\", not " + kProtocol);
  functions->onLoad();
  if (log != nullptr) functions->bindLogger(log);
  if (queue != nullptr) functions->bindAsyncQ(queue);
}

Plugin::~Plugin() {
  functions->unbindAsyncQ();
  functions->unbindLogger();
}

DrivePtr Plugin::MakeDrive(const std::string& name, IProtocolManager& manager) const {
  void* made = nullptr;
  if (!functions->getProtocol(name.c_str(), &manager, &made) || made == nullptr)
    throw Failure("the protocol module could not make a drive", "run again with --verbose");
  return DrivePtr(static_cast<IProtocol_V2*>(made));
}

std::string Plugin::Version() const {
  const char* version = functions->getProtocolVersion();
  return version == nullptr ? "" : version;
}

namespace {

std::string Filled(AERROR (*fill)(char*, int*), const char* what) {
  std::vector<char> buffer(4096);
  for (int attempt = 0; attempt < 2; ++attempt) {
    int length = static_cast<int>(buffer.size()) - 1;
    const AERROR code = fill(buffer.data(), &length);
    if (code == AERROR::SUCCESS) return std::string(buffer.data(), static_cast<size_t>(length));
    if (code != AERROR::INSUFFICIENT_BUFFER || length < 0) break;
    buffer.resize(static_cast<size_t>(length) + 1);
  }
  throw Failure(std::string("the protocol module does not describe its ") + what,
                "use the module that came with this program");
}

}  // namespace

std::string Plugin::AuthFields() const { return Filled(functions->getAuthFields, "login dialog"); }

std::string Plugin::OptionFields() const { return Filled(functions->getOptFields, "options"); }

std::string Plugin::ErrorName(AERROR code) const { return functions->getAERRORA(code); }

}  // namespace host
