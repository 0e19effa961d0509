// Whether a failed HTTP status is worth another try, how many are left, and how long to wait.
//
// One object serves one logical request on one thread. The waits of the exponential policy are
// exactly 1, 2, 4, 8, ... seconds, without jitter.
// https://developers.google.com/drive/api/guides/handle-errors
#pragma once

#include <deque>

class IBackoff {
 public:
  virtual bool IsBackoffCode(int status) = 0;
  /// Whether at least one retry is left. Spelled as its callers in other plug-ins spell it.
  virtual bool IsAvaliable() = 0;
  virtual int GetLeft() = 0;
  /// Waits. Returns kBackoffRefused when the policy never retries, else kBackoffDone.
  virtual int Backoff() = 0;
  virtual ~IBackoff() = default;
};

constexpr int kBackoffRefused = 1;
constexpr int kBackoffDone = 2;

class NoBackoff : public IBackoff {
 public:
  bool IsBackoffCode(int) override { return false; }
  bool IsAvaliable() override { return false; }
  int GetLeft() override { return 0; }
  int Backoff() override { return kBackoffRefused; }
};

class ExponentialBackoff : public IBackoff {
 public:
  /// 429, five retries.
  ExponentialBackoff();
  /// The count is brought into 5..16.
  ExponentialBackoff(const std::deque<int>& codes, int count);

  bool IsBackoffCode(int status) override;
  bool IsAvaliable() override { return left > 0; }
  int GetLeft() override { return left; }
  int Backoff() override;

 private:
  std::deque<int> codes;
  int max;
  int left;
};

/// 403, 429 and 500, five retries: 31 seconds of waiting in all.
class GoogleDriveExponentialBackoff : public ExponentialBackoff {
 public:
  GoogleDriveExponentialBackoff() : ExponentialBackoff({403, 429, 500}, 5) {}
};
