#include "framework/Plinth/CAgent.h"

namespace Plinth {

void CAgent::start() {
  VELA_ASSERT(!started_);
  started_ = true;
  Vela::Ptr<CAgent> self(this);
  scheduler()->post([self] { self->doInit(self->entityManager()); });
}

}  // namespace Plinth
