#include "emulator/service.h"

#include "emulator/api_error.h"

namespace emulator {

Item VisibleItem(Service& service, const Call& call, const std::string& id) {
  auto item = service.store.Find(id == "root" ? call.user.rootId : id);
  if (!item || service.store.RoleOf(call.user.n, *item) == Role::kNone) throw FileNotFound(id);
  if (item->drive != 0 && !call.SupportsDrives()) throw FileNotFound(id);
  return *item;
}

void RequireRole(Service& service, const Call& call, const Item& item, Role role) {
  if (service.store.RoleOf(call.user.n, item) < role) throw InsufficientPermissions(item.id);
}

}  // namespace emulator
