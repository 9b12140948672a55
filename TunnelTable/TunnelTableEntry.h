// Tunnel table entries: one tunnel as a protocol offers it.
//
// An entry names its tunnel (tunnelId, also its key in the protocol's table),
// the tunnel end point it reaches (tep), the nexthop tunnel that carries it if
// any, and how to forward into it: a set of vias, with labels, metrics or an
// encapsulation depending on the protocol. TunnelTableEntry holds the common
// part; each protocol's entry extends it, listing the inherited fields first.
// EvpnVxlanTunnelEntry stands apart: it describes a remote VTEP, not vias.
//
// All are value types (Vela/Value.h). Equality compares every field in
// declaration order, via sets as sets (insertion order plays no part);
// `!entry` tells whether an entry is still the default one of its type, which
// is how readers test presence. Via sets print as None in the textual form.
// Entries holding a via set have no ordering. Fields in memory are arranged
// for size, not in declaration order: tables hold up to a million entries.
#pragma once

#include <cstdint>
#include <tuple>

#include "TunnelTable/EncapDescriptors.h"
#include "TunnelTable/TunnelBasicTypes.h"
#include "TunnelTable/Via.h"
#include "framework/Nimbo/EthAddr.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Vela/Types.h"
#include "framework/Vela/Value.h"
#include "framework/Vela/ValueSet.h"
#include "framework/Vxlan/Vni.h"

namespace Tunnel::TunnelTable {

class TunnelTableEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::TunnelTableEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("tunnelId", &TunnelTableEntry::tunnelId_),
                           Vela::field("tep", &TunnelTableEntry::tep_),
                           Vela::field("nexthopTunnelId", &TunnelTableEntry::nexthopTunnelId_));
  }

  TunnelTableEntry() = default;
  explicit TunnelTableEntry(TunnelId tunnelId) : tunnelId_(tunnelId) {}

  TunnelId tunnelId() const { return tunnelId_; }
  Nimbo::IpGenPrefix const& tep() const { return tep_; }
  void tepIs(Nimbo::IpGenPrefix const& v) { tep_ = v; }
  // TunnelId 0 when no nexthop tunnel carries this one.
  TunnelId nexthopTunnelId() const { return nexthopTunnelId_; }
  void nexthopTunnelIdIs(TunnelId v) { nexthopTunnelId_ = v; }

  bool operator!() const { return *this == TunnelTableEntry(); }

 private:
  TunnelId tunnelId_;
  TunnelId nexthopTunnelId_;
  Nimbo::IpGenPrefix tep_;
};

// A BGP labelled-unicast push tunnel; BgpLuTunnelTableEntry extends it.
class BgpLuPushTunnelTableEntry : public TunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::BgpLuPushTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(TunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("via", &BgpLuPushTunnelTableEntry::via_),
                                          Vela::field("labels", &BgpLuPushTunnelTableEntry::labels_)));
  }

  BgpLuPushTunnelTableEntry() = default;
  explicit BgpLuPushTunnelTableEntry(TunnelId tunnelId) : TunnelTableEntry(tunnelId) {}

  Nimbo::MplsLabelOperation const& labels() const { return labels_; }
  void labelsIs(Nimbo::MplsLabelOperation const& v) { labels_ = v; }

  // Layers this tunnel over tunnel `t`: adds the via to next hop 0.0.0.0 on
  // t's dynamic tunnel interface, which the FIB resolves through t. Vias
  // already present stay.
  void tunnelIdViaIs(TunnelId t);

  bool operator!() const { return *this == BgpLuPushTunnelTableEntry(); }
  friend bool operator<(BgpLuPushTunnelTableEntry const&, BgpLuPushTunnelTableEntry const&) = delete;

 private:
  Nimbo::MplsLabelOperation labels_;
  VELA_VALUE_SET(Via, via, Via);
};

class BgpLuTunnelTableEntry : public BgpLuPushTunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::BgpLuTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(BgpLuPushTunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("contribution", &BgpLuTunnelTableEntry::contribution_),
                                          Vela::field("bgpMetric", &BgpLuTunnelTableEntry::bgpMetric_),
                                          Vela::field("bgpMetric2", &BgpLuTunnelTableEntry::bgpMetric2_),
                                          Vela::field("bgpPref", &BgpLuTunnelTableEntry::bgpPref_),
                                          Vela::field("bgpPref2", &BgpLuTunnelTableEntry::bgpPref2_),
                                          Vela::field("bgpLinkBw", &BgpLuTunnelTableEntry::bgpLinkBw_)));
  }

  BgpLuTunnelTableEntry() = default;
  explicit BgpLuTunnelTableEntry(TunnelId tunnelId) : BgpLuPushTunnelTableEntry(tunnelId) {}

  // Whether the tunnel takes part in tunnel RIB selection; an entry
  // contributes unless its protocol says otherwise.
  ContributionToTunnelRIB contribution() const { return contribution_; }
  void contributionIs(ContributionToTunnelRIB v) { contribution_ = v; }
  std::uint32_t bgpMetric() const { return bgpMetric_; }
  void bgpMetricIs(std::uint32_t v) { bgpMetric_ = v; }
  std::uint32_t bgpMetric2() const { return bgpMetric2_; }
  void bgpMetric2Is(std::uint32_t v) { bgpMetric2_ = v; }
  std::uint32_t bgpPref() const { return bgpPref_; }
  void bgpPrefIs(std::uint32_t v) { bgpPref_ = v; }
  std::uint32_t bgpPref2() const { return bgpPref2_; }
  void bgpPref2Is(std::uint32_t v) { bgpPref2_ = v; }
  // Link bandwidth.
  float bgpLinkBw() const { return bgpLinkBw_; }
  void bgpLinkBwIs(float v) { bgpLinkBw_ = v; }

  bool operator!() const { return *this == BgpLuTunnelTableEntry(); }
  friend bool operator<(BgpLuTunnelTableEntry const&, BgpLuTunnelTableEntry const&) = delete;

 private:
  ContributionToTunnelRIB contribution_ = ContributionToTunnelRIB::contributing;
  std::uint32_t bgpMetric_ = 0;
  std::uint32_t bgpMetric2_ = 0;
  std::uint32_t bgpPref_ = 0;
  std::uint32_t bgpPref2_ = 0;
  float bgpLinkBw_ = 0;
};

// The entry of both the LDP and the IS-IS SR table.
class LdpSrTunnelTableEntry : public TunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::LdpSrTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(TunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("via", &LdpSrTunnelTableEntry::via_),
                                          Vela::field("igpMetric", &LdpSrTunnelTableEntry::igpMetric_),
                                          Vela::field("igpMetric2", &LdpSrTunnelTableEntry::igpMetric2_),
                                          Vela::field("igpPref", &LdpSrTunnelTableEntry::igpPref_),
                                          Vela::field("igpPref2", &LdpSrTunnelTableEntry::igpPref2_)));
  }

  LdpSrTunnelTableEntry() = default;
  explicit LdpSrTunnelTableEntry(TunnelId tunnelId) : TunnelTableEntry(tunnelId) {}

  std::uint32_t igpMetric() const { return igpMetric_; }
  void igpMetricIs(std::uint32_t v) { igpMetric_ = v; }
  std::uint32_t igpMetric2() const { return igpMetric2_; }
  void igpMetric2Is(std::uint32_t v) { igpMetric2_ = v; }
  std::uint32_t igpPref() const { return igpPref_; }
  void igpPrefIs(std::uint32_t v) { igpPref_ = v; }
  std::uint32_t igpPref2() const { return igpPref2_; }
  void igpPref2Is(std::uint32_t v) { igpPref2_ = v; }

  bool operator!() const { return *this == LdpSrTunnelTableEntry(); }
  friend bool operator<(LdpSrTunnelTableEntry const&, LdpSrTunnelTableEntry const&) = delete;

 private:
  std::uint32_t igpMetric_ = 0;
  std::uint32_t igpMetric2_ = 0;
  std::uint32_t igpPref_ = 0;
  std::uint32_t igpPref2_ = 0;
  VELA_VALUE_SET(MplsVia, via, Via);
};

class SrTeSegmentListTunnelTableEntry : public TunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::SrTeSegmentListTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(TunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("via", &SrTeSegmentListTunnelTableEntry::via_)));
  }

  SrTeSegmentListTunnelTableEntry() = default;
  explicit SrTeSegmentListTunnelTableEntry(TunnelId tunnelId) : TunnelTableEntry(tunnelId) {}

  bool operator!() const { return *this == SrTeSegmentListTunnelTableEntry(); }
  friend bool operator<(SrTeSegmentListTunnelTableEntry const&,
                        SrTeSegmentListTunnelTableEntry const&) = delete;

  VELA_VALUE_SET(MplsVia, via, Via);
};

class StaticTunnelTableEntry : public TunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::StaticTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(TunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("via", &StaticTunnelTableEntry::via_),
                                          Vela::field("labels", &StaticTunnelTableEntry::labels_),
                                          Vela::field("name", &StaticTunnelTableEntry::name_)));
  }

  StaticTunnelTableEntry() = default;
  explicit StaticTunnelTableEntry(TunnelId tunnelId) : TunnelTableEntry(tunnelId) {}

  Nimbo::MplsLabelOperation const& labels() const { return labels_; }
  void labelsIs(Nimbo::MplsLabelOperation const& v) { labels_ = v; }
  // The configured tunnel name.
  Vela::String8 const& name() const { return name_; }
  void nameIs(Vela::String8 const& v) { name_ = v; }

  bool operator!() const { return *this == StaticTunnelTableEntry(); }
  friend bool operator<(StaticTunnelTableEntry const&, StaticTunnelTableEntry const&) = delete;

 private:
  Nimbo::MplsLabelOperation labels_;
  Vela::String8 name_;
  VELA_VALUE_SET(Via, via, Via);
};

// The common part of the interface tunnel entries (GRE, IPsec).
class L3IntfTunnelTableEntry : public TunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::L3IntfTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(TunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("via", &L3IntfTunnelTableEntry::via_)));
  }

  L3IntfTunnelTableEntry() = default;
  explicit L3IntfTunnelTableEntry(TunnelId tunnelId) : TunnelTableEntry(tunnelId) {}

  bool operator!() const { return *this == L3IntfTunnelTableEntry(); }
  friend bool operator<(L3IntfTunnelTableEntry const&, L3IntfTunnelTableEntry const&) = delete;

  VELA_VALUE_SET(Via, via, Via);
};

class GreIntfTunnelTableEntry : public L3IntfTunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::GreIntfTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(L3IntfTunnelTableEntry::valueFields(),
                          std::make_tuple(Vela::field("tunnelInfo", &GreIntfTunnelTableEntry::tunnelInfo_)));
  }

  GreIntfTunnelTableEntry() = default;
  explicit GreIntfTunnelTableEntry(TunnelId tunnelId) : L3IntfTunnelTableEntry(tunnelId) {}

  GreTunnelInfo const& tunnelInfo() const { return tunnelInfo_; }
  void tunnelInfoIs(GreTunnelInfo const& v) { tunnelInfo_ = v; }

  bool operator!() const { return *this == GreIntfTunnelTableEntry(); }
  friend bool operator<(GreIntfTunnelTableEntry const&, GreIntfTunnelTableEntry const&) = delete;

 private:
  GreTunnelInfo tunnelInfo_;
};

class IpsecIntfTunnelTableEntry : public L3IntfTunnelTableEntry {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::IpsecIntfTunnelTableEntry";
  static constexpr auto valueFields() {
    return std::tuple_cat(
        L3IntfTunnelTableEntry::valueFields(),
        std::make_tuple(Vela::field("tunnelInfo", &IpsecIntfTunnelTableEntry::tunnelInfo_)));
  }

  IpsecIntfTunnelTableEntry() = default;
  explicit IpsecIntfTunnelTableEntry(TunnelId tunnelId) : L3IntfTunnelTableEntry(tunnelId) {}

  IpsecTunnelInfo const& tunnelInfo() const { return tunnelInfo_; }
  void tunnelInfoIs(IpsecTunnelInfo const& v) { tunnelInfo_ = v; }

  bool operator!() const { return *this == IpsecIntfTunnelTableEntry(); }
  friend bool operator<(IpsecIntfTunnelTableEntry const&, IpsecIntfTunnelTableEntry const&) = delete;

 private:
  IpsecTunnelInfo tunnelInfo_;
};

// A remote VTEP of EVPN VXLAN, keyed by the tunnel id its table minted.
class EvpnVxlanTunnelEntry : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::EvpnVxlanTunnelEntry";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("key", &EvpnVxlanTunnelEntry::key_),
                           Vela::field("mac", &EvpnVxlanTunnelEntry::mac_),
                           Vela::field("vlanId", &EvpnVxlanTunnelEntry::vlanId_),
                           Vela::field("vni", &EvpnVxlanTunnelEntry::vni_),
                           Vela::field("vtepAddr", &EvpnVxlanTunnelEntry::vtepAddr_));
  }

  EvpnVxlanTunnelEntry() = default;
  explicit EvpnVxlanTunnelEntry(TunnelId key) : key_(key) {}

  TunnelId key() const { return key_; }
  Nimbo::EthAddr const& mac() const { return mac_; }
  void macIs(Nimbo::EthAddr const& v) { mac_ = v; }
  std::uint16_t vlanId() const { return vlanId_; }
  void vlanIdIs(std::uint16_t v) { vlanId_ = v; }
  Vxlan::Vni vni() const { return vni_; }
  void vniIs(Vxlan::Vni v) { vni_ = v; }
  // The remote VTEP's IPv4 address.
  Nimbo::IpAddr vtepAddr() const { return vtepAddr_; }
  void vtepAddrIs(Nimbo::IpAddr v) { vtepAddr_ = v; }

  bool operator!() const { return *this == EvpnVxlanTunnelEntry(); }

 private:
  TunnelId key_;
  Nimbo::EthAddr mac_;
  std::uint16_t vlanId_ = 0;
  Vxlan::Vni vni_;
  Nimbo::IpAddr vtepAddr_;
};

}  // namespace Tunnel::TunnelTable
