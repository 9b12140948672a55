// Vias: how a tunnel forwards, one next hop at a time.
//
// A via is a next hop and the interface to reach it. TunnelVia adds the
// encapsulation a tunnel FIB applies (by EncapId), MplsVia the MPLS labels to
// push; BgpLuVia groups a set of plain vias under one label operation. A via
// whose interface is a dynamic tunnel interface (TunnelIntfId.h) rides on the
// tunnel that interface stands for.
//
// All are value types: equality, hash and the textual form
// "Value('Tunnel::TunnelTable::Via', ** {'nexthop': ..., 'intfId': ...})" come
// from the field lists. Via sets are hash-keyed (Vela::ValueSet), never
// sorted, so the orderings below are kept for their callers only and are
// deliberately not orders in the usual sense.
#pragma once

#include <tuple>

#include "TunnelTable/TunnelBasicTypes.h"
#include "framework/Nimbo/IntfId.h"
#include "framework/Nimbo/IpAddr.h"
#include "framework/Nimbo/MplsLabelOperation.h"
#include "framework/Vela/Value.h"
#include "framework/Vela/ValueSet.h"

namespace Tunnel::TunnelTable {

class Via : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::Via";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("nexthop", &Via::nexthop_), Vela::field("intfId", &Via::intfId_));
  }

  Via() = default;
  Via(Nimbo::IpGenAddr const& nexthop, Nimbo::IntfId intfId) : intfId_(intfId), nexthop_(nexthop) {}

  Nimbo::IpGenAddr const& nexthop() const { return nexthop_; }
  void nexthopIs(Nimbo::IpGenAddr const& v) { nexthop_ = v; }
  Nimbo::IntfId intfId() const { return intfId_; }
  void intfIdIs(Nimbo::IntfId v) { intfId_ = v; }

  // Deliberately conjunctive: less only when the interface AND the next hop are less.
  friend bool operator<(Via const& a, Via const& b) {
    return a.intfId_ < b.intfId_ && a.nexthop_ < b.nexthop_;
  }

 private:
  // The interface first in memory: the fields of TunnelVia and MplsVia then
  // fill the tail of the 17-byte address.
  Nimbo::IntfId intfId_;
  Nimbo::IpGenAddr nexthop_;
};

// A via of the tunnel FIB: the encapsulation is named by its EncapId and held
// in the FIB's encapsulation tables.
class TunnelVia : public Via {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::TunnelVia";
  static constexpr auto valueFields() {
    return std::tuple_cat(Via::valueFields(), std::make_tuple(Vela::field("encapId", &TunnelVia::encapId_)));
  }

  TunnelVia() = default;
  TunnelVia(Nimbo::IpGenAddr const& nexthop, Nimbo::IntfId intfId, EncapId encapId)
      : Via(nexthop, intfId), encapId_(encapId) {}

  EncapId encapId() const { return encapId_; }
  void encapIdIs(EncapId v) { encapId_ = v; }

  // Deliberately by encapsulation alone; the next hop and interface take no part.
  friend bool operator<(TunnelVia const& a, TunnelVia const& b) { return a.encapId_ < b.encapId_; }

 private:
  EncapId encapId_;
};

// A via with the labels to push on it.
class MplsVia : public Via {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::MplsVia";
  static constexpr auto valueFields() {
    return std::tuple_cat(Via::valueFields(), std::make_tuple(Vela::field("labels", &MplsVia::labels_)));
  }

  MplsVia() = default;
  MplsVia(Nimbo::IpGenAddr const& nexthop, Nimbo::IntfId intfId, Nimbo::MplsLabelOperation const& labels)
      : Via(nexthop, intfId), labels_(labels) {}

  Nimbo::MplsLabelOperation const& labels() const { return labels_; }
  void labelsIs(Nimbo::MplsLabelOperation const& v) { labels_ = v; }

  // Deliberately conjunctive: interface, next hop and labels must all be less.
  friend bool operator<(MplsVia const& a, MplsVia const& b) {
    return a.intfId() < b.intfId() && a.nexthop() < b.nexthop() && a.labels_ < b.labels_;
  }

 private:
  Nimbo::MplsLabelOperation labels_;
};

// A set of vias sharing one label operation.
class BgpLuVia : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::TunnelTable::BgpLuVia";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("via", &BgpLuVia::via_), Vela::field("labels", &BgpLuVia::labels_));
  }

  BgpLuVia() = default;

  Nimbo::MplsLabelOperation const& labels() const { return labels_; }
  void labelsIs(Nimbo::MplsLabelOperation const& v) { labels_ = v; }

  // Sets have no order, so neither has a value holding one.
  friend bool operator<(BgpLuVia const&, BgpLuVia const&) = delete;

 private:
  Nimbo::MplsLabelOperation labels_;
  VELA_VALUE_SET(Via, via, Via);
};

}  // namespace Tunnel::TunnelTable
