#include "TunnelFib/TunnelFib.h"

#include <utility>

namespace Tunnel::TunnelFib {

// The writers are compiled here once rather than inlined into every caller:
// a FIB holds up to a million entries and is written from one hot loop.
//
// g++ 12 at -O2 wrongly reports the key bookmark of the HashMap iterator
// that ValueCollection::set receives from tryEmplace as maybe uninitialized;
// it is silenced for these writers only.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

void TunnelFib::entryIs(TunnelFibEntry const& e) { entry_.set(e.tunnelId(), e); }

void TunnelFib::entryDel(TunnelId id) { entry_.del(id); }

void MplsTunnelFib::entryIs(MplsTunnelFibEntry const& e) { entry_.set(e.tunnelId(), e); }

void MplsTunnelFib::entryIs(MplsTunnelFibEntry&& e) { entry_.set(e.tunnelId(), std::move(e)); }

void MplsTunnelFib::entryDel(TunnelId id) { entry_.del(id); }

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

Vela::Ptr<TunnelFib> tunnelFibFactory(Vela::Name const& name) { return Vela::make<TunnelFib>(name); }

Vela::Ptr<MplsTunnelFib> mplsTunnelFibFactory(Vela::Name const& name) {
  return Vela::make<MplsTunnelFib>(name);
}

}  // namespace Tunnel::TunnelFib
