#include "keldHostOption.h"

#include <memory>

#include "platform/vsi.h"

namespace keld {

namespace {

struct DestroyList {
  void operator()(VSI_ParamList* list) const noexcept { VSI_ParamListDestroy(list); }
};

}  // namespace

std::optional<std::int64_t> readIntegerOption(const char* group, const char* name) {
  const std::unique_ptr<VSI_ParamList, DestroyList> instance(VSI_ParamListCreate());
  if (instance == nullptr || VSI_ParamListAddString(instance.get(), group) != QK_OK ||
      VSI_ParamListAddString(instance.get(), name) != QK_OK) {
    return std::nullopt;
  }
  VSI_IntOption option{};
  if (VSI_Get(VSI_NODE_config_intOpts, instance.get(), &option, sizeof option) != QK_OK) return std::nullopt;
  return option.value;
}

}  // namespace keld
