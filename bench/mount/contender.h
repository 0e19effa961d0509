// A program that shows the drive as a folder. Main thread only.
#pragma once

#include <memory>

#include "bench/mount/child.h"
#include "bench/mount/service.h"
#include "host/core/paths.h"

namespace bench {

class Contender {
 public:
  virtual ~Contender();

  virtual std::string Name() const = 0;
  /// The drive's top folder while it is mounted.
  virtual std::filesystem::path Root() const { return folder; }
  virtual bool HasPush() const = 0;
  /// Waits until everything written is on the service.
  virtual void Settle() = 0;

  /// Mounts with nothing kept from before.
  void MountCold(const Words& options = {});
  /// Mounts with what it has kept; returns at once, `Ready` waits.
  void Start(const Words& options = {});
  void Ready();
  void Unmount();
  /// The most memory that one mount has had, in bytes.
  int64_t PeakMemory() const { return peak; }

 protected:
  explicit Contender(Service& itsService);

  virtual void Forget() = 0;
  virtual Words Command() const = 0;
  std::filesystem::path Home() const { return directory.Path(); }
  Words Environment() const;

  Service& service;
  host::TemporaryDirectory directory{"vormlane-bench-"};
  const std::filesystem::path folder = directory.Path() / "mnt";

 private:
  bool IsMounted() const;

  std::unique_ptr<Child> child;
  int64_t peak = 0;
};

class Vormlane final : public Contender {
 public:
  explicit Vormlane(Service& service);
  std::string Name() const override { return "vormlane"; }
  std::filesystem::path Root() const override { return folder / "My Drive"; }
  bool HasPush() const override { return true; }
  void Settle() override;

 private:
  void Forget() override;
  Words Command() const override;
};

/// Debian's, with full caching, its defaults otherwise, and vormlane's time between two polls.
class Rclone final : public Contender {
 public:
  Rclone(Service& service, const std::filesystem::path& certificates);
  std::string Name() const override { return "rclone"; }
  bool HasPush() const override { return false; }
  void Settle() override;

 private:
  void Forget() override;
  Words Command() const override;

  const std::filesystem::path certificates;
};

}  // namespace bench
