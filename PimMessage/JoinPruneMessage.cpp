#include "PimMessage/JoinPruneMessage.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <vector>

#include "PimMessage/EncodedAddress.h"
#include "knet/Cursor.h"
#include "loom/Assert.h"

namespace Routing::Pim::Packet {
namespace {

using T = JoinPruneText;

// ---- Failure texts ----
constexpr std::array<TextRow<JoinPruneText>, 36> texts{{
    {T::headerParse, "Invalid Pim Join/Prune - Header - Parse Error"},
    {T::upstreamParse, "Invalid Pim Join/Prune - Upstream Neighbor Address - Parse Error"},
    {T::upstreamFamily, "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Family - Family: "},
    {T::upstreamInvalid, "Invalid Pim Join/Prune - Upstream Neighbor Address - Invalid Address: "},
    {T::infoLength, "Invalid Pim Join/Prune - J/P Info Length - Remaining: "},
    {T::groupParse, "Invalid Pim Join/Prune - Group Address - Parse Error"},
    {T::numSources, "Invalid Pim Join/Prune - Number of Sources - Remaining: "},
    {T::joinedSourceParse, "Invalid Pim Join/Prune - Joined Source Address - Parse Error"},
    {T::prunedSourceParse, "Invalid Pim Join/Prune - Pruned Source Address - Parse Error"},
    {T::wcWithoutRpt, "Invalid Pim Join/Prune - WC set, RPT cleared"},
    {T::multipleStarG, "Invalid Pim Join/Prune Source - Received multiple (*,G) join sources. Removing [RP: "},
    {T::starGJoinAndPrune, "Invalid Pim Join/Prune Source - Received (*,G) join and prune source. Removing (*,G) join [RP: "},
    {T::source, "Invalid Pim Join/Prune Source - Source "},
    {T::zeroSources, "Invalid Pim Join/Prune - Zero Num Sources In Group "},
    {T::endOfMessage, "Invalid Pim Join/Prune - End of Message - Remaining: "},
    {T::zeroValidGroups, "Invalid Pim Join/Prune - Zero Valid Num Groups"},
    {T::writeFamily, "Invalid Pim Join/Prune - Unsupported Address Family - Af: "},
    {T::mtuBiggerThanBuffer, "Invalid Pim Join/Prune - MTU is bigger than buffer - MTU: "},
    {T::writeHeaderSpace, "Invalid Pim Join/Prune - Header - Unavailable Space - Remaining: "},
    {T::writeUpstreamFamily, "Invalid Pim Join/Prune - Invalid Family - Family: "},
    {T::writeUpstream, "Invalid Pim Join/Prune - Upstream Neighbor Address - Write Error"},
    {T::writeInfoSpace, "Invalid Pim Join/Prune - J/P Info - Unavailable Space - Remaining: "},
    {T::invalidBookmark, "Invalid bookmark in Pim Join/Prune - Group Address Family: "},
    {T::insufficientMtu, "Invalid Pim Join/Prune - Insufficient MTU Size - Remaining: "},
    {T::writeGroup, "Pim Join/Prune - Group Address - Write Error"},
    {T::numSourcesSpace, "Invalid Pim Join/Prune - Num Sources - Unavailable Space - Remaining: "},
    {T::entryFamily, "Pim Join/Prune - Invalid Family - Family: "},
    {T::periodicStarGPrune, "Invalid Pim Join/Prune - Periodic (*,G)-Prune"},
    {T::zeroGroups, "Invalid Pim Join/Prune - Zero Num Groups"},
    {T::writeHeader, "Invalid Pim Join/Prune - Header - Write Error"},
    {T::readBack, "Invalid Pim Join/Prune - Debug Error - Read Error On TX Packet"},
    {T::joinedRptWrite, "Pim Join/Prune - Joined Rpt Source Address - Write Error"},
    {T::joinedWrite, "Pim Join/Prune - Joined Source Address - Write Error"},
    {T::starGRpWrite, "Invalid Pim Join/Prune - (*,G) RP Address - Write Error"},
    {T::prunedRptWrite, "Pim Join/Prune - Pruned Rpt Source Address - Write Error"},
    {T::prunedWrite, "Pim Join/Prune - Pruned Source Address - Write Error"},
}};
static_assert(rowsInOrder(texts));

constexpr std::string_view text(T row) { return texts[static_cast<size_t>(row)].text; }

// ---- Decoder texts ----
constexpr const char* kGroupFamily = "Warning: Pim Join/Prune - Group Address - Mismatch in Address Family: ";
constexpr const char* kGroupInvalid = "Warning: Pim Join/Prune - Group Address - Skipping Invalid Prefix: ";
constexpr const char* kGroupBoundary = "Filtered: Pim Join/Prune - Multicast Boundary - Filtered Group Address: ";
constexpr const char* kBidirFilter = "Pim Join/Prune - Bidirectional Filter - Filtered Group Address: ";
constexpr const char* kSourceFamily = "Warning: Pim Join/Prune - Source Address - Mismatch in Address Family: ";
constexpr const char* kBothSgRpt = " is both joined and pruned (S,G,rpt) source.  Only processing it as a pruned (S,G,rpt) source.";
constexpr const char* kBothSgAndSgRpt =
    " is both joined (S,G) source and pruned (S,G,rpt) source. Only processing it as a (S,G) source.";
constexpr const char* kBothSg = " is both joined and pruned (S,G) source.  Only processing  it as a pruned (S,G) source.";

// Joined and pruned lists differ in their texts only.
struct SideTexts {
  T parse;
  const char* invalid;
};
constexpr SideTexts joinedTexts{T::joinedSourceParse,
                                "Warning: Pim Join/Prune - Joined Source Address - Skipping Invalid Address: "};
constexpr SideTexts prunedTexts{T::prunedSourceParse,
                                "Warning: Pim Join/Prune - Pruned Source Address - Skipping Invalid Address: "};

// ---- Encoder texts ----
constexpr const char* kBookmarkProcessed = "Bookmark processed and deleted. ";
constexpr const char* kProcessingGroup = "Processing Group ";
constexpr const char* kNoSourcesInGroup = "Pim Join/Prune - No Sources In Group - Address: ";
constexpr const char* kWriteBoundary = "Pim Join/Prune - Multicast Boundary - Filtered Group Address: ";
constexpr const char* kWriteGroupFamily = "Pim Join/Prune - Invalid Family - Family: ";
constexpr const char* kReachedMax = "Pim Join/Prune - Reached Max Mtu or Max Group of 255";
constexpr const char* kBookmarkSet = "Bookmark set. ";
constexpr const char* kSettingBookmark = "Setting bookmark. ";
constexpr const char* kPackedRptPrunes = "Packed as many (S,G,rpt) prunes as possible.  Reached max buffer size.";
constexpr const char* kGroupTakenOut = " - Probably Due to Suppressed Joins";
constexpr const char* kMessageName = "Join/Prune";

constexpr U32 maxGroups = 255;
constexpr U8 sparseBit = SourceFlags::sparseBit;
constexpr U8 rptBit = SourceFlags::rptBit;
constexpr U8 wcBit = SourceFlags::wcBit;

// The five collections of a group, in the order the encoder writes them: the (*,G) entry sits
// between the joined and the pruned lists.
enum Collection : int { joinedRpt, joined, starG, prunedRpt, pruned, collections };

struct CollectionInfo {
  const char* processing;
  T writeError;
  const char* deleting;
  U8 flags;  // written on every source of the collection (the S bit included)
};
constexpr CollectionInfo collectionInfo[collections] = {
    {"Processing (S,G,rpt) Joined Collection.", T::joinedRptWrite,
     "Deleting Joined Rpt Source - Group: ", U8(sparseBit | rptBit)},
    {"Processing (S,G) Joined Collection.", T::joinedWrite,
     "Deleting Joined Source - Group: ", sparseBit},
    {"Processing (*,G).", T::starGRpWrite,
     "Deleting (*,G) RP Address - Group: ", U8(sparseBit | wcBit | rptBit)},
    {"Processing (S,G,rpt) Pruned Collection.", T::prunedRptWrite,
     "Deleting Pruned Rpt Source - Group: ", U8(sparseBit | rptBit)},
    {"Processing (S,G) Pruned Collection.", T::prunedWrite,
     "Deleting Pruned Source - Group: ", sparseBit},
};

// The collection a bookmark names.
Collection collectionOf(SourceFlags flags, bool join) {
  if (flags.isStarG()) return starG;
  if (flags.isSgRpt()) return join ? joinedRpt : prunedRpt;
  return join ? joined : pruned;
}

enum class Packed { written, skipped, full };

U32 encodedSize(Knet::AddressFamily af) { return af == Knet::AddressFamily::ipv4 ? 8 : 20; }

// Mutes the codec's trace for a scope.
class TraceMute {
 public:
  TraceMute() : level_(traceUnit().level()) { traceUnit().levelIs(0); }
  ~TraceMute() { traceUnit().levelIs(level_); }

 private:
  int level_;
};

}  // namespace

std::string_view textOf(JoinPruneText row) { return text(row); }

JoinPruneMessage::JoinPruneMessage() : Message(Knet::pimJoinPrune()) {}

Loom::Ptr<JoinPruneMessage> joinPruneMessageFactory() { return new JoinPruneMessage; }

// ======================================================================== decoding

namespace {

// What one read keeps while it walks the groups.
struct ReadState {
  const FailureRecord& record;
  Knet::PktReader& r;
  JoinPruneData& data;
  Knet::AddressFamily family;
  bool bidir;
  const Boundary::IntfBoundary* boundary;
  JoinPruneMessage::Report report;
  U32 validGroups = 0;
  U32 bidirFiltered = 0;
};

// Traces the conflicts that adding a source resolved.
void traceResolution(const JoinPruneResolution& res, const Knet::IpGenAddr& s) {
  for (const JoinPruneConflict c : res.conflicts) {
    switch (c) {
      case JoinPruneConflict::none:
        break;
      case JoinPruneConflict::repeatedStarGJoin:
        PIM_TRACE(traceError, text(T::multipleStarG) << res.removedRp << "] and using [RP: " << res.keptRp << "]");
        break;
      case JoinPruneConflict::starGJoinAndPrune:
        PIM_TRACE(traceError, text(T::starGJoinAndPrune) << res.removedRp << "] and using (*,G) prune [RP: "
                                                          << res.keptRp << "]");
        break;
      case JoinPruneConflict::sgRptJoinAndPrune:
        PIM_TRACE(traceError, text(T::source) << s << kBothSgRpt);
        break;
      case JoinPruneConflict::sgJoinAndPrune:
        PIM_TRACE(traceError, text(T::source) << s << kBothSg);
        break;
      case JoinPruneConflict::sgJoinAndSgRptPrune:
        PIM_TRACE(traceError, text(T::source) << s << kBothSgAndSgRpt);
        break;
    }
  }
}

// How reading one encoded source of a list ended: the source is there, is skipped with a warning,
// or the list cannot be read on.
enum class SourceRead : U8 { read, skipped, failed };

// Reads one encoded source of a list into `source`. The source is filled in place (not returned
// as a value): a small record written field by field and then copied whole stalls the store buffer
// on every source.
SourceRead readSource(ReadState& st, bool join, SourceAddress& source) {
  // A well-formed valid host source of the family takes the fast path; anything else the full
  // read with its checks and texts.
  if (EncodedSourceAddress::readValidHostSource(st.r, st.family, source)) return SourceRead::read;
  const SideTexts& texts = join ? joinedTexts : prunedTexts;
  EncodedSourceAddress enc;
  if (enc.read(st.r) == 0) {
    st.record.failureIs(enc.failure());
    st.record.PIM_FAIL(texts.parse);
    return SourceRead::failed;
  }
  source = SourceAddress{enc.prefix().address(), enc.flags()};
  if (!enc.valid()) {
    PIM_TRACE(traceWarning, texts.invalid << source.address);
    return SourceRead::skipped;
  }
  if (source.address.af() != st.family) {
    PIM_TRACE(traceWarning, kSourceFamily << st.family << "Source Address: " << source.address);
    return SourceRead::skipped;
  }
  return SourceRead::read;
}

// Reads the joined and pruned lists of a group record into `group`; false on a failure.
bool readSources(ReadState& st, JoinPruneGroupData& group, U16 numJoined, U16 numPruned) {
  group.joinedSourceReserve(numJoined);
  group.prunedSourceReserve(numPruned);
  SourceAddress source;
  for (U32 i = 0; i < U32(numJoined) + numPruned; ++i) {
    const bool join = i < numJoined;
    const SourceRead got = readSource(st, join, source);
    if (got == SourceRead::failed) return false;
    if (got == SourceRead::skipped) continue;
    if (join && group.receivedPlainJoinIs(source.address, source.flags)) continue;
    if (source.flags.wc() && !source.flags.rpt()) {
      PIM_TRACE(traceError, text(T::wcWithoutRpt));
      continue;
    }
    const JoinPruneResolution res = join ? group.receivedJoinIs(source.address, source.flags)
                                         : group.receivedPruneIs(source.address, source.flags);
    traceResolution(res, source.address);
    st.report.suppressed += res.suppressed;
  }
  return true;
}

// Reads a group's encoded address into `group` (in place, as sources are), and whether the record
// is dropped for its family, its prefix, the interface's boundary or its mode; false on a parse
// failure.
bool readGroup(ReadState& st, GroupAddress& group, bool& filtered) {
  filtered = false;
  if (EncodedGroupAddress::readValidHostGroup(st.r, st.family, group) == 0) {
    EncodedGroupAddress enc;
    if (enc.read(st.r) == 0) {
      st.record.failureIs(enc.failure());
      st.record.PIM_FAIL(T::groupParse);
      return false;
    }
    group = GroupAddress{enc.prefix().address(), enc.flags()};
    if (group.address.af() != st.family) {
      PIM_TRACE(traceWarning, kGroupFamily << st.family << "Group Address: " << group.address);
      filtered = true;
    } else if (!enc.valid() || !enc.isHostPrefix()) {
      PIM_TRACE(traceWarning, kGroupInvalid << group.address);
      filtered = true;
    }
  }
  if (filtered) return true;
  const bool groupBidir = group.flags.bidir();
  if (st.boundary && st.boundary->filtered(group.address)) {
    PIM_TRACE(traceFilter, kGroupBoundary << group.address);
    filtered = true;
  } else if (groupBidir != st.bidir) {
    ++st.bidirFiltered;
    PIM_TRACE(traceFilter, kBidirFilter << group.address << " Bidirectional: " << groupBidir
                                        << " Msg Bidirectional Support: " << st.bidir);
    filtered = true;
  }
  return true;
}

// Reads one group record into the tree; false on a failure.
bool readGroupRecord(ReadState& st) {
  bool filtered = false;
  GroupAddress groupRead;
  if (!readGroup(st, groupRead, filtered)) return false;
  const Knet::IpGenAddr& groupAddr = groupRead.address;
  // A group that comes again in the same message adds its entries to the group read before,
  // under the same conflict rules as if they had come in one record. A repeated record that is
  // filtered is read aside and dropped, leaving the earlier record's entries as they are.
  JoinPruneGroupData* const earlier = st.data.joinPruneGroupData(groupAddr);
  Loom::Ptr<JoinPruneGroupData> aside;
  if (earlier && filtered) aside = new JoinPruneGroupData(groupAddr);
  JoinPruneGroupData& group = aside ? *aside : earlier ? *earlier : st.data.joinPruneGroupDataIs(groupAddr);
  if (!earlier) group.groupFlagsIs(groupRead.flags.value());
  // What the group held before this record: a repeat counts only what it changed.
  const U32 routesBefore = earlier && !aside ? earlier->routes() : 0;

  if (!st.r.fits(4)) {
    st.record.PIM_FAIL(T::numSources, st.r.remaining(), " Expected: ", 4);
    return false;
  }
  const U16 numJoined = st.r.readU16Be();
  const U16 numPruned = st.r.readU16Be();
  if (!readSources(st, group, numJoined, numPruned)) return false;

  const U32 routes = group.routes();
  if (routes == 0) {
    PIM_TRACE(traceError, text(T::zeroSources) << groupAddr);
    filtered = true;
  }
  if (filtered) {
    st.report.filtered += routes;
    if (!earlier) st.data.joinPruneGroupDataDel(groupAddr);
  } else {
    // Modulo 2^32, a repeat that removed entries of the earlier record takes them back off.
    st.report.processed += routes - routesBefore;
    if (!earlier) ++st.validGroups;
  }
  return true;
}

}  // namespace

U32 JoinPruneMessage::readJoinPruneMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset,
                                           const Loom::Ptr<Boundary::IntfBoundary>& intfBoundary) {
  bidirFilteredGroups_ = 0;
  groupCount_ = 0;
  if (readHeader(pkt, offset) == 0) {
    return PIM_FAIL(T::headerParse);
  }
  Knet::PktReader r(pkt, offset + 4);
  EncodedUnicastAddress upstream;
  if (upstream.read(r) == 0) {
    failureIs(upstream.failure());
    return PIM_FAIL(T::upstreamParse);
  }
  const Knet::AddressFamily family = af();
  if (upstream.address().af() != family) {
    return PIM_FAIL(T::upstreamFamily, family, "Upstream Address: ", upstream.address());
  }
  if (!upstream.valid()) {
    failureIs(upstream.failure());
    return PIM_FAIL(T::upstreamInvalid, upstream.address());
  }
  if (!r.fits(4)) {
    return PIM_FAIL(T::infoLength, r.remaining(), " Expected: ", 4);
  }
  Loom::Ptr<JoinPruneData> data = new JoinPruneData(upstream.address());
  data->reserved2Is(r.readU8());
  const U8 numGroups = r.readU8();
  groupCount_ = numGroups;
  data->holdTimeIs(r.readU16Be());
  data->joinPruneGroupData().reserve(numGroups);

  ReadState st{*this, r, *data, family, bidir_, intfBoundary.ptr(), {}, 0, 0};
  bool ok = true;
  for (U32 g = 0; g < numGroups && ok; ++g) ok = readGroupRecord(st);
  bidirFilteredGroups_ = st.bidirFiltered;
  if (!ok) return 0;

  report_ = st.report;
  joinPruneData_ = data;
  if (st.validGroups == 0) {
    PIM_TRACE(traceError, st.report.processed << ", " << st.report.suppressed << ", " << st.report.filtered);
    return PIM_FAIL(T::zeroValidGroups);
  }
  if (!r.atEnd()) {
    return PIM_FAIL(T::endOfMessage, r.remaining());
  }
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return r.offset() - offset;
}

// ======================================================================== encoding

namespace {

// The packing of one message: a writer bounded to the room the MTU leaves, the tree it drains,
// and what it counted. One routine per kind of entry; each leaves a bookmark and marks the
// message full when its entry does not fit.
class Packer {
 public:
  Packer(const FailureRecord& record, JoinPruneData& data, Knet::PktWriter w, Knet::AddressFamily family, bool bidir,
         const Boundary::IntfBoundary* boundary)
      : record_(record), data_(data), w_(w), family_(family), encSize_(encodedSize(family)), bidir_(bidir),
        periodic_(data.periodic()), boundary_(boundary) {}

  // Packs the groups from the bookmark on until the message is full: false on a failure, which
  // the message's record holds.
  bool packGroups();

  U32 sources() const { return sources_; }
  U32 groups() const { return groups_; }
  Knet::PktOffset end() const { return w_.offset(); }
  const JoinPruneMessage::Report& report() const { return report_; }

 private:
  // The entries written into the current group record, joined and pruned.
  struct Counts {
    U32 joined = 0;
    U32 pruned = 0;
  };

  bool packGroup(JoinPruneGroupData& group, Collection start, const Knet::IpGenAddr& startSource);
  bool groupLeftOut(JoinPruneGroupData& group);
  void packStarG(JoinPruneGroupData& group, Counts& counts);
  void packSourceSet(JoinPruneGroupData& group, Collection c, const Knet::IpGenAddr* from, Counts& counts);
  void packRptPrunes(JoinPruneGroupData& group, const Knet::IpGenAddr* from, Counts& counts);
  Packed packSource(JoinPruneGroupData& group, Collection c, const Knet::IpGenAddr& s, Counts& counts);
  Packed writeEntry(JoinPruneGroupData& group, Collection c, bool join, const Knet::IpGenAddr& s, Counts& counts);
  // Writes unicast sources of `Width` address bytes from `it` while they are of the message's
  // family and fit; moves `it` past them and returns how many.
  template <U32 Width, class It>
  U32 packHostSources(It& it, It end, U8 flags) {
    const U32 fit = static_cast<U32>(w_.remaining() / (4 + Width));
    if (it == end || fit == 0) return 0;
    // The set is in address order, family first, so the sources that can go this way lie in one
    // run from `it`: those of the message's family in the same block as the first one (below the
    // multicast block, in it, or above it). A binary search finds where the run ends; the copy
    // below then needs no check per source.
    const Knet::AddressFamily family = family_;
    const int block = blockOf<Width>(*it);
    if (it->af() != family || block == multicastBlock) return 0;
    const It stop = end - it > S64(fit) ? it + fit : end;
    const It runEnd = std::partition_point(
        it, stop, [&](const Knet::IpGenAddr& a) { return a.af() == family && blockOf<Width>(a) == block; });
    const U32 n = static_cast<U32>(runEnd - it);
    // The four bytes before every address, as they lie in memory.
    const U8 lead[4] = {static_cast<U8>(family), defaultEncoding, flags, 8 * Width};
    U32 leadWord;
    std::memcpy(&leadWord, lead, 4);
    // Two copies per source, not one 8-byte value built in a register: the compiler then turns the
    // loop into vector moves, where the built value went through the stack.
    U8* p = w_.data() + w_.offset();
    for (It a = it; a != runEnd; ++a, p += 4 + Width) {
      std::memcpy(p, &leadWord, 4);
      std::memcpy(p + 4, a->bytes(), Width);
    }
    it = runEnd;
    w_.skip(n * (4 + Width));
    sources_ += n;
    return n;
  }
  // Where an address of `Width` bytes lies against the multicast block of its family: below (0),
  // in it (1) or above (2). In address order the block never decreases.
  static constexpr int multicastBlock = 1;
  template <U32 Width>
  static int blockOf(const Knet::IpGenAddr& a) {
    const U8 first = a.bytes()[0];
    if constexpr (Width == 4) {
      return first < 0xe0 ? 0 : first < 0xf0 ? multicastBlock : 2;
    } else {
      return first == 0xff ? multicastBlock : 0;
    }
  }
  void filteredForFamily(const Knet::IpGenAddr& a);
  void bookmarkAt(const Knet::IpGenAddr& group, Collection c, bool join, const Knet::IpGenAddr& source);

  const FailureRecord& record_;
  JoinPruneData& data_;
  Knet::PktWriter w_;
  Knet::AddressFamily family_;
  U32 encSize_;
  bool bidir_;
  bool periodic_;
  const Boundary::IntfBoundary* boundary_;
  U32 sources_ = 0;  // entries written
  U32 groups_ = 0;   // group records written
  JoinPruneMessage::Report report_;
  bool full_ = false;  // the message ends here (room, 255 groups or a bookmark)
};

bool Packer::packGroups() {
  // Where to start: the bookmarked group, collection and source, or the first group.
  auto& groups = data_.joinPruneGroupData();
  auto groupIt = groups.begin();
  Loom::Ptr<JoinPruneData::Bookmark> resume = data_.bookmark();
  if (resume && !resume->group.isSet()) {
    PIM_TRACE(traceError, text(T::invalidBookmark) << resume->group.af() << " - Ignoring and Deleting Bookmark");
    data_.bookmarkDel();
    resume = nullptr;
  }
  if (resume) {
    groupIt = groups.lowerBound(resume->group);
    if (groupIt == groups.end() || groupIt->first != resume->group) {
      // The bookmarked group is gone: go on from the group that follows it.
      PIM_TRACE(tracePacking, kBookmarkProcessed << resume.ptr());
      data_.bookmarkDel();
      resume = nullptr;
    }
  }
  for (; groupIt != groups.end() && !full_; ++groupIt) {
    JoinPruneGroupData& group = *groupIt->second;
    PIM_TRACE(tracePacking, kProcessingGroup << group.group());
    // The bookmarked position inside this group, if the bookmark points into it.
    Collection start = joinedRpt;
    Knet::IpGenAddr startSource;
    if (resume) {
      if (resume->source.isSet()) {
        start = collectionOf(resume->collection, resume->join);
        startSource = resume->source;
      }
      PIM_TRACE(tracePacking, kBookmarkProcessed << resume.ptr());
      data_.bookmarkDel();
      resume = nullptr;
    }
    if (!packGroup(group, start, startSource)) return false;
  }
  return true;
}

// Whether a group stays out of the message: empty, beyond the boundary, of the other mode or
// family. A triggered message drops the entries of a group it filters.
bool Packer::groupLeftOut(JoinPruneGroupData& group) {
  const Knet::IpGenAddr& groupAddr = group.group();
  if (group.empty()) {
    PIM_TRACE(tracePacking, kNoSourcesInGroup << groupAddr);
    return true;
  }
  if (boundary_ && boundary_->filtered(groupAddr)) {
    PIM_TRACE(traceFilter, kWriteBoundary << groupAddr);
  } else if (group.bidir() != bidir_) {
    PIM_TRACE(traceFilter, kBidirFilter << groupAddr << " Bidirectional: " << group.bidir()
                                        << " Msg Bidirectional Support: " << bidir_);
  } else if (groupAddr.af() != family_) {
    PIM_TRACE(traceFilter, kWriteGroupFamily << groupAddr.af() << " Group Address: " << groupAddr);
  } else {
    return false;
  }
  report_.filtered += group.routes();
  if (!periodic_) group.entriesDelAll();
  return true;
}

// Packs one group record from the collection and source given on: false on a failure.
bool Packer::packGroup(JoinPruneGroupData& group, Collection start, const Knet::IpGenAddr& startSource) {
  const Knet::IpGenAddr& groupAddr = group.group();
  if (groupLeftOut(group)) return true;

  const S64 need = 2 * S64(encSize_) + 4;
  if (groups_ >= maxGroups || w_.remaining() < need) {
    if (sources_ == 0) {
      record_.PIM_FAIL(T::insufficientMtu, w_.remaining(), " Minimum Expected: ", need);
      return false;
    }
    PIM_TRACE(tracePacking, kReachedMax);
    // A bookmark at the start of a group: no collection, no source.
    JoinPruneData::Bookmark& b = data_.bookmarkIs();
    b.group = groupAddr;
    b.collection = SourceFlags();
    b.join = true;
    b.source = Knet::IpGenAddr();
    PIM_TRACE(tracePacking, kBookmarkSet << data_.bookmark().ptr());
    full_ = true;
    return true;
  }

  const Knet::PktOffset groupStart = w_.offset();
  EncodedGroupAddress encGroup;
  encGroup.addressIs(groupAddr);
  encGroup.flagsIs(GroupFlags(group.groupFlags()));
  if (encGroup.write(w_) == 0) {
    PIM_TRACE(traceError, text(T::writeGroup));
    std::ostringstream g;
    g << groupAddr;
    PIM_MESSAGE_INVALID_ENCODED_GROUP.raise({kMessageName, g.str()});
    report_.filtered += group.routes();
    if (!periodic_) group.entriesDelAll();
    data_.bookmarkDel();
    return true;
  }
  const Knet::PktOffset countsAt = w_.offset();
  if (!w_.skip(4)) {
    record_.PIM_FAIL(T::numSourcesSpace, w_.remaining(), " Expected: ", 4);
    return false;
  }

  Counts counts;
  const Knet::IpGenAddr* from = startSource.isSet() ? &startSource : nullptr;
  for (int c = start; c < collections && !full_; ++c) {
    const Collection collection = static_cast<Collection>(c);
    PIM_TRACE(tracePacking, collectionInfo[c].processing);
    // Only the bookmarked collection resumes from a source; the ones after it start over.
    const Knet::IpGenAddr* resumeAt = c == start ? from : nullptr;
    if (collection == starG) {
      packStarG(group, counts);
    } else if (collection == prunedRpt) {
      packRptPrunes(group, resumeAt, counts);
    } else {
      packSourceSet(group, collection, resumeAt, counts);
    }
  }

  PIM_TRACE(tracePacking, "Group " << groupAddr << " has " << counts.joined << " joined sources and " << counts.pruned
                                   << " pruned sources.");
  if (counts.joined + counts.pruned == 0) {
    PIM_TRACE(tracePacking, kNoSourcesInGroup << groupAddr << kGroupTakenOut);
    w_.rewind(groupStart);
    return true;
  }
  w_.patchU16Be(countsAt, static_cast<U16>(counts.joined));
  w_.patchU16Be(countsAt + 2, static_cast<U16>(counts.pruned));
  ++groups_;
  return true;
}

// The (*,G) entry: left out when it is of another family, a suppressed periodic join or a
// periodic prune; written otherwise, and taken from the tree by a triggered message.
void Packer::packStarG(JoinPruneGroupData& group, Counts& counts) {
  if (!group.wcSourceData()) return;
  const JoinPruneGroupData::WcSourceData wc = *group.wcSourceData();
  LOOM_ASSERT(!(group.periodicPrunedRptGroupData() && periodic_), "not data->periodic()");
  if (wc.rp.af() != family_) {
    PIM_TRACE(traceError, text(T::writeUpstreamFamily) << wc.rp.af() << " (*,G) RP Address: " << wc.rp);
    filteredForFamily(wc.rp);
    return;
  }
  if (periodic_ && wc.join && wc.wcSuppressed && group.prunedRptSources() == 0) {
    PIM_TRACE(tracePacking, "(*,G) Source Suppressed - Group: " << group.group() << " Address: " << wc.rp);
    group.wcSuppressedIs(false);
    ++report_.suppressed;
    return;
  }
  if (periodic_ && !wc.join) {
    PIM_TRACE(traceError, text(T::periodicStarGPrune));
    ++report_.filtered;
    return;
  }
  if (writeEntry(group, starG, wc.join, wc.rp, counts) == Packed::written && !periodic_) group.wcSourceDataDel();
}

// The (S,G,rpt) joins, (S,G) joins or (S,G) prunes of a group, walked in place from `from`.
void Packer::packSourceSet(JoinPruneGroupData& group, Collection c, const Knet::IpGenAddr* from, Counts& counts) {
  SourceSet& set = group.sourceSet(c == joinedRpt ? 0 : c == joined ? 1 : 2);
  auto it = from ? set.lowerBound(*from) : set.begin();
  const auto first = it;
  U32 written = 0;
  // The common case in a loop of its own: (S,G) joins of the message's family, none suppressed,
  // with room for them and no per-entry tracing. Whatever it cannot write, the general walk below
  // takes up where it stopped.
  if (c == joined && (!periodic_ || group.joinSuppressSource().empty()) && !traceUnit().enabled(tracePacking)) {
    const U8 flags = collectionInfo[c].flags;
    if (family_ == Knet::AddressFamily::ipv4) {
      written = packHostSources<4>(it, set.end(), flags);
    } else if (family_ == Knet::AddressFamily::ipv6) {
      written = packHostSources<16>(it, set.end(), flags);
    }
    counts.joined += written;
  }
  for (; it != set.end(); ++it) {
    const Packed r = packSource(group, c, *it, counts);
    if (r == Packed::full) break;
    written += r == Packed::written;
  }
  // In a triggered message the entries written go from the tree. Between `first` and where the
  // walk stopped, the only entries not written are those of another family and the multicast
  // ones that failed to encode (suppression applies to periodic messages only).
  if (!periodic_ && written) {
    set.eraseIf(first, it, [&](const Knet::IpGenAddr& a) { return a.af() == family_ && !a.isMulticast(); });
  }
}

// The (S,G,rpt) prunes of a group from `from`; those written are kept aside for the agent.
void Packer::packRptPrunes(JoinPruneGroupData& group, const Knet::IpGenAddr* from, Counts& counts) {
  if (!group.rptPrunedGroupData()) return;
  const auto& prunes = group.rptPrunedGroupData()->prunedRptSource();
  std::vector<Knet::IpGenAddr> written;
  for (auto it = from ? prunes.lowerBound(*from) : prunes.begin(); it != prunes.end(); ++it) {
    const Packed r = packSource(group, prunedRpt, it->first, counts);
    if (r == Packed::full) break;
    if (r == Packed::written) written.push_back(it->first);
  }
  if (written.empty()) return;
  Loom::Ptr<RptPrunedGroupData> packed = new RptPrunedGroupData;
  for (const Knet::IpGenAddr& a : written) packed->prunedRptSourceIs(a, true);
  group.periodicPrunedRptGroupDataIs(packed);
  if (!periodic_) group.prunedRptSourceDel(written);
}

// One source of a collection: skipped when it is of another family or a suppressed periodic
// join, written otherwise.
Packed Packer::packSource(JoinPruneGroupData& group, Collection c, const Knet::IpGenAddr& s, Counts& counts) {
  if (s.af() != family_) {
    PIM_TRACE(traceError, text(T::entryFamily) << s.af() << " Source Address: " << s);
    filteredForFamily(s);
    return Packed::skipped;
  }
  if (c == joined && periodic_ && group.joinSuppressSource().contains(s)) {
    PIM_TRACE(tracePacking, "Joined Source Suppressed - Group: " << group.group() << " Address: " << s);
    group.joinSuppressSourceDel(s);
    ++report_.suppressed;
    return Packed::skipped;
  }
  return writeEntry(group, c, c == joinedRpt || c == joined, s, counts);
}

// Writes one entry with its collection's flags; when it does not fit, sets the bookmark on it
// and marks the message full.
Packed Packer::writeEntry(JoinPruneGroupData& group, Collection c, bool join, const Knet::IpGenAddr& s,
                          Counts& counts) {
  const CollectionInfo& info = collectionInfo[c];
  if (w_.remaining() < S64(encSize_)) {
    if (c == prunedRpt) PIM_TRACE(tracePacking, kPackedRptPrunes);
    bookmarkAt(group.group(), c, join, s);
    PIM_TRACE(tracePacking, kSettingBookmark << data_.bookmark().ptr());
    full_ = true;
    return Packed::full;
  }
  U32 n = EncodedSourceAddress::writeHostSource(w_, s, SourceFlags(info.flags));
  if (n == 0) {
    EncodedSourceAddress enc;
    enc.prefixIs(Knet::IpGenPrefix(s, Knet::IpGenPrefix::maxLength(s.af())));
    enc.flagsIs(SourceFlags(info.flags));
    n = enc.write(w_);
  }
  if (n == 0) {
    PIM_TRACE(traceError, text(info.writeError));
    std::ostringstream a;
    a << s;
    PIM_MESSAGE_INVALID_ENCODED_SOURCE.raise({kMessageName, a.str()});
    ++report_.filtered;
    return Packed::skipped;
  }
  ++sources_;
  ++(join ? counts.joined : counts.pruned);
  if (!periodic_) PIM_TRACE(tracePacking, info.deleting << group.group() << " Address: " << s);
  return Packed::written;
}

// An entry of another family than the message's: logged and counted as filtered.
void Packer::filteredForFamily(const Knet::IpGenAddr& a) {
  std::ostringstream f, address;
  f << family_;  // the message's family: "send ipv4 Join/Prune message with <ipv6 address>"
  address << a;
  PIM_MESSAGE_AF_MISMATCH.raise({f.str(), kMessageName, address.str()});
  ++report_.filtered;
}

void Packer::bookmarkAt(const Knet::IpGenAddr& group, Collection c, bool join, const Knet::IpGenAddr& source) {
  JoinPruneData::Bookmark& b = data_.bookmarkIs();
  b.group = group;
  b.collection = SourceFlags(c == starG ? (wcBit | rptBit) : (c == joinedRpt || c == prunedRpt) ? rptBit : 0);
  b.join = join;
  b.source = source;
}

}  // namespace

U32 JoinPruneMessage::writeJoinPruneMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset,
                                            const Loom::Ptr<Boundary::IntfBoundary>& intfBoundary) {
  failureClear();
  report_ = Report();
  LOOM_ASSERT(joinPruneData_, "joinPruneData");
  JoinPruneData& data = *joinPruneData_;
  const S64 buffer = S64(pkt->size()) - S64(offset);
  const Knet::AddressFamily family = af();
  S64 room = 0;
  if (family == Knet::AddressFamily::ipv4) {
    room = S64(mtu_) - 20;
  } else if (family == Knet::AddressFamily::ipv6) {
    room = S64(mtu_) - 40;
  } else {
    return PIM_FAIL(T::writeFamily, family);
  }
  room = room / 8 * 8;  // a multiple of 8, toward zero, for both families
  if (buffer < room) {
    return PIM_FAIL(T::mtuBiggerThanBuffer, room, " Buffer: ", buffer);
  }
  if (room <= 3) {
    return PIM_FAIL(T::writeHeaderSpace, room);
  }
  if (data.upstream().af() != family) {
    return PIM_FAIL(T::writeUpstreamFamily, data.upstream().af(), " Upstream Address: ", data.upstream());
  }
  Knet::PktWriter head(pkt, offset + 4);
  // A unicast upstream (of the family, checked above) that fits goes in directly; anything else
  // through the encoder, with its checks and texts.
  const Knet::IpGenAddr& up = data.upstream();
  if (!up.isMulticast() && head.fits(2 + up.byteLength())) {
    head.writeU8(static_cast<U8>(family));
    head.writeU8(defaultEncoding);
    head.writeAddress(up);
  } else {
    EncodedUnicastAddress upstream;
    upstream.addressIs(up);
    if (upstream.write(head) == 0) {
      failureIs(upstream.failure());
      return PIM_FAIL(T::writeUpstream);
    }
  }
  // From here on the writer ends where the MTU does.
  Knet::PktWriter w(pkt->data(), offset + static_cast<U32>(room), head.offset());
  if (!w.fits(4)) {
    return PIM_FAIL(T::writeInfoSpace, w.remaining(), " Expected: ", 4);
  }
  const Knet::PktOffset groupCountAt = w.offset() + 1;
  // The group count is filled in at the end.
  w.writeU8(data.reserved2());
  w.writeU8(0);
  w.writeU16Be(data.holdTime());

  Packer p(*this, data, w, family, bidir_, intfBoundary.ptr());
  if (!p.packGroups()) return 0;

  LOOM_ASSERT(!data.bookmark() || data.bookmark()->group.isSet(), "invalid bookmark");
  if (p.groups() == 0) {
    report_ = Report{0, p.report().suppressed, p.report().filtered};
    return PIM_FAIL(T::zeroGroups);
  }
  pkt->data()[groupCountAt] = static_cast<U8>(p.groups());
  lengthIs(p.end() - offset);
  if (writeHeader(pkt, offset) == 0) {
    data.bookmarkDel();
    return PIM_FAIL(T::writeHeader);
  }
  if (traceUnit().enabled(traceDetail)) {
    // Read the packet back and trace what a receiver will see.
    pkt->sizeIs(offset + length());
    Loom::Ptr<JoinPruneMessage> back = joinPruneMessageFactory();
    back->srcIpIs(srcIp());
    back->dstIpIs(dstIp());
    back->bidirIs(bidir_);
    U32 read = 0;
    {
      TraceMute mute;
      read = back->readJoinPruneMessage(pkt, offset, intfBoundary);
    }
    if (read == 0) {
      PIM_TRACE(traceError, text(T::readBack));
      data.bookmarkDel();
    } else {
      PIM_TRACE(traceDetail, "TX: <PIM " << back.ptr() << ">");
    }
  }
  report_ = Report{p.sources(), p.report().suppressed, p.report().filtered};
  PIM_TRACE(tracePacking, "Message contains " << p.sources() << " sources, with payload length " << length());
  return length();
}

}  // namespace Routing::Pim::Packet
