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
