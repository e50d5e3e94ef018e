// The cluster file system's correlator: volumes, extents, locks, heartbeats and NFS datastores.
#pragma once

#include "keldCorrelator.h"

namespace keld {

class CvfsCorrelator final : public Correlator {
 public:
  explicit CvfsCorrelator(Services& services) : post_(services.post) {}

  [[nodiscard]] HandlerTable handlers() override;

  /// Handlers of several observations; any other is an impossible state.
  void heartbeat(const Kel* observation);
  void nfsServer(const Kel* observation);

 private:
  Post& post_;
};

}  // namespace keld
