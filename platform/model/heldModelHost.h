// A modelled host that is held in memory, for running again what another host saw: what is asked of it, and
// what is to be kept, goes to whoever listens, and nothing of this machine is read or written.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "model/modelHost.h"

namespace platform {

/// Used by one thread.
class HeldModelHost final : public ModelHost, private Keeper {
 public:
  /// `act` takes each action that would have been done, as one JSON object.
  explicit HeldModelHost(std::function<void(const std::string&)> act);

  /// What the host answers from now on.
  void set(ModelFile model);

  [[nodiscard]] Keeper* keeper() override { return this; }

 private:
  [[nodiscard]] std::shared_ptr<const Answer<ModelFile>> model() const override { return model_; }
  Outcome record(const std::string& line) override;
  void keepAudit(const std::string& record, const std::string& user) override;
  void keepObject(const std::string& name, const std::vector<std::pair<std::string, std::string>>& values) override;

  std::function<void(const std::string&)> act_;
  std::shared_ptr<const Answer<ModelFile>> model_;
};

}  // namespace platform
