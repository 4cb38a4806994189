#include "PimData/JoinPruneData.h"

namespace Routing::Pim {

RptPrunedGroupData& JoinPruneGroupData::rptPrunedGroupDataIs() {
  if (!rptPrunedGroupData_) rptPrunedGroupData_ = new RptPrunedGroupData;
  return *rptPrunedGroupData_;
}

void JoinPruneGroupData::entriesDelAll() {
  wcSourceData_.reset();
  joinedSource_.clear();
  joinedRptSource_.clear();
  prunedSource_.clear();
  joinSuppressSource_.clear();
  prunedRptSourceDelAll();
}

JoinPruneResolution JoinPruneGroupData::receivedJoinIs(const Knet::IpGenAddr& s, SourceFlags flags) {
  using C = JoinPruneConflict;
  JoinPruneResolution r;
  const bool starGJoin = wcSourceData_ && wcSourceData_->join;
  const bool starGPrune = wcSourceData_ && !wcSourceData_->join;
  if (flags.isStarG()) {
    if (starGPrune) {
      r.removedRp = s;
      r.keptRp = wcSourceData_->rp;
      r.conflictIs(C::starGJoinAndPrune);
      return r;
    }
    if (starGJoin) {
      r.removedRp = wcSourceData_->rp;
      r.keptRp = s;
      r.conflictIs(C::repeatedStarGJoin);
    }
    wcSourceDataIs(s, true);
    // A (*,G) join covers every (S,G,rpt) join of the group.
    r.suppressed += static_cast<U32>(joinedRptSources());
    joinedRptSourceDelAll();
  } else if (flags.isSgRpt()) {
    if (wcSourceData_) {
      ++r.suppressed;
    } else if (prunedRptSourceHas(s)) {
      r.conflictIs(C::sgRptJoinAndPrune);
    } else {
      joinedRptSourceIs(s);
    }
  } else if (prunedSource_.contains(s)) {
    r.conflictIs(C::sgJoinAndPrune);
  } else {
    if (prunedRptSourceHas(s)) {
      r.conflictIs(C::sgJoinAndSgRptPrune);
      prunedRptSourceDel(s);
    }
    joinedSourceIs(s);
  }
  return r;
}

JoinPruneResolution JoinPruneGroupData::receivedPruneIs(const Knet::IpGenAddr& s, SourceFlags flags) {
  using C = JoinPruneConflict;
  JoinPruneResolution r;
  if (flags.isStarG()) {
    if (wcSourceData_ && wcSourceData_->join) {
      r.removedRp = wcSourceData_->rp;
      r.keptRp = s;
      r.conflictIs(C::starGJoinAndPrune);
    }
    wcSourceDataIs(s, false);
    // A (*,G) prune overrides every (S,G,rpt) entry of the group.
    r.suppressed += static_cast<U32>(prunedRptSources() + joinedRptSources());
    prunedRptSourceDelAll();
    joinedRptSourceDelAll();
  } else if (flags.isSgRpt()) {
    if (wcSourceData_ && !wcSourceData_->join) {
      ++r.suppressed;
      return r;
    }
    prunedRptSourceIs(s);
    if (joinedRptSourceDel(s)) r.conflictIs(C::sgRptJoinAndPrune);
    if (joinedSource_.contains(s)) {
      r.conflictIs(C::sgJoinAndSgRptPrune);
      prunedRptSourceDel(s);
    }
  } else {
    prunedSourceIs(s);
    if (joinedSourceDel(s)) r.conflictIs(C::sgJoinAndPrune);
  }
  return r;
}

JoinPruneData::Bookmark& JoinPruneData::bookmarkIs() {
  if (!bookmark_) bookmark_ = new Bookmark;
  return *bookmark_;
}

JoinPruneGroupData& JoinPruneData::joinPruneGroupDataIs(const Knet::IpGenAddr& group) {
  return *groups_.findOrInsert(group, [&] { return Loom::Ptr<JoinPruneGroupData>(new JoinPruneGroupData(group)); });
}

U32 JoinPruneData::routes() const {
  U32 n = 0;
  for (const auto& [group, data] : groups_) n += data->routes();
  return n;
}

}  // namespace Routing::Pim
