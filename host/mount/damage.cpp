#include "host/mount/damage.h"

#include "host/core/database.h"
#include "host/core/profile_store.h"
#include "host/mount/name_map.h"
#include "host/mount/state.h"
#include "host/mount/times.h"

namespace host::mount {
namespace fs = std::filesystem;
namespace {

bool IsDamage(const DatabaseError& error) {
  const int code = error.SqliteCode() & 0xff;
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

bool EndedInOrder(Database& database) {
  Statement tables = database.Prepare("SELECT 1 FROM sqlite_schema WHERE name = 'mount_values'");
  if (!tables.Step()) return true;  // never mounted
  Statement value = database.Prepare("SELECT 1 FROM mount_values WHERE key = ? AND value = '1'");
  return value.Bind(1, kCleanKey).Step();
}

bool IsDamaged(const fs::path& file) {
  try {
    Database database(file);
    if (EndedInOrder(database)) return false;
    Statement check = database.Prepare("PRAGMA quick_check(1)");
    return !check.Step() || check.Text(0) != "ok";
  } catch (const DatabaseError& error) {
    if (!IsDamage(error)) throw;
    return true;
  }
}

void TakeOverValues(const fs::path& from, const ProfilePaths& paths) {
  Database database(from);
  ProfileStore profile(paths);
  Statement values = database.Prepare("SELECT section, key, value FROM profile_value");
  while (values.Step()) profile.SetValue(values.Text(0), values.Text(1), values.Text(2));
}

void NamePending(const fs::path& from, const fs::path& folder) {
  Database database(from);
  Statement pending = database.Prepare(
      "SELECT c.content, i.name FROM mount_contents c JOIN mount_items i ON i.ino = c.ino "
      "WHERE c.dirty = 1");
  while (pending.Step()) {
    const std::string number = std::to_string(pending.Integer(0));
    fs::path name = folder / pending.Text(1);
    if (fs::exists(name)) name = folder / WithMark(pending.Text(1), " (" + number + ")");
    fs::rename(folder / "contents" / number, name);
  }
}

/// What can still be read, is; where the damage begins it ends.
template <typename Function>
void AsFarAsPossible(Function&& function) {
  try {
    function();
  } catch (const std::exception&) {
    // The rest stays in the folder as it is.
  }
}

}  // namespace

std::optional<fs::path> SetDamagedAside(const ProfilePaths& paths) {
  const fs::path file = paths.Database();
  if (!fs::exists(file) || !IsDamaged(file)) return std::nullopt;
  const fs::path aside = paths.data / ("damaged " + LocalStamp(NowNanoseconds()));
  MakePrivateDirectory(aside);
  for (const char* ending : {"", "-wal", "-shm"}) {
    const fs::path part = file.string() + ending;
    if (fs::exists(part)) fs::rename(part, aside / part.filename());
  }
  if (fs::exists(paths.data / "contents")) fs::rename(paths.data / "contents", aside / "contents");
  const fs::path database = aside / file.filename();
  AsFarAsPossible([&] { TakeOverValues(database, paths); });
  AsFarAsPossible([&] { NamePending(database, aside); });
  return aside;
}

}  // namespace host::mount
