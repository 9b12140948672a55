#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <type_traits>

#include "TunnelTable/TunnelBasicTypes.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel::TunnelTable {
namespace {

static_assert(tunnelIndexMask() + 1 == tunnelAfMask() && tunnelAfMask() == (1ull << tunnelAfPos()));
static_assert((tunnelTypeMask() >> tunnelTypePos()) == 0xF && tunnelTypePos() == tunnelAfPos() + 1);
static_assert((tunnelIndexMask() | tunnelAfMask() | tunnelTypeMask()) == TunnelId::maxValue);
static_assert(std::is_trivially_copyable_v<TunnelId> && sizeof(TunnelId) == 8);
static_assert(std::is_trivially_copyable_v<EncapId> && sizeof(EncapId) == 4);
static_assert(!std::is_convertible_v<std::uint64_t, TunnelId>, "TunnelId must be built explicitly");

constexpr std::uint64_t idValue(unsigned type, std::uint64_t index, bool v6 = false) {
  return (std::uint64_t(type) << 44) | (v6 ? tunnelAfMask() : 0) | index;
}

// Independent references, written from the published algorithms over the
// bytes as they lie in memory (the tests run on little-endian hosts).
static_assert(std::endian::native == std::endian::little);

std::uint32_t jenkinsOneAtATime(void const* data, std::size_t n) {
  auto const* p = static_cast<unsigned char const*>(data);
  std::uint32_t h = 0;
  for (std::size_t i = 0; i < n; ++i) {
    h += p[i];
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

// Whole 4-byte blocks only: every key hashed here is four bytes long.
std::uint32_t murmur3x86_32(void const* data, std::size_t n, std::uint32_t seed) {
  auto const rotl = [](std::uint32_t x, int r) { return (x << r) | (x >> (32 - r)); };
  auto const* p = static_cast<unsigned char const*>(data);
  std::uint32_t h = seed;
  for (std::size_t i = 0; i + 4 <= n; i += 4) {
    std::uint32_t k;
    std::memcpy(&k, p + i, 4);
    k *= 0xcc9e2d51u;
    k = rotl(k, 15);
    k *= 0x1b873593u;
    h ^= k;
    h = rotl(h, 13);
    h = h * 5 + 0xe6546b64u;
  }
  h ^= static_cast<std::uint32_t>(n);
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

// --- TunnelId ----------------------------------------------------------------

TEST(TunnelIdTest, ValuesAboveFortyEightBitsAreRejectedEverywhere) {
  std::string const text = "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed";
  TunnelId const max(0xFFFFFFFFFFFF);
  EXPECT_EQ(max.tunnelType(), TunnelType::maxTunnelType);
  EXPECT_EQ(max.tunnelTransportType(), TunnelTransportType::unknownTunnel);
  EXPECT_EQ(thrownText<Vela::RangeException>([] { TunnelId(0x1000000000000); }), text);
  EXPECT_EQ(thrownText<Vela::RangeException>([] { TunnelId(~0ull); }), text);
  EXPECT_EQ(thrownText<Vela::RangeException>([] { Vela::parseValue<TunnelId>("281474976710656"); }), text);
  EXPECT_EQ(Vela::parseValue<TunnelId>("281474976710655"), max);
}

TEST(TunnelIdTest, TextualFormIsTheDecimalValueWhateverTheStreamBase) {
  TunnelId const id(0x300000000005);
  EXPECT_EQ(Vela::valueToStrep(id), "52776558133253");
  EXPECT_EQ(Vela::parseValue<TunnelId>("52776558133253"), id);
  std::ostringstream os;
  os << std::hex << id;
  EXPECT_EQ(os.str(), "52776558133253");
}

TEST(TunnelIdTest, ConvertToTunnelValuePacksTypeIndexAndFamily) {
  EXPECT_EQ(TunnelId::convertToTunnelValue(TunnelType::srTunnel, 0x80000000005), 0x780000000005u);
  EXPECT_EQ(TunnelId::convertToTunnelValue(TunnelType::maxTunnelType, 0xFFFFFFFFFFF), 0xFFFFFFFFFFFFu);
  // Bits 44 and up of the input never reach the type field: they are an error.
  std::string const text = "Invalid 'indexAndAf'value, value is above 2^44";
  EXPECT_EQ(thrownText<Vela::RangeException>(
                [] { TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 1ull << 44); }),
            text);
  EXPECT_EQ(thrownText<Vela::RangeException>(
                [] { TunnelId::convertToTunnelValue(TunnelType::invalidTunnel, ~0ull); }),
            text);
}

TEST(TunnelIdTest, TransportTypeAndFamilyRulesForAllSixteenTypes) {
  using T = TunnelTransportType;
  struct Rule {
    bool malformed;
    T transport;
    bool carriesV6;
  };
  Rule const rules[16] = {
      {false, T::unknownTunnel, false}, {false, T::mplsTunnel, false},    {false, T::mplsTunnel, false},
      {false, T::mplsTunnel, false},    {false, T::unknownTunnel, false}, {false, T::mplsTunnel, true},
      {false, T::unknownTunnel, false}, {false, T::mplsTunnel, true},     {false, T::mplsTunnel, true},
      {false, T::ipTunnel, true},       {true, T::unknownTunnel, false},  {true, T::unknownTunnel, false},
      {true, T::unknownTunnel, false},  {true, T::unknownTunnel, false},  {true, T::unknownTunnel, false},
      {false, T::unknownTunnel, false},
  };
  for (unsigned t = 0; t < 16; ++t) {
    SCOPED_TRACE("type " + std::to_string(t));
    TunnelId const v4(idValue(t, 42)), v6(idValue(t, 42, true));
    EXPECT_EQ(static_cast<unsigned>(v4.tunnelType()), t);
    EXPECT_EQ(Vela::isEnumerator(v4.tunnelType()), !rules[t].malformed);
    if (rules[t].malformed) {
      EXPECT_EQ(thrownText<Vela::InternalException>([&] { v4.tunnelTransportType(); }),
                Vela::format("Unexpected tunnelType %x", t));
    } else {
      EXPECT_EQ(v4.tunnelTransportType(), rules[t].transport);
      EXPECT_EQ(v6.tunnelTransportType(), rules[t].transport);
    }
    EXPECT_EQ(v4.tunnelAf(), Nimbo::AddressFamily::ipv4);
    EXPECT_EQ(v4.addressFamilyCliStr(), "IPv4");
    EXPECT_EQ(v6.addressFamilyCliStr(), "IPv6");
    if (rules[t].carriesV6) {
      EXPECT_EQ(v6.tunnelAf(), Nimbo::AddressFamily::ipv6);
    } else {
      EXPECT_EQ(thrownText<Vela::InternalException>([&] { v6.tunnelAf(); }),
                Vela::format("IPv6 not yet supported for %x", t));
    }
  }
}

TEST(TunnelIdTest, CliAndDebugStrings) {
  std::string names, fallback;
  for (unsigned t = 0; t < 16; ++t) names += std::string(TunnelId(idValue(t, 1)).typeCliStr()) + ",";
  // Types 10-14 fall back to the enumeration's own output for a non-enumerator.
  for (unsigned t = 10; t < 15; ++t) fallback += Vela::enumName(static_cast<TunnelType>(t)) + ",";
  EXPECT_EQ(
      names,
      "invalidTunnel,BGP LU Push,BGP LU,LDP,Nexthop,Static MPLS,EVPN VXLAN,IS-IS SR,srTeSegmentListTunnel,"
      "Static Interface," +
          fallback + "maxTunnelType,");

  TunnelId const sr6(TunnelId::convertToTunnelValue(TunnelType::srTunnel, 0x80000000005));
  EXPECT_EQ(sr6.toCliStrep(), "IS-IS SR IPv6 Tunnel index 5");
  EXPECT_EQ(sr6.toStrep(), "Table:srTunnel-Index:5");  // no family shown
  TunnelId const ldp(TunnelId::convertToTunnelValue(TunnelType::ldpTunnel, 26));
  EXPECT_EQ(ldp.toStrep(), "Table:ldpTunnel-Index:1a");
  EXPECT_EQ(ldp.toCliStrep(), "LDP IPv4 Tunnel index 26");
  EXPECT_EQ(TunnelId(idValue(2, 0x7FFFFFFFFFF)).toStrep(), "Table:bgpLuTunnel-Index:7ffffffffff");
}

TEST(TunnelIdTest, HashIsJenkinsOneAtATimeOverTheEightValueBytes) {
  // Computed once outside this code base.
  EXPECT_EQ(TunnelId(0).hash(), 0x00000000u);
  EXPECT_EQ(TunnelId(1).hash(), 0x98adb391u);
  EXPECT_EQ(TunnelId(0x300000000005).hash(), 0x6a0f0781u);
  EXPECT_EQ(TunnelId(0x780000000005).hash(), 0xbfc87c4du);
  EXPECT_EQ(TunnelId(0xFFFFFFFFFFFF).hash(), 0x6a0c150eu);

  std::uint32_t const seed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  for (int i = 0; i < 1000; ++i) {
    std::uint64_t const v = rng() & TunnelId::maxValue;
    TunnelId const id(v);
    ASSERT_EQ(id.hash(), jenkinsOneAtATime(&v, sizeof v)) << v;
    // The collections and std containers must use this very hash.
    ASSERT_EQ(Vela::hashOf(id), id.hash());
    ASSERT_EQ(std::hash<TunnelId>()(id), id.hash());
  }
}

TEST(TunnelIdTest, ZeroIsTheInvalidIdAndOrderingIsUnsignedValueOrder) {
  EXPECT_EQ(TunnelId(), TunnelId::invalid);
  EXPECT_FALSE(TunnelId().isValid());
  EXPECT_TRUE(TunnelId(1).isValid());
  TunnelId const ldp4(idValue(3, 5)), ldp6(idValue(3, 5, true)), max(0xFFFFFFFFFFFF);
  EXPECT_LT(TunnelId::invalid, ldp4);
  EXPECT_LT(ldp4, ldp6);
  EXPECT_LT(ldp6, TunnelId(idValue(4, 0)));
  EXPECT_LT(TunnelId(idValue(14, 0)), max);
}

// --- Enumerations ------------------------------------------------------------

TEST(EnumerationsTest, TunnelTypesAndTheValuesWithoutAnEnumerator) {
  std::vector<std::pair<std::uint64_t, std::string>> const tunnelTypes = {
      {0, "invalidTunnel"},         {1, "bgpLuPushTunnel"},       {2, "bgpLuTunnel"},     {3, "ldpTunnel"},
      {4, "nexthopTunnel"},         {5, "staticTunnel"},          {6, "evpnVxlanTunnel"}, {7, "srTunnel"},
      {8, "srTeSegmentListTunnel"}, {9, "staticInterfaceTunnel"}, {15, "maxTunnelType"}};
  EXPECT_EQ(Vela::enumInfo<TunnelType>().enumerators(), tunnelTypes);
  for (auto v : {10, 11, 12, 13, 14}) {
    EXPECT_THROW(Vela::enumFromValue<TunnelType>(v), Vela::RangeException);
  }
  EXPECT_EQ(Vela::parseValue<TunnelType>("srTeSegmentListTunnel"), TunnelType::srTeSegmentListTunnel);
  EXPECT_EQ(Vela::valueToStrep(TunnelTransportType::ipTunnel), "ipTunnel");
  // Neither preference nor contribution has an enumerator 0.
  EXPECT_THROW(Vela::enumFromValue<TunnelTablePref>(0), Vela::RangeException);
  EXPECT_THROW(Vela::enumFromValue<ContributionToTunnelRIB>(0), Vela::RangeException);
}

// --- EncapId -----------------------------------------------------------------

TEST(EncapIdTest, LayoutAndCheckedMutator) {
  EXPECT_EQ(Vela::valueToStrep(EncapIdConstants()), "Value('Tunnel::TunnelTable::EncapIdConstants', ** {})");

  EncapId id;
  EXPECT_EQ(id.encapIdValue(), 0u);
  id.encapValueIs(EncapType::mplsEncap, 0x0FFFFFFF);
  EXPECT_EQ(id.encapIdValue(), 0x2FFFFFFFu);
  EXPECT_EQ(id.encapType(), EncapType::mplsEncap);
  EXPECT_EQ(id.encapIndex(), 0x0FFFFFFFu);
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { id.encapValueIs(EncapType::greEncap, 0x10000000); }),
            "Invalid 'encapIndex'");
  EXPECT_EQ(id.encapIdValue(), 0x2FFFFFFFu);  // unchanged by the refused write
  EXPECT_THROW(EncapId(EncapType::ipSecEncap, 0x10000000), Vela::RangeException);
  EXPECT_EQ(EncapId(EncapType::ipSecEncap, 7).encapIdValue(), 0x10000007u);

  id.encapIdValueIs(0xFFFFFFFF);  // raw, unchecked
  EXPECT_EQ(static_cast<unsigned>(id.encapType()), 15u);
  EXPECT_EQ(Vela::valueToStrep(id), "4294967295");
  EXPECT_EQ(Vela::parseValue<EncapId>("536870913"), EncapId(EncapType::mplsEncap, 1));
  EXPECT_LT(EncapId(0x0FFFFFFF), EncapId(0x10000000));
}

TEST(EncapIdTest, HashIsMurmur3X86With32BitsAndSeedZero) {
  // Published MurmurHash3 vectors for the bytes 00 00 00 00 and 21 43 65 87,
  // and values computed once outside this code base.
  EXPECT_EQ(EncapId(0).hash(), 0x2362f9deu);
  EXPECT_EQ(EncapId(0x87654321).hash(), 0xf55b516bu);
  EXPECT_EQ(EncapId(1).hash(), 0xfbf1402au);
  EXPECT_EQ(EncapId(0x2FFFFFFF).hash(), 0xce7e16e7u);
  char const test[] = "test";
  EXPECT_EQ(murmur3x86_32(test, 4, 0), 0xba6bd213u);  // the reference itself

  // Deliberately not the TunnelId hash of the same number.
  EXPECT_NE(EncapId(1).hash(), TunnelId(1).hash());

  std::uint32_t const seed = 777;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  for (int i = 0; i < 1000; ++i) {
    std::uint32_t const v = rng();
    ASSERT_EQ(EncapId(v).hash(), murmur3x86_32(&v, sizeof v, 0)) << v;
    ASSERT_EQ(Vela::hashOf(EncapId(v)), EncapId(v).hash());
  }
}

// --- Id64 and Id64Allocator --------------------------------------------------

TEST(Id64AllocatorTest, HandsOutIdsInOrderUpToTheMaximumAndNotifiesEachStep) {
  EXPECT_EQ(Vela::valueToStrep(Id64(18446744073709551615ull)), "18446744073709551615");
  EXPECT_EQ(Vela::parseValue<Id64>("42"), Id64(42));
  EXPECT_LT(Id64(2), Id64(10));
  auto alloc = Vela::make<Id64Allocator>("ids");
  int notified = 0;
  auto sub = alloc->currentIdChanged().connect([&] { ++notified; });
  EXPECT_EQ(alloc->newId(), Id64(1));
  EXPECT_EQ(alloc->newId(), Id64(2));
  EXPECT_EQ(alloc->newId(), Id64(3));
  EXPECT_EQ(notified, 3);
  alloc->currentIdInc(Id64(10));
  EXPECT_EQ(alloc->newId(), Id64(14));
  EXPECT_EQ(notified, 5);

  // The maximum itself is handed out, and then the allocator asserts.
  alloc->currentIdIs(Id64(0xFFFFFFFE));
  EXPECT_EQ(alloc->newId(), Id64(0xFFFFFFFF));
  EXPECT_EQ(assertionText([&] { alloc->newId(); }),
            "( currentId() < maxId() ) && \"Reached maximum number of IDs.\"");
  EXPECT_EQ(alloc->currentId(), Id64(0xFFFFFFFF));
}

}  // namespace
}  // namespace Tunnel::TunnelTable
