#pragma once
// The Join/Prune message (PIM type 3). The decoder turns a received message into a JoinPruneData
// tree, resolving contradictions inside the message and counting what it dropped; the encoder
// packs as much of a tree as fits one packet of the interface MTU, leaves a bookmark where it
// stopped, suppresses joins in periodic messages and deletes what it wrote from a triggered tree.
// Both filter groups by the interface's multicast boundary and by bidirectional mode.
#include <string>
#include <string_view>

#include "PimData/IntfBoundary.h"
#include "PimData/JoinPruneData.h"
#include "PimMessage/Message.h"

namespace Routing::Pim::Packet {

using Routing::Pim::JoinPruneData;
using Routing::Pim::JoinPruneGroupData;
using Routing::Pim::RptPrunedGroupData;

// The rows of the Join/Prune text table: the failures of a read or write, and the entries that
// a read or write drops while it goes on.
enum class JoinPruneText : U8 {
  headerParse,
  upstreamParse,
  upstreamFamily,
  upstreamInvalid,
  infoLength,
  groupParse,
  numSources,
  joinedSourceParse,
  prunedSourceParse,
  wcWithoutRpt,
  multipleStarG,
  starGJoinAndPrune,
  source,
  zeroSources,
  endOfMessage,
  zeroValidGroups,
  writeFamily,
  mtuBiggerThanBuffer,
  writeHeaderSpace,
  writeUpstreamFamily,
  writeUpstream,
  writeInfoSpace,
  invalidBookmark,
  insufficientMtu,
  writeGroup,
  numSourcesSpace,
  entryFamily,
  periodicStarGPrune,
  zeroGroups,
  writeHeader,
  readBack,
  joinedRptWrite,
  joinedWrite,
  starGRpWrite,
  prunedRptWrite,
  prunedWrite,
};
template <>
inline constexpr TextTable textTableOf<JoinPruneText> = TextTable::joinPrune;
std::string_view textOf(JoinPruneText row);

class JoinPruneMessage : public Message {
 public:
  // What a read or write did with the entries: written or accepted, left out by suppression or
  // conflict resolution, and dropped by filters.
  struct Report {
    U32 processed = 0;
    U32 suppressed = 0;
    U32 filtered = 0;
    U32 skipped() const { return suppressed + filtered; }
    friend bool operator==(const Report&, const Report&) = default;
  };

  JoinPruneMessage();
  static const char* fwkType() { return "Routing::Pim::Packet::JoinPruneMessage"; }

  const Loom::Ptr<JoinPruneData>& joinPruneData() const { return joinPruneData_; }
  void joinPruneDataIs(const Loom::Ptr<JoinPruneData>& v) { joinPruneData_ = v; }
  // The largest IP packet the encoder may produce.
  U32 mtu() const { return mtu_; }
  void mtuIs(U32 v) { mtu_ = v; }
  // Whether the message carries bidirectional groups (B flag) rather than sparse-mode groups.
  bool bidir() const { return bidir_; }
  void bidirIs(bool v) { bidir_ = v; }
  const Report& report() const { return report_; }
  // The groups that the last read dropped because their B flag did not match bidir(): a message
  // read in the wrong mode keeps none of its groups.
  U32 bidirFilteredGroups() const { return bidirFilteredGroups_; }
  // The number of groups that the last message read announced in its header, whatever became of
  // them: a read that fails with groups announced lost them all to filters or to bad records.
  U8 groupCount() const { return groupCount_; }
  void reportIs(const Report& v) { report_ = v; }

  // Reads the message at offset into a new tree: bytes read, or 0 on failure. `intfBoundary`
  // may be null.
  U32 readJoinPruneMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset,
                           const Loom::Ptr<Boundary::IntfBoundary>& intfBoundary);
  // Writes as much of the tree as fits: bytes written, or 0 on failure.
  U32 writeJoinPruneMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset,
                            const Loom::Ptr<Boundary::IntfBoundary>& intfBoundary);

  void print(std::ostream& os) const override;

 private:
  Loom::Ptr<JoinPruneData> joinPruneData_;
  U32 mtu_ = 1500;
  bool bidir_ = false;
  Report report_;
  U32 bidirFilteredGroups_ = 0;
  U8 groupCount_ = 0;
};

Loom::Ptr<JoinPruneMessage> joinPruneMessageFactory();

std::ostream& operator<<(std::ostream& os, const JoinPruneMessage* m);
std::ostream& operator<<(std::ostream& os, const JoinPruneMessage::Report& r);
std::string valueToStrep(const JoinPruneMessage::Report& r);

std::ostream& operator<<(std::ostream& os, const JoinPruneData* d);
std::ostream& operator<<(std::ostream& os, const JoinPruneGroupData* g);
std::ostream& operator<<(std::ostream& os, const JoinPruneData::Bookmark* b);

}  // namespace Routing::Pim::Packet
