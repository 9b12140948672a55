#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "TunnelTable/EncapDescriptors.h"
#include "framework/Vela/Exception.h"
#include "framework/Vela/Value.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel {
namespace {

L3TunnelInfo outerHeader() {
  return L3TunnelInfo(Nimbo::IpGenAddr("10.0.0.1"), Nimbo::IpGenAddr("2001:db8::1"), 46, 64);
}

IpsecSessionKey key(std::vector<std::uint8_t> bytes) { return IpsecSessionKey(std::move(bytes)); }

IpsecSecurityAssociation sa(std::uint32_t spi) {
  return IpsecSecurityAssociation(spi, true, key({0x0a, 0xff}), key({0x01}));
}

// Each mutation must make the value differ from the original; equal values hash alike.
template <class T>
void expectEveryFieldCounts(T const& base, std::vector<std::function<void(T&)>> const& mutations) {
  T const copy = base;
  EXPECT_EQ(copy, base);
  EXPECT_EQ(Vela::hashOf(copy), Vela::hashOf(base));
  for (std::size_t i = 0; i < mutations.size(); ++i) {
    T changed = base;
    mutations[i](changed);
    EXPECT_NE(changed, base) << "mutation " << i;
  }
}

TEST(L3TunnelInfoTest, TextualFormAndEquality) {
  EXPECT_EQ(
      Vela::valueToStrep(outerHeader()),
      "Value('Tunnel::L3TunnelInfo', ** {'src': '10.0.0.1', 'dst': '2001:db8::1', 'dscp': 46, 'ttl': 64})");
  EXPECT_EQ(Vela::parseValue<L3TunnelInfo>(Vela::valueToStrep(outerHeader())), outerHeader());
  expectEveryFieldCounts<L3TunnelInfo>(outerHeader(),
                                       {
                                           [](auto& v) { v.srcIs(Nimbo::IpGenAddr("10.0.0.2")); },
                                           [](auto& v) { v.dstIs(Nimbo::IpGenAddr()); },
                                           [](auto& v) { v.dscpIs(0); },
                                           [](auto& v) { v.ttlIs(255); },
                                       });
}

// The flags are the bits of the GRE header itself, and combinations of them
// survive the text.
static_assert(static_cast<int>(GreHdrFlagsType::checksumFlag) == 0x8000 &&
              static_cast<int>(GreHdrFlagsType::keyFlag) == 0x2000 &&
              static_cast<int>(GreHdrFlagsType::sequenceFlag) == 0x1000 &&
              static_cast<int>(GreHdrFlagsType::versionMask) == 7);

TEST(GreTunnelInfoTest, BaseFieldsComeFirstAndEveryFieldCounts) {
  GreTunnelInfo gre(outerHeader(), 0x0800, GreHdrFlagsType::keyFlag, GreHdrFlagsType::noFlag, 100, 200);
  EXPECT_EQ(
      Vela::valueToStrep(gre),
      "Value('Tunnel::GreTunnelInfo', ** {'src': '10.0.0.1', 'dst': '2001:db8::1', 'dscp': 46, 'ttl': 64, "
      "'protocol': 2048, 'oFlags': keyFlag, 'iFlags': noFlag, 'oKey': 100, 'iKey': 200})");
  EXPECT_EQ(Vela::parseValue<GreTunnelInfo>(Vela::valueToStrep(gre)), gre);
  expectEveryFieldCounts<GreTunnelInfo>(gre, {
                                                 [](auto& v) { v.ttlIs(1); },
                                                 [](auto& v) { v.protocolIs(0x86DD); },
                                                 [](auto& v) { v.oFlagsIs(GreHdrFlagsType::noFlag); },
                                                 [](auto& v) { v.iFlagsIs(GreHdrFlagsType::checksumFlag); },
                                                 [](auto& v) { v.oKeyIs(0); },
                                                 [](auto& v) { v.iKeyIs(0); },
                                             });

  gre.oFlagsIs(static_cast<GreHdrFlagsType>(0x8000 | 0x2000));
  std::string const text = Vela::valueToStrep(gre);
  EXPECT_NE(text.find("'oFlags': 40960"), std::string::npos) << text;
  EXPECT_EQ(Vela::parseValue<GreTunnelInfo>(text), gre);
}

TEST(IpsecSessionKeyTest, LengthAndBytesDecideEqualityAndTheHexTextIsNeverReadBack) {
  EXPECT_NE(key({1, 2}), key({1, 2, 3}));
  EXPECT_NE(key({}), key({0}));
  EXPECT_EQ(key({1, 2, 3}), key({1, 2, 3}));
  EXPECT_EQ(Vela::hashOf(key({1, 2, 3})), Vela::hashOf(key({1, 2, 3})));
  EXPECT_EQ(IpsecSessionKey(std::vector<std::uint8_t>(65535)).length(), 65535);
  EXPECT_THROW(IpsecSessionKey(std::vector<std::uint8_t>(65536)), Vela::RangeException);
  IpsecSessionKey k = key({9});
  EXPECT_THROW(k.dataIs(std::vector<std::uint8_t>(65536)), Vela::RangeException);
  EXPECT_EQ(k, key({9}));

  EXPECT_EQ(Vela::valueToStrep(key({0x00, 0xa1, 0xff})), "'00a1ff'");
  EXPECT_EQ(Vela::valueToStrep(key({})), "''");
  EXPECT_EQ(thrownText<Vela::RangeException>([] { Vela::parseValue<IpsecSessionKey>("'00a1ff'"); }),
            "IpsecSessionKey cannot be parsed from text");
}

TEST(IpsecSecurityAssociationTest, TextualFormAndEquality) {
  EXPECT_EQ(Vela::valueToStrep(sa(0x1234)),
            "Value('Tunnel::IpsecSecurityAssociation', ** {'spi': 4660, 'useExtendedSequenceNumber': True, "
            "'encryptKey': '0aff', 'authKey': '01'})");
  expectEveryFieldCounts<IpsecSecurityAssociation>(sa(1),
                                                   {
                                                       [](auto& v) { v.spiIs(2); },
                                                       [](auto& v) { v.useExtendedSequenceNumberIs(false); },
                                                       [](auto& v) { v.encryptKeyIs(key({0x0a})); },
                                                       [](auto& v) { v.authKeyIs(key({})); },
                                                   });
}

TEST(IpsecTunnelInfoTest, QueuesPrintAsNone) {
  IpsecTunnelInfo info(outerHeader(), IpsecCryptoSuite::aes128_cbc_sha1_96);
  for (std::uint32_t spi : {1u, 2u, 3u}) info.saEncapPush(sa(spi));
  EXPECT_EQ(
      Vela::valueToStrep(info),
      "Value('Tunnel::IpsecTunnelInfo', ** {'src': '10.0.0.1', 'dst': '2001:db8::1', 'dscp': 46, 'ttl': 64, "
      "'cryptoSuite': aes128_cbc_sha1_96, 'saDecap': None, 'saEncap': None})");

  // The text carries no associations: read back, the queues are empty.
  IpsecTunnelInfo const back = Vela::parseValue<IpsecTunnelInfo>(Vela::valueToStrep(info));
  EXPECT_TRUE(back.saEncaps().empty());
  info.saEncapDelAll();
  EXPECT_EQ(back, info);
}

TEST(IpsecTunnelInfoTest, QueueAppendsAtTailRemovesAtHeadAndKeepsItsIndexes) {
  IpsecTunnelInfo info;
  EXPECT_EQ(info.saDecapPush(sa(10)), 0);
  EXPECT_EQ(info.saDecapPush(sa(11)), 1);
  EXPECT_EQ(info.saDecapPush(sa(12)), 2);
  info.saDecapPop();
  EXPECT_EQ(info.saDecap(1), sa(11));
  EXPECT_EQ(info.saDecap(0), IpsecSecurityAssociation());  // no longer in use
  std::vector<std::uint32_t> order;
  for (auto const& [index, member] : info.saDecaps()) order.push_back(index * 100 + member.spi());
  EXPECT_EQ(order, (std::vector<std::uint32_t>{111, 212}));
  EXPECT_TRUE(info.saEncaps().empty());  // the queues are separate

  // The metadata rebuilds a queue under the same indexes.
  SaDecapMetadata const meta = info.saDecapMetadata();
  EXPECT_EQ(meta, SaDecapMetadata(1, 3));
  EXPECT_EQ(Vela::valueToStrep(meta),
            "Value('Tunnel::SaDecapMetadata', ** {'headIndex': 1, 'tailIndex': 3})");
  EXPECT_EQ(Vela::valueToStrep(info.saEncapMetadata()),
            "Value('Tunnel::SaEncapMetadata', ** {'headIndex': 0, 'tailIndex': 0})");
  IpsecTunnelInfo copy;
  copy.saDecapMetadataIs(meta);
  EXPECT_NE(copy, info);
  copy.saDecapIs(1, sa(11));
  copy.saDecapIs(2, sa(12));
  EXPECT_EQ(copy, info);
  EXPECT_EQ(Vela::hashOf(copy), Vela::hashOf(info));
  EXPECT_EQ(copy.saDecapPush(sa(13)), 3);
  EXPECT_THROW(copy.saDecapIs(0, sa(1)), Vela::RangeException);

  // Same members at other indexes are equal; other members are not.
  IpsecTunnelInfo fresh;
  fresh.saDecapPush(sa(11));
  fresh.saDecapPush(sa(12));
  EXPECT_EQ(fresh, info);
  fresh.saDecapIs(1, sa(99));
  EXPECT_NE(fresh, info);
}

}  // namespace
}  // namespace Tunnel
