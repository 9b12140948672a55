#include "TunnelTable/TunnelRib.h"

#include <string>

#include "framework/Quay/DumpContext.h"
#include "framework/Vela/Enum.h"

namespace Tunnel::TunnelTable {

TunnelRibEntry::TunnelRibEntry(Nimbo::IpGenPrefix const& tep) : Vela::Entity(NamedOnDemand()), tep_(tep) {}

Vela::Name TunnelRibEntry::nameOnDemand() const { return tep_.toStrep(); }

void TunnelRibEntry::tunnelIdIs(TunnelId id, bool present) {
  if (present) {
    tunnelId_.set(id, true);
  } else {
    tunnelId_.del(id);
  }
}

void TunnelRibEntry::dumpState(Quay::DumpContext& context, int indent) const {
  std::string const tep = tep_.toStrep();
  if (indent) {
    context.write("%*cTunnelRibEntry %s metric %u metric2 %u pref %u pref2 %u\n", indent, ' ', tep.c_str(),
                  metric(), metric2(), pref(), pref2());
  } else {
    context.write("TunnelRibEntry %s metric %u metric2 %u pref %u pref2 %u\n", tep.c_str(), metric(),
                  metric2(), pref(), pref2());
  }
  context.write("%*ctunnelIds #%u\n", indent + 2, ' ', static_cast<unsigned>(tunnelId_.size()));
  for (auto it = tunnelId_.begin(); it != tunnelId_.end(); ++it) {
    TunnelId const id = it.key();
    context.write("%*ctype %s index %llx\n", indent + 4, ' ', Vela::enumName(id.tunnelType()).c_str(),
                  static_cast<unsigned long long>(id.tunnelIndex()));
  }
}

void TunnelRib::dumpState(Quay::DumpContext& context, int indent) const {
  char const* const converged = tunnelRibConverged() ? "true" : "false";
  if (indent) {
    context.write("%*cTunnelRib converged %s\n", indent, ' ', converged);
  } else {
    context.write("TunnelRib converged %s\n", converged);
  }
  context.write("%*centries #%u\n", indent + 2, ' ', static_cast<unsigned>(entry_.size()));
  for (auto it = entry_.begin(); it != entry_.end(); ++it) it.value()->dumpState(context, indent + 4);
}

void dumpState(Quay::DumpContext& context, Vela::Ptr<TunnelRib const> const& rib, int indent) {
  if (!rib) {
    context.write("%*cNULL\n", indent, ' ');
    return;
  }
  rib->dumpState(context, indent);
}

void dumpState(Quay::DumpContext& context, Vela::Ptr<TunnelRibEntry const> const& entry, int indent) {
  if (!entry) {
    context.write("%*cNULL\n", indent, ' ');
    return;
  }
  entry->dumpState(context, indent);
}

ProtocolTunnelRibWrapper::ProtocolTunnelRibWrapper(TunnelType tunnelType)
    : Vela::Entity(Vela::enumName(tunnelType)), tunnelType_(tunnelType) {}

void TunnelIdColl::entryIs(TunnelId id, bool present) {
  if (present) {
    entry_.set(id, true);
  } else {
    entry_.del(id);
  }
}

Vela::Ptr<TunnelIdColl> tunnelIdCollFactory(Vela::Name const& name) { return Vela::make<TunnelIdColl>(name); }

TunnelIdCollByTunnelId::TunnelIdCollByTunnelId(TunnelId key)
    : Vela::Entity(std::to_string(key.value())), key_(key) {}

void TunnelIdCollByTunnelId::entryIs(TunnelId id, bool present) {
  if (present) {
    entry_.set(id, true);
  } else {
    entry_.del(id);
  }
}

}  // namespace Tunnel::TunnelTable
