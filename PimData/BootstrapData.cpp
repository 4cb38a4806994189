#include "PimData/BootstrapData.h"

#include <iterator>

namespace Routing::Pim {

bool BootstrapRpList::erase(const Knet::IpGenAddr& address) {
  const BootstrapRpData* rp = find(address);
  if (!rp) return false;
  rps_.erase(rp);
  return true;
}

Loom::Ptr<BootstrapGroupData> bootstrapGroupDataFactory(const Knet::IpGenPrefix& prefix) {
  return new BootstrapGroupData(prefix);
}

Loom::Ptr<BootstrapOptionalData> BootstrapOptionalData::BootstrapOptionalDataIs() { return new BootstrapOptionalData; }

Loom::Ptr<BootstrapOptionalData> bootstrapOptionalDataFactory() { return BootstrapOptionalData::BootstrapOptionalDataIs(); }

BootstrapGroupData* BootstrapOptionalData::groupData(U32 index) const {
  auto it = groupData_.find(index);
  return it == groupData_.end() ? nullptr : it->second.ptr();
}

Loom::Ptr<BootstrapGroupData> BootstrapOptionalData::groupDataDeq() {
  if (groupData_.empty()) return nullptr;
  Loom::Ptr<BootstrapGroupData> head = groupData_.begin()->second;
  groupData_.erase(groupData_.begin()->first);
  metadataUpdate();
  return head;
}

void BootstrapOptionalData::groupDataIs(U32 index, const Loom::Ptr<BootstrapGroupData>& group) {
  groupData_[index] = group;
  metadataUpdate();
}

void BootstrapOptionalData::groupDataDel(U32 index) {
  groupData_.erase(index);
  metadataUpdate();
}

void BootstrapOptionalData::groupDataDelAll() {
  groupData_.clear();
  metadataUpdate();
}

// The tail only grows, so that a position is never given twice while the queue lives.
void BootstrapOptionalData::metadataUpdate() {
  metadata_.count = static_cast<U32>(groupData_.size());
  if (groupData_.empty()) {
    metadata_.head = metadata_.tail;
    return;
  }
  metadata_.head = groupData_.begin()->first;
  metadata_.tail = std::max(metadata_.tail, std::prev(groupData_.end())->first + 1);
}

}  // namespace Routing::Pim
