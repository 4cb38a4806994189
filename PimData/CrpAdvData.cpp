#include "PimData/CrpAdvData.h"

#include <algorithm>

namespace Routing::Pim {

Loom::Ptr<CrpGroupData> CrpGroupData::CrpGroupDataIs() { return new CrpGroupData; }

Loom::Ptr<CrpGroupData> crpGroupDataFactory() { return CrpGroupData::CrpGroupDataIs(); }

CrpGroupInfo* CrpGroupData::groupInfo(const Knet::IpGenPrefix& prefix) const {
  for (const auto& g : groupInfo_) {
    if (g->prefix() == prefix) return g.ptr();
  }
  return nullptr;
}

CrpGroupInfo& CrpGroupData::groupInfoIs(const Knet::IpGenPrefix& prefix) {
  if (CrpGroupInfo* g = groupInfo(prefix)) return *g;
  return *groupInfo_.emplace_back(new CrpGroupInfo(prefix));
}

void CrpGroupData::groupInfoDel(const Knet::IpGenPrefix& prefix) {
  std::erase_if(groupInfo_, [&](const Loom::Ptr<CrpGroupInfo>& g) { return g->prefix() == prefix; });
}

}  // namespace Routing::Pim
