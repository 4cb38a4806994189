#include "PimIO/MessageCounters.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace Routing::Pim::Cask {

namespace {

// A key as stored: the interface name zero-padded (so that equal keys have equal bytes), the type and
// the subtype, padded to whole words with zeros.
struct StoredKey {
  char intfName[maxCounterIntfName + 1];
  U8 messageType;
  U8 subtype;
  U8 pad[6];
};
struct StoredValue {
  U32 rxInvalid, rxFiltered, rxValid, txInvalid, txFiltered, txValid;
};
static_assert(std::is_trivially_copyable_v<StoredKey> && std::is_trivially_copyable_v<StoredValue>);
static_assert(sizeof(StoredKey) == 56 && offsetof(StoredKey, messageType) == 48, "the stored key layout is fixed");
static_assert(sizeof(StoredValue) == 24 && offsetof(StoredValue, txValid) ==
                                               static_cast<size_t>(MessageCounters::Count::txValid) * 4,
              "the stored value layout is fixed, in the order of MessageCounters::Count");

constexpr ::Cask::ShmLayout counterLayout{counterLayoutVersion, sizeof(StoredKey), sizeof(StoredValue)};
static_assert(counterLayout.entrySize() == 88);

// False when the interface name does not fit.
bool encode(const CounterKey& k, StoredKey& out) {
  out = StoredKey{};
  const std::string& n = k.intfId.name();
  if (n.size() > maxCounterIntfName) return false;
  std::memcpy(out.intfName, n.data(), n.size());
  out.messageType = k.messageType;
  out.subtype = k.subtype;
  return true;
}

// False when the stored name has no terminating zero or the type is out of range.
bool decode(const U8* key, const U8* value, MessageCounterData& out) {
  StoredKey k;
  StoredValue v;
  std::memcpy(&k, key, sizeof(k));
  std::memcpy(&v, value, sizeof(v));
  const size_t len = strnlen(k.intfName, sizeof(k.intfName));
  if (len == sizeof(k.intfName) || k.messageType > 15) return false;
  out.key = CounterKey{Knet::IntfId(std::string(k.intfName, len)), k.messageType, k.subtype};
  out.rxInvalid = v.rxInvalid;
  out.rxFiltered = v.rxFiltered;
  out.rxValid = v.rxValid;
  out.txInvalid = v.txInvalid;
  out.txFiltered = v.txFiltered;
  out.txValid = v.txValid;
  return true;
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const CounterKey& k) {
  os << (k.intfId.isEmpty() ? std::string("all") : k.intfId.name()) << " type " << unsigned(k.messageType)
     << " subtype ";
  if (k.subtype == CounterKey::anySubtype) return os << "all";
  return os << unsigned(k.subtype);
}

std::ostream& operator<<(std::ostream& os, const MessageCounterData& d) {
  return os << d.key << ": rx invalid " << d.rxInvalid << " filtered " << d.rxFiltered << " valid " << d.rxValid
            << ", tx invalid " << d.txInvalid << " filtered " << d.txFiltered << " valid " << d.txValid;
}

std::ostream& operator<<(std::ostream& os, const NeighborKey& k) {
  return os << (k.intfId.isEmpty() ? std::string("all") : k.intfId.name()) << " neighbor " << k.addr;
}

std::string counterTableName(const std::string& vrf, Knet::AddressFamily af) {
  return "/pimio-" + (vrf.empty() ? std::string("default") : vrf) +
         (af == Knet::AddressFamily::ipv6 ? "-ipv6" : "-ipv4");
}

MessageCounterData MessageCounters::msgCounter(const CounterKey& key) const {
  MessageCounterData out;
  StoredKey k;
  if (!encode(key, k)) return out;
  U8 value[sizeof(StoredValue)];
  if (!table_.entry(&k, value)) return out;
  MessageCounterData found;
  if (!decode(reinterpret_cast<const U8*>(&k), value, found)) {
    keyCorrupt_ = true;
    return out;
  }
  return found;
}

void MessageCounters::msgCounterIs(const MessageCounterData& data) {
  StoredKey k;
  if (!encode(data.key, k)) {
    ++longNamesRefused_;
    LOOM_TRACE(::Cask::caskTraceUnit, 1,
               name() << ": interface name of " << data.key.intfId.name().size() << " bytes is longer than "
                      << maxCounterIntfName << ", counter refused");
    return;
  }
  const StoredValue v{data.rxInvalid, data.rxFiltered, data.rxValid, data.txInvalid, data.txFiltered, data.txValid};
  table_.entryIs(&k, &v);
}

long MessageCounters::counterSlotIs(const CounterKey& key) {
  StoredKey k;
  if (!encode(key, k)) {
    msgCounterIs(MessageCounterData{key});  // refuses and traces the long name
    return -1;
  }
  const StoredValue zero{};
  return table_.slotIs(&k, &zero);
}

void MessageCounters::msgCounterDel(const CounterKey& key) {
  StoredKey k;
  if (encode(key, k)) table_.entryDel(&k);
}

void MessageCounters::msgCounterDelAll() { table_.entryDelAll(); }

std::vector<MessageCounterData> MessageCounters::msgCounters() const {
  std::vector<MessageCounterData> out;
  table_.forEach([&](const U8* key, const U8* value) {
    MessageCounterData d;
    if (decode(key, value, d)) {
      out.push_back(std::move(d));
    } else {
      keyCorrupt_ = true;
      LOOM_TRACE(::Cask::caskTraceUnit, 1, name() << ": corrupt: a stored key has no valid interface name or type");
    }
  });
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
  return out;
}

Loom::Ptr<MessageCounters> messageCountersFactory(const std::string& vrf, Knet::AddressFamily af, U32 capacity) {
  Loom::Ptr<MessageCounters> c(new MessageCounters);
  c->table_.open(counterTableName(vrf, af), counterLayout, capacity);
  return c;
}

Loom::Ptr<MessageCounters> messageCountersReader(const std::string& vrf, Knet::AddressFamily af) {
  Loom::Ptr<MessageCounters> c(new MessageCounters);
  c->table_.openReader(counterTableName(vrf, af), counterLayout);
  return c;
}

}  // namespace Routing::Pim::Cask
