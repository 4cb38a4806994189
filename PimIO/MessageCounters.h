#pragma once
// The message counter table: per interface, message type and subtype, how many PIM messages were
// received or sent, and of those how many were invalid or filtered. It lives in a shared-memory
// table (Cask::ShmTable) named after the VRF and address family, so that other processes (the
// `pimio counters` command, monitoring) read it while the agent counts. The agent is the one writer;
// see cask/ShmTable.h for the reader's guarantees and for what happens to the table when the agent
// exits or restarts.
#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "cask/ShmTable.h"
#include "knet/Address.h"
#include "loom/Entity.h"
#include "loom/Ptr.h"

namespace Routing::Pim::Cask {

// What a counter counts: one interface (the empty id: all interfaces), one message type (0..15) and
// one subtype (anySubtype: all subtypes).
struct CounterKey {
  static constexpr U8 anySubtype = 255;
  Knet::IntfId intfId;
  U8 messageType = 0;
  U8 subtype = anySubtype;
  friend bool operator==(const CounterKey&, const CounterKey&) = default;
  friend std::strong_ordering operator<=>(const CounterKey&, const CounterKey&) = default;
};
std::ostream& operator<<(std::ostream& os, const CounterKey& k);

struct MessageCounterData {
  CounterKey key;
  U32 rxInvalid = 0;
  U32 rxFiltered = 0;
  U32 rxValid = 0;
  U32 txInvalid = 0;
  U32 txFiltered = 0;
  U32 txValid = 0;
  friend bool operator==(const MessageCounterData&, const MessageCounterData&) = default;
};
std::ostream& operator<<(std::ostream& os, const MessageCounterData& d);

// A neighbor on an interface; a key of in-memory tables (it is not stored in shared memory).
struct NeighborKey {
  Knet::IntfId intfId;
  Knet::IpGenAddr addr;
  friend bool operator==(const NeighborKey&, const NeighborKey&) = default;
  friend std::strong_ordering operator<=>(const NeighborKey& a, const NeighborKey& b) {
    if (auto c = a.intfId <=> b.intfId; c != 0) return c;
    return a.addr <=> b.addr;
  }
};
std::ostream& operator<<(std::ostream& os, const NeighborKey& k);

// The longest interface name a stored key holds (its field keeps a terminating zero).
constexpr size_t maxCounterIntfName = 47;
// The layout of a stored entry; raised whenever CounterKey or MessageCounterData change shape.
constexpr U32 counterLayoutVersion = 1;

// "/pimio-<vrf>-ipv4" or "-ipv6"; the empty VRF name is "default".
std::string counterTableName(const std::string& vrf, Knet::AddressFamily af);

class MessageCounters : public Loom::Entity {
 public:
  const std::string& name() const { return table_.name(); }
  bool writer() const { return table_.writer(); }
  bool usable() const { return table_.usable(); }
  // True when the table's header, or a slot, did not hold what this layout expects.
  bool corruptionDetected() const { return table_.corruptionDetected() || keyCorrupt_; }
  // Keys whose interface name is too long to store, refused by msgCounterIs.
  U32 longNamesRefused() const { return longNamesRefused_; }
  const ::Cask::ShmTable& table() const { return table_; }

  // The counts of `key`: the default MessageCounterData when absent (or when the table is unusable).
  MessageCounterData msgCounter(const CounterKey& key) const;
  // Inserts or replaces the whole entry of data.key in one write.
  void msgCounterIs(const MessageCounterData& data);
  void msgCounterDel(const CounterKey& key);
  void msgCounterDelAll();
  // The writer's fast way to count: a handle on the entry of `key`, made with every count 0 when
  // absent (-1 when it cannot be stored), and one count of a handle's entry raised by one. Handles
  // stay good while slotGeneration() is unchanged.
  enum class Count : U8 { rxInvalid, rxFiltered, rxValid, txInvalid, txFiltered, txValid };
  long counterSlotIs(const CounterKey& key);
  void counterInc(long slot, Count c) { table_.slotValueAdd(slot, static_cast<U32>(c) * 4, 1); }
  U64 slotGeneration() const { return table_.generation(); }

  // A consistent copy of every entry, ordered by key.
  std::vector<MessageCounterData> msgCounters() const;

  // Removes the table from the system (the agent calls this when the instance is deleted for good).
  void unlink() { table_.unlink(); }

 private:
  friend Loom::Ptr<MessageCounters> messageCountersFactory(const std::string& vrf, Knet::AddressFamily af,
                                                           U32 capacity);
  friend Loom::Ptr<MessageCounters> messageCountersReader(const std::string& vrf, Knet::AddressFamily af);
  MessageCounters() = default;

  ::Cask::ShmTable table_;
  U32 longNamesRefused_ = 0;
  mutable bool keyCorrupt_ = false;  // a stored key held no valid name or type
};

// The writer's table of one VRF and family, made or reattached with room for `capacity` keys.
Loom::Ptr<MessageCounters> messageCountersFactory(const std::string& vrf, Knet::AddressFamily af, U32 capacity);
// The same table opened read-only, for another process.
Loom::Ptr<MessageCounters> messageCountersReader(const std::string& vrf, Knet::AddressFamily af);

inline void clearMessageCounters(const Loom::Ptr<MessageCounters>& counters) { counters->msgCounterDelAll(); }

}  // namespace Routing::Pim::Cask

template <>
struct std::hash<Routing::Pim::Cask::CounterKey> {
  size_t operator()(const Routing::Pim::Cask::CounterKey& k) const noexcept {
    return std::hash<Knet::IntfId>()(k.intfId) * 31 + (static_cast<size_t>(k.messageType) << 8 | k.subtype);
  }
};

template <>
struct std::hash<Routing::Pim::Cask::NeighborKey> {
  size_t operator()(const Routing::Pim::Cask::NeighborKey& k) const noexcept {
    return std::hash<Knet::IntfId>()(k.intfId) * 0x9e3779b97f4a7c15ULL ^ std::hash<Knet::IpGenAddr>()(k.addr);
  }
};
