// Encapsulation descriptors of interface tunnels: the outer IP header of a
// layer-3 tunnel and what GRE and IPsec add to it.
//
// The GRE and IPsec interface tunnel tables describe their tunnels with these
// values, and the tunnel FIB keeps them per EncapId as the encapsulations that
// forwarding applies. All are plain values: fields declared once below give
// equality, the hash and the textual form "Value('Tunnel::<type>', ** {...})".
// GreTunnelInfo and IpsecTunnelInfo extend L3TunnelInfo and list its fields
// first. An IpsecTunnelInfo holds its security associations in two 8-bit
// indexed queues, which its textual form shows as None.
//
// No key material is built in: session keys arrive only in values written by
// the tables' owners.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "framework/Nimbo/IpAddr.h"
#include "framework/Vela/Enum.h"
#include "framework/Vela/Hash.h"
#include "framework/Vela/LinkQueue.h"
#include "framework/Vela/Value.h"

namespace Tunnel {

// Bits of the first 16-bit word of the GRE header (RFC 2784, RFC 2890). A
// field of this type may also hold an or-ed combination of the flag bits; such
// a value prints as its number.
VELA_ENUM(GreHdrFlagsType, std::uint16_t, "Tunnel::GreHdrFlagsType", noFlag = 0, checksumFlag = 0x8000,
          keyFlag = 0x2000, sequenceFlag = 0x1000, versionMask = 7)

// The algorithms of an IPsec tunnel's security associations.
VELA_ENUM(IpsecCryptoSuite, std::uint8_t, "Tunnel::IpsecCryptoSuite", no_suite = 0, aes128_cbc_sha1_96 = 1)

// The outer IP header of a layer-3 tunnel.
class L3TunnelInfo : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::L3TunnelInfo";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("src", &L3TunnelInfo::src_), Vela::field("dst", &L3TunnelInfo::dst_),
                           Vela::field("dscp", &L3TunnelInfo::dscp_),
                           Vela::field("ttl", &L3TunnelInfo::ttl_));
  }

  L3TunnelInfo() = default;
  L3TunnelInfo(Nimbo::IpGenAddr const& src, Nimbo::IpGenAddr const& dst, std::uint8_t dscp, std::uint8_t ttl)
      : src_(src), dst_(dst), dscp_(dscp), ttl_(ttl) {}

  Nimbo::IpGenAddr const& src() const { return src_; }
  void srcIs(Nimbo::IpGenAddr const& v) { src_ = v; }
  Nimbo::IpGenAddr const& dst() const { return dst_; }
  void dstIs(Nimbo::IpGenAddr const& v) { dst_ = v; }
  std::uint8_t dscp() const { return dscp_; }
  void dscpIs(std::uint8_t v) { dscp_ = v; }
  std::uint8_t ttl() const { return ttl_; }
  void ttlIs(std::uint8_t v) { ttl_ = v; }

 private:
  Nimbo::IpGenAddr src_;
  Nimbo::IpGenAddr dst_;
  std::uint8_t dscp_ = 0;
  std::uint8_t ttl_ = 0;
};

// A GRE tunnel: the outer header plus the GRE header fields used on output
// (o...) and expected on input (i...).
class GreTunnelInfo : public L3TunnelInfo {
 public:
  static constexpr char const* valueTypeName = "Tunnel::GreTunnelInfo";
  static constexpr auto valueFields() {
    return std::tuple_cat(L3TunnelInfo::valueFields(),
                          std::make_tuple(Vela::field("protocol", &GreTunnelInfo::protocol_),
                                          Vela::field("oFlags", &GreTunnelInfo::oFlags_),
                                          Vela::field("iFlags", &GreTunnelInfo::iFlags_),
                                          Vela::field("oKey", &GreTunnelInfo::oKey_),
                                          Vela::field("iKey", &GreTunnelInfo::iKey_)));
  }

  GreTunnelInfo() = default;
  explicit GreTunnelInfo(L3TunnelInfo const& l3, std::uint16_t protocol = 0,
                         GreHdrFlagsType oFlags = GreHdrFlagsType::noFlag,
                         GreHdrFlagsType iFlags = GreHdrFlagsType::noFlag, std::uint32_t oKey = 0,
                         std::uint32_t iKey = 0)
      : L3TunnelInfo(l3), protocol_(protocol), oFlags_(oFlags), iFlags_(iFlags), oKey_(oKey), iKey_(iKey) {}

  std::uint16_t protocol() const { return protocol_; }
  void protocolIs(std::uint16_t v) { protocol_ = v; }
  GreHdrFlagsType oFlags() const { return oFlags_; }
  void oFlagsIs(GreHdrFlagsType v) { oFlags_ = v; }
  GreHdrFlagsType iFlags() const { return iFlags_; }
  void iFlagsIs(GreHdrFlagsType v) { iFlags_ = v; }
  std::uint32_t oKey() const { return oKey_; }
  void oKeyIs(std::uint32_t v) { oKey_ = v; }
  std::uint32_t iKey() const { return iKey_; }
  void iKeyIs(std::uint32_t v) { iKey_ = v; }

 private:
  std::uint16_t protocol_ = 0;
  GreHdrFlagsType oFlags_ = GreHdrFlagsType::noFlag;
  GreHdrFlagsType iFlags_ = GreHdrFlagsType::noFlag;
  std::uint32_t oKey_ = 0;
  std::uint32_t iKey_ = 0;
};

// An IPsec session key: a byte string of at most 65535 bytes (its length is
// a 16-bit count). Keys of different lengths differ even when one is a prefix
// of the other. The textual form is the bytes in hexadecimal, quoted, and is
// write-only: no key is ever read back from text.
class IpsecSessionKey : public Vela::ValueTag {
 public:
  using Bytes = std::vector<std::uint8_t>;
  static constexpr char const* valueTypeName = "Tunnel::IpsecSessionKey";
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("data", &IpsecSessionKey::data_));
  }
  static constexpr std::size_t maxLength = 0xFFFF;

  IpsecSessionKey() = default;
  // Raises Vela::RangeException for more than maxLength bytes.
  explicit IpsecSessionKey(Bytes data) { dataIs(std::move(data)); }

  Bytes const& data() const { return data_; }
  void dataIs(Bytes data);
  std::uint16_t length() const { return static_cast<std::uint16_t>(data_.size()); }

  std::uint32_t hash() const { return Vela::hashBytes(data_.data(), data_.size()); }

 private:
  Bytes data_;
};

// One IPsec security association.
class IpsecSecurityAssociation : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = "Tunnel::IpsecSecurityAssociation";
  static constexpr auto valueFields() {
    return std::make_tuple(
        Vela::field("spi", &IpsecSecurityAssociation::spi_),
        Vela::field("useExtendedSequenceNumber", &IpsecSecurityAssociation::useExtendedSequenceNumber_),
        Vela::field("encryptKey", &IpsecSecurityAssociation::encryptKey_),
        Vela::field("authKey", &IpsecSecurityAssociation::authKey_));
  }

  IpsecSecurityAssociation() = default;
  IpsecSecurityAssociation(std::uint32_t spi, bool useExtendedSequenceNumber, IpsecSessionKey encryptKey,
                           IpsecSessionKey authKey)
      : spi_(spi),
        useExtendedSequenceNumber_(useExtendedSequenceNumber),
        encryptKey_(std::move(encryptKey)),
        authKey_(std::move(authKey)) {}

  std::uint32_t spi() const { return spi_; }
  void spiIs(std::uint32_t v) { spi_ = v; }
  bool useExtendedSequenceNumber() const { return useExtendedSequenceNumber_; }
  void useExtendedSequenceNumberIs(bool v) { useExtendedSequenceNumber_ = v; }
  IpsecSessionKey const& encryptKey() const { return encryptKey_; }
  void encryptKeyIs(IpsecSessionKey const& v) { encryptKey_ = v; }
  IpsecSessionKey const& authKey() const { return authKey_; }
  void authKeyIs(IpsecSessionKey const& v) { authKey_ = v; }

 private:
  std::uint32_t spi_ = 0;
  bool useExtendedSequenceNumber_ = false;
  IpsecSessionKey encryptKey_;
  IpsecSessionKey authKey_;
};

// Bookkeeping of one security-association queue: the index of its head and
// the index its next member takes. It travels with the IpsecTunnelInfo so that
// a reader rebuilds the queue under the same indexes.
template <class Tag>
class SaQueueMetadata : public Vela::ValueTag {
 public:
  static constexpr char const* valueTypeName = Tag::valueTypeName;
  static constexpr auto valueFields() {
    return std::make_tuple(Vela::field("headIndex", &SaQueueMetadata::headIndex_),
                           Vela::field("tailIndex", &SaQueueMetadata::tailIndex_));
  }

  SaQueueMetadata() = default;
  SaQueueMetadata(std::uint8_t headIndex, std::uint8_t tailIndex)
      : headIndex_(headIndex), tailIndex_(tailIndex) {}

  std::uint8_t headIndex() const { return headIndex_; }
  std::uint8_t tailIndex() const { return tailIndex_; }

 private:
  std::uint8_t headIndex_ = 0;
  std::uint8_t tailIndex_ = 0;
};

struct SaDecapMetadataTag {
  static constexpr char const* valueTypeName = "Tunnel::SaDecapMetadata";
};
struct SaEncapMetadataTag {
  static constexpr char const* valueTypeName = "Tunnel::SaEncapMetadata";
};
using SaDecapMetadata = SaQueueMetadata<SaDecapMetadataTag>;
using SaEncapMetadata = SaQueueMetadata<SaEncapMetadataTag>;

// An IPsec tunnel: the outer header, the crypto suite of all its
// associations, and its associations for decapsulation and encapsulation.
// Each queue appends at the tail under the next free 8-bit index and removes
// at the head; a push into a queue that holds 256 associations raises
// Vela::RangeException "linkqueue index space full". Equality compares the
// queues' members in order, not their indexes. There is no ordering.
class IpsecTunnelInfo : public L3TunnelInfo {
 public:
  using SaQueue = Vela::LinkQueue<IpsecSecurityAssociation>;
  static constexpr char const* valueTypeName = "Tunnel::IpsecTunnelInfo";
  static constexpr auto valueFields() {
    return std::tuple_cat(L3TunnelInfo::valueFields(),
                          std::make_tuple(Vela::field("cryptoSuite", &IpsecTunnelInfo::cryptoSuite_),
                                          Vela::field("saDecap", &IpsecTunnelInfo::saDecap_),
                                          Vela::field("saEncap", &IpsecTunnelInfo::saEncap_)));
  }

  IpsecTunnelInfo() = default;
  explicit IpsecTunnelInfo(L3TunnelInfo const& l3, IpsecCryptoSuite cryptoSuite = IpsecCryptoSuite::no_suite)
      : L3TunnelInfo(l3), cryptoSuite_(cryptoSuite) {}

  IpsecCryptoSuite cryptoSuite() const { return cryptoSuite_; }
  void cryptoSuiteIs(IpsecCryptoSuite v) { cryptoSuite_ = v; }

  // Decapsulation associations. saDecap(i) is the default association when
  // index i is not in use; saDecapIs(i, sa) replaces a member in use.
  SaQueue const& saDecaps() const { return saDecap_; }
  IpsecSecurityAssociation saDecap(std::uint8_t index) const { return member(saDecap_, index); }
  void saDecapIs(std::uint8_t index, IpsecSecurityAssociation const& sa) { saDecap_.at(index) = sa; }
  std::uint8_t saDecapPush(IpsecSecurityAssociation const& sa) { return saDecap_.push(sa); }
  void saDecapPop() { saDecap_.pop(); }
  void saDecapDelAll() { saDecap_.clear(); }
  SaDecapMetadata saDecapMetadata() const { return {saDecap_.headIndex(), saDecap_.tailIndex()}; }
  // Rebuilds the queue with default members under the recorded indexes, to
  // be filled through saDecapIs().
  void saDecapMetadataIs(SaDecapMetadata const& m) { saDecap_ = SaQueue(m.headIndex(), m.tailIndex()); }

  // Encapsulation associations, as above.
  SaQueue const& saEncaps() const { return saEncap_; }
  IpsecSecurityAssociation saEncap(std::uint8_t index) const { return member(saEncap_, index); }
  void saEncapIs(std::uint8_t index, IpsecSecurityAssociation const& sa) { saEncap_.at(index) = sa; }
  std::uint8_t saEncapPush(IpsecSecurityAssociation const& sa) { return saEncap_.push(sa); }
  void saEncapPop() { saEncap_.pop(); }
  void saEncapDelAll() { saEncap_.clear(); }
  SaEncapMetadata saEncapMetadata() const { return {saEncap_.headIndex(), saEncap_.tailIndex()}; }
  void saEncapMetadataIs(SaEncapMetadata const& m) { saEncap_ = SaQueue(m.headIndex(), m.tailIndex()); }

 private:
  static IpsecSecurityAssociation member(SaQueue const& q, std::uint8_t index) {
    auto const* sa = q.lookup(index);
    return sa ? *sa : IpsecSecurityAssociation();
  }

  IpsecCryptoSuite cryptoSuite_ = IpsecCryptoSuite::no_suite;
  SaQueue saDecap_;
  SaQueue saEncap_;
};

}  // namespace Tunnel

// An IpsecSessionKey prints as its bytes in lower-case hexadecimal, quoted
// ('0a1bff'); reading one from text is refused.
template <>
struct Vela::ValueTraits<Tunnel::IpsecSessionKey> {
  static void write(std::string& out, Tunnel::IpsecSessionKey const& v);
  [[noreturn]] static Tunnel::IpsecSessionKey read(ValueParser& p);
};

// The security-association queues print as None (and read back empty).
template <>
struct Vela::ValueTraits<Tunnel::IpsecTunnelInfo::SaQueue>
    : Vela::NoneValueTraits<Tunnel::IpsecTunnelInfo::SaQueue> {};

// Consistent with the queue's equality: the members in order.
template <>
struct Vela::Hash<Tunnel::IpsecTunnelInfo::SaQueue> {
  std::uint32_t operator()(Tunnel::IpsecTunnelInfo::SaQueue const& q) const {
    std::uint32_t h = static_cast<std::uint32_t>(q.size());
    for (auto const& entry : q) h = hashCombine(h, hashOf(entry.second));
    return mix32(h);
  }
};
