#pragma once
// The join/prune tree of one Join/Prune message: the upstream neighbor, the holdtime and, per
// group, the (*,G), (S,G) and (S,G,rpt) joins and prunes. The decoder fills it from a received
// message; the agent fills it for the encoder, which drains it message by message, keeping its
// place in a bookmark.
//
// Groups and sources are kept in address order (sorted vectors): iteration is deterministic, a
// bookmark resumes by lookup, and decoding a sorted message only appends.
#include <array>
#include <optional>
#include <vector>

#include "PimData/PimFlags.h"
#include "knet/Address.h"
#include "loom/Entity.h"
#include "loom/FlatMap.h"
#include "loom/Pool.h"

namespace Routing::Pim {

// Most groups carry one or two sources of a kind: the first one is kept inline.
using SourceSet = Loom::FlatSet<Knet::IpGenAddr, 1>;

// A group's (S,G,rpt) prunes, in source order; the flag of each entry is the agent's.
class RptPrunedGroupData : public Loom::Entity {
 public:
  using PrunedRptSources = Loom::FlatMap<Knet::IpGenAddr, bool>;
  const PrunedRptSources& prunedRptSource() const { return prunedRptSource_; }
  bool prunedRptSourceHas(const Knet::IpGenAddr& s) const { return prunedRptSource_.contains(s); }
  void prunedRptSourceIs(const Knet::IpGenAddr& s, bool v = true) { prunedRptSource_[s] = v; }
  void prunedRptSourceDel(const Knet::IpGenAddr& s) { prunedRptSource_.erase(s); }
  void prunedRptSourceDelAll() { prunedRptSource_.clear(); }
  void prunedRptSourceDel(const std::vector<Knet::IpGenAddr>& sorted) { prunedRptSource_.eraseSorted(sorted); }
  size_t prunedRptSources() const { return prunedRptSource_.size(); }

 private:
  PrunedRptSources prunedRptSource_;
};

// A contradiction between a received entry and what its group already held. The rules that
// resolve them belong to the tree: a prune wins over the same join, a (*,G) entry covers the
// group's (S,G,rpt) entries, an (S,G) join wins over the (S,G,rpt) prune of its source, and of
// two (*,G) joins the later one stays.
enum class JoinPruneConflict : U8 {
  none,
  repeatedStarGJoin,    // a second (*,G) join replaced the first
  starGJoinAndPrune,    // (*,G) join and prune: the prune stays
  sgRptJoinAndPrune,    // (S,G,rpt) join and prune of one source: the prune stays
  sgJoinAndPrune,       // (S,G) join and prune of one source: the prune stays
  sgJoinAndSgRptPrune,  // (S,G) join and (S,G,rpt) prune of one source: the join stays
};

// What adding a received entry did beyond adding it: the entries it dropped (itself or earlier
// ones) and the conflicts it met, at most two, in the order they were resolved.
struct JoinPruneResolution {
  U32 suppressed = 0;
  std::array<JoinPruneConflict, 2> conflicts{};
  // For the (*,G) conflicts: the RP of the entry that went and of the one that stayed.
  Knet::IpGenAddr removedRp;
  Knet::IpGenAddr keptRp;

  void conflictIs(JoinPruneConflict c) {
    conflicts[conflicts[0] == JoinPruneConflict::none ? 0 : 1] = c;
    ++suppressed;
  }
};

// Made and freed by the hundred per decoded packet, so its storage is recycled.
class JoinPruneGroupData : public Loom::Entity, public Loom::Pooled<JoinPruneGroupData> {
 public:
  // The (*,G) entry: a join or a prune toward the RP.
  struct WcSourceData {
    Knet::IpGenAddr rp;
    bool join = true;
    bool wcSuppressed = false;
  };

  explicit JoinPruneGroupData(const Knet::IpGenAddr& group) : group_(group) {}

  const Knet::IpGenAddr& group() const { return group_; }
  // The flags byte of the encoded group address; bit 7 is the bidirectional (B) flag.
  U8 groupFlags() const { return groupFlags_; }
  void groupFlagsIs(U8 v) { groupFlags_ = v; }
  bool bidir() const { return GroupFlags(groupFlags_).bidir(); }

  const std::optional<WcSourceData>& wcSourceData() const { return wcSourceData_; }
  void wcSourceDataIs(const Knet::IpGenAddr& rp, bool join) { wcSourceData_ = WcSourceData{rp, join, false}; }
  void wcSourceDataDel() { wcSourceData_.reset(); }
  void wcSuppressedIs(bool v) {
    if (wcSourceData_) wcSourceData_->wcSuppressed = v;
  }

  // (S,G) joins.
  const SourceSet& joinedSource() const { return joinedSource_; }
  bool joinedSourceIs(const Knet::IpGenAddr& s) { return joinedSource_.insert(s); }
  bool joinedSourceDel(const Knet::IpGenAddr& s) { return joinedSource_.erase(s); }
  void joinedSourceDelAll() { joinedSource_.clear(); }
  void joinedSourceDel(const std::vector<Knet::IpGenAddr>& sorted) { joinedSource_.eraseSorted(sorted); }
  size_t joinedSources() const { return joinedSource_.size(); }
  void joinedSourceReserve(size_t n) { joinedSource_.reserve(n); }

  // (S,G,rpt) joins.
  const SourceSet& joinedRptSource() const { return joinedRptSource_; }
  bool joinedRptSourceIs(const Knet::IpGenAddr& s) { return joinedRptSource_.insert(s); }
  bool joinedRptSourceDel(const Knet::IpGenAddr& s) { return joinedRptSource_.erase(s); }
  void joinedRptSourceDelAll() { joinedRptSource_.clear(); }
  void joinedRptSourceDel(const std::vector<Knet::IpGenAddr>& sorted) { joinedRptSource_.eraseSorted(sorted); }
  size_t joinedRptSources() const { return joinedRptSource_.size(); }

  // (S,G) prunes.
  const SourceSet& prunedSource() const { return prunedSource_; }
  bool prunedSourceIs(const Knet::IpGenAddr& s) { return prunedSource_.insert(s); }
  bool prunedSourceDel(const Knet::IpGenAddr& s) { return prunedSource_.erase(s); }
  void prunedSourceDelAll() { prunedSource_.clear(); }
  void prunedSourceDel(const std::vector<Knet::IpGenAddr>& sorted) { prunedSource_.eraseSorted(sorted); }
  size_t prunedSources() const { return prunedSource_.size(); }
  void prunedSourceReserve(size_t n) { prunedSource_.reserve(n); }

  // The three source sets by kind (0: (S,G,rpt) joins, 1: (S,G) joins, 2: (S,G) prunes), for the
  // encoder's in-place walk.
  SourceSet& sourceSet(int kind) { return kind == 0 ? joinedRptSource_ : kind == 1 ? joinedSource_ : prunedSource_; }

  // (S,G) joins to leave out of the next periodic message.
  const SourceSet& joinSuppressSource() const { return joinSuppressSource_; }
  bool joinSuppressSourceIs(const Knet::IpGenAddr& s) { return joinSuppressSource_.insert(s); }
  bool joinSuppressSourceDel(const Knet::IpGenAddr& s) { return joinSuppressSource_.erase(s); }
  void joinSuppressSourceDelAll() { joinSuppressSource_.clear(); }

  // (S,G,rpt) prunes: the group's own set, made on first use.
  const Loom::Ptr<RptPrunedGroupData>& rptPrunedGroupData() const { return rptPrunedGroupData_; }
  RptPrunedGroupData& rptPrunedGroupDataIs();
  void prunedRptSourceIs(const Knet::IpGenAddr& s) { rptPrunedGroupDataIs().prunedRptSourceIs(s, true); }
  bool prunedRptSourceHas(const Knet::IpGenAddr& s) const {
    return rptPrunedGroupData_ && rptPrunedGroupData_->prunedRptSourceHas(s);
  }
  void prunedRptSourceDel(const Knet::IpGenAddr& s) {
    if (rptPrunedGroupData_) rptPrunedGroupData_->prunedRptSourceDel(s);
  }
  void prunedRptSourceDelAll() {
    if (rptPrunedGroupData_) rptPrunedGroupData_->prunedRptSourceDelAll();
  }
  void prunedRptSourceDel(const std::vector<Knet::IpGenAddr>& sorted) {
    if (rptPrunedGroupData_) rptPrunedGroupData_->prunedRptSourceDel(sorted);
  }
  size_t prunedRptSources() const { return rptPrunedGroupData_ ? rptPrunedGroupData_->prunedRptSources() : 0; }

  // The (S,G,rpt) prunes last packed by the encoder.
  const Loom::Ptr<RptPrunedGroupData>& periodicPrunedRptGroupData() const { return periodicPrunedRptGroupData_; }
  void periodicPrunedRptGroupDataIs(const Loom::Ptr<RptPrunedGroupData>& v) { periodicPrunedRptGroupData_ = v; }
  void periodicPrunedRptGroupDataDel() { periodicPrunedRptGroupData_ = nullptr; }

  // Entries of every kind: joins, prunes, (S,G,rpt) prunes and the (*,G) entry.
  U32 routes() const {
    return static_cast<U32>(joinedSources() + joinedRptSources() + prunedSources() + prunedRptSources() +
                            (wcSourceData_ ? 1 : 0));
  }
  bool empty() const { return routes() == 0; }
  // Deletes every entry (suppression marks included).
  void entriesDelAll();

  // Adds a received join or prune of an (S,G), (S,G,rpt) or (*,G) entry, resolving its
  // conflicts with what the group holds. A (*,G) entry's address is the RP. Within one message
  // the joins of a group come before its prunes, so the checks of a join against the prunes only
  // bite when the group comes again in the same message.
  JoinPruneResolution receivedJoinIs(const Knet::IpGenAddr& s, SourceFlags flags);
  // The common case of receivedJoinIs, inline for the decoder's loop: an (S,G) join while the
  // group holds no prune of any kind (a record lists its joins before its prunes) meets no
  // conflict and is added. False, with nothing done, for anything else.
  bool receivedPlainJoinIs(const Knet::IpGenAddr& s, SourceFlags flags) {
    if (!flags.isSg() || !prunedSource_.empty() || rptPrunedGroupData_) return false;
    joinedSource_.insert(s);
    return true;
  }
  JoinPruneResolution receivedPruneIs(const Knet::IpGenAddr& s, SourceFlags flags);

 private:
  Knet::IpGenAddr group_;
  U8 groupFlags_ = 0;
  std::optional<WcSourceData> wcSourceData_;
  SourceSet joinedSource_;
  SourceSet joinedRptSource_;
  SourceSet prunedSource_;
  SourceSet joinSuppressSource_;
  Loom::Ptr<RptPrunedGroupData> rptPrunedGroupData_;
  Loom::Ptr<RptPrunedGroupData> periodicPrunedRptGroupData_;
};

class JoinPruneData : public Loom::Entity {
 public:
  // Where the encoder stopped: the group, the collection ((*,G), (S,G,rpt) or (S,G), by its
  // source flags), the joined or pruned side, and the source (unset at the start of a group).
  struct Bookmark : public Loom::PtrInterface {
    Knet::IpGenAddr group;
    SourceFlags collection;
    bool join = true;
    Knet::IpGenAddr source;
  };
  using Groups = Loom::FlatMap<Knet::IpGenAddr, Loom::Ptr<JoinPruneGroupData>>;

  explicit JoinPruneData(const Knet::IpGenAddr& upstream) : upstream_(upstream) {}

  const Knet::IpGenAddr& upstream() const { return upstream_; }
  void upstreamIs(const Knet::IpGenAddr& v) { upstream_ = v; }
  U8 reserved2() const { return reserved2_; }
  void reserved2Is(U8 v) { reserved2_ = v; }
  U16 holdTime() const { return holdTime_; }
  void holdTimeIs(U16 v) { holdTime_ = v; }
  // True for the agent's periodic message, false for a triggered one.
  bool periodic() const { return periodic_; }
  void periodicIs(bool v) { periodic_ = v; }

  const Loom::Ptr<Bookmark>& bookmark() const { return bookmark_; }
  Bookmark& bookmarkIs();
  void bookmarkDel() { bookmark_ = nullptr; }

  const Groups& joinPruneGroupData() const { return groups_; }
  Groups& joinPruneGroupData() { return groups_; }
  // The group's entry, made if it is new.
  JoinPruneGroupData& joinPruneGroupDataIs(const Knet::IpGenAddr& group);
  JoinPruneGroupData* joinPruneGroupData(const Knet::IpGenAddr& group) {
    auto it = groups_.find(group);
    return it == groups_.end() ? nullptr : it->second.ptr();
  }
  void joinPruneGroupDataDel(const Knet::IpGenAddr& group) { groups_.erase(group); }
  void joinPruneGroupDataDelAll() { groups_.clear(); }

  U32 routes() const;
  bool empty() const { return routes() == 0; }

 private:
  Knet::IpGenAddr upstream_;
  U8 reserved2_ = 0;
  U16 holdTime_ = 0;
  bool periodic_ = false;
  Loom::Ptr<Bookmark> bookmark_;
  Groups groups_;
};

}  // namespace Routing::Pim
