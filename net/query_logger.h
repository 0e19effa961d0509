// Loggers of whole answers, bound to a thread for the length of an operation.
//
// Answers are compressed before they reach the log, so that a large listing costs little there;
// decompress_string reads them back.
#pragma once

#include <memory>

#include "net/curlrtn.h"

class IQueryLogger {
 public:
  /// `result.request` must hold the request that made the result.
  virtual void DoLog(const char* name, _CURLRTN& result) = 0;
  virtual ~IQueryLogger() = default;
};

class HeaderLog : public IQueryLogger {
 public:
  void DoLog(const char* name, _CURLRTN& result) override;
};

class BodyLog : public IQueryLogger {
 public:
  void DoLog(const char* name, _CURLRTN& result) override;
};

class FullLog : public IQueryLogger {
 public:
  void DoLog(const char* name, _CURLRTN& result) override;
};

/// Binds a logger to the calling thread without keeping it alive; an empty owner unbinds.
void BindQueryLogger(std::shared_ptr<IQueryLogger> queryLogger);
/// The calling thread's logger; empty when none is bound or it has gone.
std::shared_ptr<IQueryLogger> GetQueryLogger();

/// Unbinds the calling thread's logger at the end of a scope.
class __Auto_Unbind_Logger__ {
 public:
  __Auto_Unbind_Logger__() = default;
  ~__Auto_Unbind_Logger__();
  __Auto_Unbind_Logger__(const __Auto_Unbind_Logger__&) = delete;
  __Auto_Unbind_Logger__& operator=(const __Auto_Unbind_Logger__&) = delete;
};
