#include "keldRebootReason.h"

#include <array>
#include <ctime>
#include <memory>
#include <utility>

#include "platform/configstore.h"

namespace keld {

namespace {

using StoreObject = std::unique_ptr<ConfigStore::Object, decltype(&ConfigStore::DestroyConfigStoreObject)>;
using Store = std::unique_ptr<ConfigStore::Store, decltype(&ConfigStore::DestroyStore)>;

std::string localTime(WallSeconds when) {
  constexpr std::size_t kStampBytes = 128;
  std::array<char, kStampBytes> stamp{};
  const std::time_t seconds = when.time_since_epoch().count();
  std::tm local{};
  if (localtime_r(&seconds, &local) != nullptr) {
    static_cast<void>(std::strftime(stamp.data(), stamp.size(), "%a, %d %b %y %T %z", &local));
  }
  return stamp.data();
}

}  // namespace

void recordRebootReason(const RebootReason& reason, WallSeconds when) {
  ConfigStore::Object* made = nullptr;
  if (ConfigStore::CreateObject("reboot_reason", "qkernel", "orn", "", "{}", &made) != 0) return;
  const StoreObject object(made, ConfigStore::DestroyConfigStoreObject);
  const std::pair<const char*, std::string> values[] = {{"type", reason.type},
                                                        {"user", reason.user},
                                                        {"subsystem", reason.subsystem},
                                                        {"timestamp", localTime(when)},
                                                        {"reason", reason.reason}};
  for (const auto& [key, value] : values) {
    if (ConfigStore::SetValueStr(object.get(), key, value.c_str()) != 0) return;
  }
  ConfigStore::Store* opened = nullptr;
  if (ConfigStore::GetStore(0, &opened) != 0) return;
  const Store store(opened, ConfigStore::DestroyStore);
  static_cast<void>(ConfigStore::SetCachedData(store.get(), object.get()));
}

}  // namespace keld
