#include "PimMessage/JoinPruneMessage.h"

#include <array>
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

U32 JoinPruneMessage::readJoinPruneMessage(const Loom::Ptr<Knet::Pkt>& pkt, U32 offset,
                                           const Loom::Ptr<Boundary::IntfBoundary>& intfBoundary) {
  if (readHeader(pkt, offset) == 0) {
    return PIM_FAIL(T::headerParse);
  }
  EncodedUnicastAddress upstream;
  const U32 upLen = upstream.readUnicastAddress(pkt, offset + 4);
  if (upLen == 0) {
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
  const S64 size = pkt->size();
  U64 pos = U64(offset) + 4 + upLen;
  S64 remaining = size - S64(pos);
  if (remaining <= 3) {
    return PIM_FAIL(T::infoLength, remaining, " Expected: ", 4);
  }
  Loom::Ptr<JoinPruneData> data = new JoinPruneData(upstream.address());
  Knet::PktReader r(pkt, static_cast<U32>(pos));
  data->reserved2Is(r.readU8());
  const U8 numGroups = r.readU8();
  data->holdTimeIs(r.readU16Be());
  pos += 4;
  remaining -= 4;

  Report report;
  U32 validGroups = 0;
  bidirFilteredGroups_ = 0;
  EncodedGroupAddress encGroup;
  EncodedSourceAddress encSource;
  data->joinPruneGroupData().reserve(numGroups);
  const U8* const bytes = pkt->data();
  const U32 bytesSize = pkt->size();
  for (U32 g = 0; g < numGroups; ++g) {
    // A well-formed valid host group of the family takes the fast path; anything else the full
    // read with its checks and texts.
    GroupAddress groupRead;
    bool filtered = false;
    Knet::PktReader at(bytes, bytesSize, static_cast<U32>(pos));
    U32 groupLen = EncodedGroupAddress::readValidHostGroup(at, family, groupRead);
    if (groupLen == 0) {
      groupLen = encGroup.readGroupAddress(pkt, static_cast<U32>(pos));
      if (groupLen == 0) {
        failureIs(encGroup.failure());
        return PIM_FAIL(T::groupParse);
      }
      groupRead = GroupAddress{encGroup.prefix().address(), encGroup.flags()};
      if (groupRead.address.af() != family) {
        PIM_TRACE(traceWarning, kGroupFamily << family << "Group Address: " << groupRead.address);
        filtered = true;
      } else if (!encGroup.valid() || !encGroup.isHostPrefix()) {
        PIM_TRACE(traceWarning, kGroupInvalid << groupRead.address);
        filtered = true;
      }
    }
    const Knet::IpGenAddr& groupAddr = groupRead.address;
    const bool groupBidir = groupRead.flags.bidir();
    if (!filtered && intfBoundary && intfBoundary->filtered(groupAddr)) {
      PIM_TRACE(traceFilter, kGroupBoundary << groupAddr);
      filtered = true;
    } else if (!filtered && groupBidir != bidir_) {
      ++bidirFilteredGroups_;
      PIM_TRACE(traceFilter, kBidirFilter << groupAddr << " Bidirectional: " << groupBidir
                                          << " Msg Bidirectional Support: " << bidir_);
      filtered = true;
    }
    // A group that comes again in the same message adds its entries to the group read before,
    // under the same conflict rules as if they had come in one record. A repeated record that is
    // filtered is read aside and dropped, leaving the earlier record's entries as they are.
    JoinPruneGroupData* const earlier = data->joinPruneGroupData(groupAddr);
    Loom::Ptr<JoinPruneGroupData> aside;
    if (earlier && filtered) aside = new JoinPruneGroupData(groupAddr);
    JoinPruneGroupData& group = aside ? *aside : earlier ? *earlier : data->joinPruneGroupDataIs(groupAddr);
    if (!earlier) group.groupFlagsIs(groupRead.flags.value());
    // What the group held before this record: a repeat counts only what it changed.
    const U32 routesBefore = earlier && !aside ? earlier->routes() : 0;

    pos += groupLen;
    remaining -= groupLen;
    if (remaining < 4) {
      return PIM_FAIL(T::numSources, remaining, " Expected: ", 4);
    }
    r = Knet::PktReader(pkt, static_cast<U32>(pos));
    const U16 numJoined = r.readU16Be();
    const U16 numPruned = r.readU16Be();
    pos += 4;
    remaining -= 4;
    group.joinedSourceReserve(numJoined);
    group.prunedSourceReserve(numPruned);

    for (U32 i = 0; i < U32(numJoined) + numPruned; ++i) {
      const bool join = i < numJoined;
      SourceAddress source;
      Knet::PktReader at(bytes, bytesSize, static_cast<U32>(pos));
      if (const U32 n = EncodedSourceAddress::readValidHostSource(at, family, source)) {
        pos += n;
        remaining -= n;
      } else {
        const SideTexts& texts = join ? joinedTexts : prunedTexts;
        const U32 sourceLen = encSource.readSourceAddress(pkt, static_cast<U32>(pos));
        if (sourceLen == 0) {
          failureIs(encSource.failure());
          return PIM_FAIL(texts.parse);
        }
        pos += sourceLen;
        remaining -= sourceLen;
        source.address = encSource.prefix().address();
        source.flags = encSource.flags();
        if (!encSource.valid()) {
          PIM_TRACE(traceWarning, texts.invalid << source.address);
          continue;
        }
        if (source.address.af() != family) {
          PIM_TRACE(traceWarning, kSourceFamily << family << "Source Address: " << source.address);
          continue;
        }
      }
      const Knet::IpGenAddr& s = source.address;
      const SourceFlags flags = source.flags;
      if (flags.wc() && !flags.rpt()) {
        PIM_TRACE(traceError, text(T::wcWithoutRpt));
        continue;
      }
      // The group's (*,G) entry so far. Within one record the joins come before the prunes, so
      // the checks of a join against prunes only bite when a group comes again.
      const auto& wc = group.wcSourceData();
      const bool starGJoin = wc && wc->join;
      const bool starGPrune = wc && !wc->join;
      if (join) {
        if (flags.isStarG()) {
          if (starGPrune) {
            PIM_TRACE(traceError, text(T::starGJoinAndPrune) << s << "] and using (*,G) prune [RP: " << wc->rp << "]");
            ++report.suppressed;
            continue;
          }
          if (wc) {
            PIM_TRACE(traceError, text(T::multipleStarG) << wc->rp << "] and using [RP: " << s << "]");
            ++report.suppressed;
          }
          group.wcSourceDataIs(s, true);
          // A (*,G) join covers every (S,G,rpt) join of the group.
          report.suppressed += static_cast<U32>(group.joinedRptSources());
          group.joinedRptSourceDelAll();
        } else if (flags.isSgRpt()) {
          if (starGJoin || starGPrune) {
            ++report.suppressed;
          } else if (group.prunedRptSourceHas(s)) {
            PIM_TRACE(traceError, text(T::source) << s << kBothSgRpt);
            ++report.suppressed;
          } else {
            group.joinedRptSourceIs(s);
          }
        } else if (group.prunedSource().contains(s)) {
          PIM_TRACE(traceError, text(T::source) << s << kBothSg);
          ++report.suppressed;
        } else {
          if (group.prunedRptSourceHas(s)) {
            PIM_TRACE(traceError, text(T::source) << s << kBothSgAndSgRpt);
            ++report.suppressed;
            group.prunedRptSourceDel(s);
          }
          group.joinedSourceIs(s);
        }
        continue;
      }
      if (flags.isStarG()) {
        if (const auto& old = group.wcSourceData(); old && old->join) {
          PIM_TRACE(traceError, text(T::starGJoinAndPrune) << old->rp << "] and using (*,G) prune [RP: " << s << "]");
          ++report.suppressed;
        }
        group.wcSourceDataIs(s, false);
        // A (*,G) prune overrides every (S,G,rpt) entry of the group.
        report.suppressed += static_cast<U32>(group.prunedRptSources() + group.joinedRptSources());
        group.prunedRptSourceDelAll();
        group.joinedRptSourceDelAll();
      } else if (flags.isSgRpt()) {
        if (starGPrune) {
          ++report.suppressed;
          continue;
        }
        group.prunedRptSourceIs(s);
        if (group.joinedRptSourceDel(s)) {
          PIM_TRACE(traceError, text(T::source) << s << kBothSgRpt);
          ++report.suppressed;
        }
        if (group.joinedSource().contains(s)) {
          PIM_TRACE(traceError, text(T::source) << s << kBothSgAndSgRpt);
          ++report.suppressed;
          group.prunedRptSourceDel(s);
        }
      } else {
        group.prunedSourceIs(s);
        if (group.joinedSourceDel(s)) {
          PIM_TRACE(traceError, text(T::source) << s << kBothSg);
          ++report.suppressed;
        }
      }
    }

    const U32 routes = group.routes();
    if (routes == 0) {
      PIM_TRACE(traceError, text(T::zeroSources) << groupAddr);
      filtered = true;
    }
    if (filtered) {
      report.filtered += routes;
      if (!earlier) data->joinPruneGroupDataDel(groupAddr);
    } else {
      // Modulo 2^32, a repeat that removed entries of the earlier record takes them back off.
      report.processed += routes - routesBefore;
      if (!earlier) ++validGroups;
    }
  }

  report_ = report;
  joinPruneData_ = data;
  if (validGroups == 0) {
    PIM_TRACE(traceError, report.processed << ", " << report.suppressed << ", " << report.filtered);
    return PIM_FAIL(T::zeroValidGroups);
  }
  if (remaining != 0) {
    return PIM_FAIL(T::endOfMessage, remaining);
  }
  PIM_TRACE(traceDetail, "RX: <PIM " << this << ">");
  return static_cast<U32>(pos - offset);
}

// ======================================================================== encoding

namespace {

// The state of one write: where it is in the packet and what it has counted.
struct Packer {
  Packer(const Loom::Ptr<Knet::Pkt>& pkt, JoinPruneData& data, Knet::AddressFamily family, U32 pos, S64 remaining)
      : pkt(pkt), data(data), family(family), encSize(encodedSize(family)), pos(pos), remaining(remaining),
        periodic(data.periodic()) {}

  const Loom::Ptr<Knet::Pkt>& pkt;
  JoinPruneData& data;
  Knet::AddressFamily family;
  U32 encSize;
  U32 pos;          // the next byte to write
  S64 remaining;    // room left for this message
  bool periodic;
  U32 sources = 0;  // entries written
  U32 groups = 0;   // groups written
  JoinPruneMessage::Report report;
  bool full = false;  // the message ends here (room, 255 groups or a bookmark)

  // Writes one source entry with its flags; 0 on failure.
  U32 writeSource(const Knet::IpGenAddr& a, U8 flags) {
    Knet::PktWriter at(pkt, pos);
    if (const U32 n = EncodedSourceAddress::writeHostSource(at, a, SourceFlags(flags))) return n;
    EncodedSourceAddress enc;
    enc.prefixIs(Knet::IpGenPrefix(a, Knet::IpGenPrefix::maxLength(a.af())));
    enc.flagsIs(SourceFlags(flags));
    return enc.writeSourceAddress(pkt, pos);
  }

  // A bookmark at the start of a group: no collection, no source.
  void bookmarkAtGroup(const Knet::IpGenAddr& group) {
    JoinPruneData::Bookmark& b = data.bookmarkIs();
    b.group = group;
    b.collection = SourceFlags();
    b.join = true;
    b.source = Knet::IpGenAddr();
  }

  void bookmarkAt(const Knet::IpGenAddr& group, Collection c, bool join, const Knet::IpGenAddr& source) {
    JoinPruneData::Bookmark& b = data.bookmarkIs();
    b.group = group;
    b.collection = SourceFlags(c == starG ? (wcBit | rptBit) : (c == joinedRpt || c == prunedRpt) ? rptBit : 0);
    b.join = join;
    b.source = source;
  }
};

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
  EncodedUnicastAddress upstream;
  upstream.addressIs(data.upstream());
  const U32 upLen = upstream.writeUnicastAddress(pkt, offset + 4);
  if (upLen == 0) {
    failureIs(upstream.failure());
    return PIM_FAIL(T::writeUpstream);
  }
  Packer p(pkt, data, family, offset + 4 + upLen, room - 4 - upLen);
  if (p.remaining < 4) {
    return PIM_FAIL(T::writeInfoSpace, p.remaining, " Expected: ", 4);
  }
  const U32 groupCountAt = p.pos + 1;
  // The group count is filled in at the end.
  if (Knet::PktWriter w(pkt, p.pos); !w.writeU8(data.reserved2()) || !w.writeU8(0) || !w.writeU16Be(data.holdTime())) {
    return PIM_FAIL(T::writeInfoSpace, p.remaining, " Expected: ", 4);
  }
  p.pos += 4;
  p.remaining -= 4;

  // Where to start: the bookmarked group, collection and source, or the first group.
  auto groupIt = data.joinPruneGroupData().begin();
  Loom::Ptr<JoinPruneData::Bookmark> resume = data.bookmark();
  if (resume && !resume->group.isSet()) {
    PIM_TRACE(traceError, text(T::invalidBookmark) << resume->group.af() << " - Ignoring and Deleting Bookmark");
    data.bookmarkDel();
    resume = nullptr;
  }
  if (resume) {
    groupIt = data.joinPruneGroupData().lowerBound(resume->group);
    if (groupIt == data.joinPruneGroupData().end() || groupIt->first != resume->group) {
      // The bookmarked group is gone: go on from the group that follows it.
      PIM_TRACE(tracePacking, kBookmarkProcessed << resume.ptr());
      data.bookmarkDel();
      resume = nullptr;
    }
  }

  auto& groups = data.joinPruneGroupData();
  for (; groupIt != groups.end() && !p.full; ++groupIt) {
    JoinPruneGroupData& group = *groupIt->second;
    const Knet::IpGenAddr& groupAddr = group.group();
    PIM_TRACE(tracePacking, kProcessingGroup << groupAddr);
    // The bookmarked position inside this group, if the bookmark points into it.
    Collection startCollection = joinedRpt;
    Knet::IpGenAddr startSource;
    if (resume && resume->group == groupAddr) {
      if (resume->source.isSet()) {
        startCollection = collectionOf(resume->collection, resume->join);
        startSource = resume->source;
      }
      PIM_TRACE(tracePacking, kBookmarkProcessed << resume.ptr());
      data.bookmarkDel();
    }
    resume = nullptr;

    // Groups that do not go into the message at all.
    bool skip = false;
    if (group.empty()) {
      PIM_TRACE(tracePacking, kNoSourcesInGroup << groupAddr);
      continue;
    }
    if (intfBoundary && intfBoundary->filtered(groupAddr)) {
      PIM_TRACE(traceFilter, kWriteBoundary << groupAddr);
      skip = true;
    } else if (group.bidir() != bidir_) {
      PIM_TRACE(traceFilter, kBidirFilter << groupAddr << " Bidirectional: " << group.bidir()
                                          << " Msg Bidirectional Support: " << bidir_);
      skip = true;
    } else if (groupAddr.af() != family) {
      PIM_TRACE(traceFilter, kWriteGroupFamily << groupAddr.af() << " Group Address: " << groupAddr);
      skip = true;
    }
    if (skip) {
      p.report.filtered += group.routes();
      if (!p.periodic) group.entriesDelAll();
      continue;
    }

    const S64 need = 2 * S64(p.encSize) + 4;
    if (p.groups >= maxGroups || p.remaining < need) {
      if (p.sources == 0) {
        return PIM_FAIL(T::insufficientMtu, p.remaining, " Minimum Expected: ", need);
      }
      PIM_TRACE(tracePacking, kReachedMax);
      p.bookmarkAtGroup(groupAddr);
      PIM_TRACE(tracePacking, kBookmarkSet << data.bookmark().ptr());
      break;
    }

    const U32 groupStart = p.pos;
    const S64 remainingAtGroup = p.remaining;
    EncodedGroupAddress encGroup;
    encGroup.addressIs(groupAddr);
    encGroup.flagsIs(GroupFlags(group.groupFlags()));
    const U32 groupLen = encGroup.writeGroupAddress(pkt, p.pos);
    if (groupLen == 0) {
      PIM_TRACE(traceError, text(T::writeGroup));
      std::ostringstream g;
      g << groupAddr;
      PIM_MESSAGE_INVALID_ENCODED_GROUP.raise({kMessageName, g.str()});
      p.report.filtered += group.routes();
      if (!p.periodic) group.entriesDelAll();
      data.bookmarkDel();
      continue;
    }
    p.pos += groupLen;
    p.remaining -= groupLen;
    if (p.remaining < 4) {
      return PIM_FAIL(T::numSourcesSpace, p.remaining, " Expected: ", 4);
    }
    const U32 countsAt = p.pos;
    p.pos += 4;
    p.remaining -= 4;

    U32 joinedCount = 0;
    U32 prunedCount = 0;
    // Packs one entry of a source collection: written, skipped (another family, suppressed or
    // not encodable) or, when it does not fit, the bookmark is set and the message is full.
    auto packEntry = [&](Collection collection, const Knet::IpGenAddr& s) -> Packed {
      const CollectionInfo& info = collectionInfo[collection];
      if (s.af() != family) {
        PIM_TRACE(traceError, text(T::entryFamily) << s.af() << " Source Address: " << s);
        std::ostringstream f, a;
        f << family;  // the message's family: "send ipv4 Join/Prune message with <ipv6 address>"
        a << s;
        PIM_MESSAGE_AF_MISMATCH.raise({f.str(), kMessageName, a.str()});
        ++p.report.filtered;
        return Packed::skipped;
      }
      if (collection == joined && p.periodic && group.joinSuppressSource().contains(s)) {
        PIM_TRACE(tracePacking, "Joined Source Suppressed - Group: " << groupAddr << " Address: " << s);
        group.joinSuppressSourceDel(s);
        ++p.report.suppressed;
        return Packed::skipped;
      }
      const bool join = collection == joinedRpt || collection == joined;
      if (p.remaining < S64(p.encSize)) {
        if (collection == prunedRpt) PIM_TRACE(tracePacking, kPackedRptPrunes);
        p.bookmarkAt(groupAddr, collection, join, s);
        PIM_TRACE(tracePacking, kSettingBookmark << data.bookmark().ptr());
        p.full = true;
        return Packed::full;
      }
      const U32 n = p.writeSource(s, info.flags);
      if (n == 0) {
        PIM_TRACE(traceError, text(info.writeError));
        std::ostringstream a;
        a << s;
        PIM_MESSAGE_INVALID_ENCODED_SOURCE.raise({kMessageName, a.str()});
        ++p.report.filtered;
        return Packed::skipped;
      }
      p.pos += n;
      p.remaining -= n;
      ++p.sources;
      ++(join ? joinedCount : prunedCount);
      if (!p.periodic) PIM_TRACE(tracePacking, info.deleting << groupAddr << " Address: " << s);
      return Packed::written;
    };
    for (int c = startCollection; c < collections && !p.full; ++c) {
      const Collection collection = static_cast<Collection>(c);
      const CollectionInfo& info = collectionInfo[c];
      PIM_TRACE(tracePacking, info.processing);

      if (collection == starG) {
        if (!group.wcSourceData()) continue;
        const JoinPruneGroupData::WcSourceData wc = *group.wcSourceData();
        LOOM_ASSERT(!(group.periodicPrunedRptGroupData() && p.periodic), "not data->periodic()");
        if (wc.rp.af() != family) {
          PIM_TRACE(traceError, text(T::writeUpstreamFamily) << wc.rp.af() << " (*,G) RP Address: " << wc.rp);
          std::ostringstream f, a;
          f << family;
          a << wc.rp;
          PIM_MESSAGE_AF_MISMATCH.raise({f.str(), kMessageName, a.str()});
          ++p.report.filtered;
          continue;
        }
        if (p.periodic && wc.join && wc.wcSuppressed && group.prunedRptSources() == 0) {
          PIM_TRACE(tracePacking, "(*,G) Source Suppressed - Group: " << groupAddr << " Address: " << wc.rp);
          group.wcSuppressedIs(false);
          ++p.report.suppressed;
          continue;
        }
        if (p.periodic && !wc.join) {
          PIM_TRACE(traceError, text(T::periodicStarGPrune));
          ++p.report.filtered;
          continue;
        }
        if (p.remaining < S64(p.encSize)) {
          p.bookmarkAt(groupAddr, starG, wc.join, wc.rp);
          PIM_TRACE(tracePacking, kSettingBookmark << data.bookmark().ptr());
          p.full = true;
          break;
        }
        const U32 n = p.writeSource(wc.rp, info.flags);
        if (n == 0) {
          PIM_TRACE(traceError, text(info.writeError));
          std::ostringstream a;
          a << wc.rp;
          PIM_MESSAGE_INVALID_ENCODED_SOURCE.raise({kMessageName, a.str()});
          ++p.report.filtered;
          continue;
        }
        p.pos += n;
        p.remaining -= n;
        ++p.sources;
        (wc.join ? joinedCount : prunedCount) += 1;
        if (!p.periodic) {
          PIM_TRACE(tracePacking, info.deleting << groupAddr << " Address: " << wc.rp);
          group.wcSourceDataDel();
        }
        continue;
      }

      // The source collections, each walked in place from the bookmarked source.
      const bool fromBookmark = collection == startCollection && startSource.isSet();
      if (collection != prunedRpt) {
        SourceSet& set = group.sourceSet(collection == joinedRpt ? 0 : collection == joined ? 1 : 2);
        auto it = fromBookmark ? set.lowerBound(startSource) : set.begin();
        const auto first = it;
        U32 written = 0;
        for (; it != set.end(); ++it) {
          const Packed r = packEntry(collection, *it);
          if (r == Packed::full) break;
          written += r == Packed::written;
        }
        // In a triggered message the entries written go from the tree. Between `first` and where
        // the walk stopped, the only entries not written are those of another family and the
        // multicast ones that failed to encode (suppression applies to periodic messages only).
        if (!p.periodic && written) {
          set.eraseIf(first, it, [&](const Knet::IpGenAddr& a) { return a.af() == family && !a.isMulticast(); });
        }
        continue;
      }
      if (!group.rptPrunedGroupData()) continue;
      const auto& prunes = group.rptPrunedGroupData()->prunedRptSource();
      std::vector<Knet::IpGenAddr> written;
      for (auto it = fromBookmark ? prunes.lowerBound(startSource) : prunes.begin(); it != prunes.end(); ++it) {
        const Packed r = packEntry(prunedRpt, it->first);
        if (r == Packed::full) break;
        if (r == Packed::written) written.push_back(it->first);
      }
      if (!written.empty()) {
        // The prunes packed for this group, kept for the agent.
        Loom::Ptr<RptPrunedGroupData> packed = new RptPrunedGroupData;
        for (const Knet::IpGenAddr& a : written) packed->prunedRptSourceIs(a, true);
        group.periodicPrunedRptGroupDataIs(packed);
        if (!p.periodic) group.prunedRptSourceDel(written);
      }
    }

    PIM_TRACE(tracePacking, "Group " << groupAddr << " has " << joinedCount << " joined sources and " << prunedCount
                                     << " pruned sources.");
    if (joinedCount + prunedCount == 0) {
      PIM_TRACE(tracePacking, kNoSourcesInGroup << groupAddr << kGroupTakenOut);
      p.pos = groupStart;
      p.remaining = remainingAtGroup;
      continue;
    }
    if (Knet::PktWriter w(pkt, countsAt);
        !w.writeU16Be(static_cast<U16>(joinedCount)) || !w.writeU16Be(static_cast<U16>(prunedCount))) {
      return PIM_FAIL(T::numSourcesSpace, p.remaining, " Expected: ", 4);
    }
    ++p.groups;
  }

  LOOM_ASSERT(!data.bookmark() || data.bookmark()->group.isSet(), "invalid bookmark");
  if (p.groups == 0) {
    report_ = Report{0, p.report.suppressed, p.report.filtered};
    return PIM_FAIL(T::zeroGroups);
  }
  pkt->data()[groupCountAt] = static_cast<U8>(p.groups);
  lengthIs(p.pos - offset);
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
  report_ = Report{p.sources, p.report.suppressed, p.report.filtered};
  PIM_TRACE(tracePacking, "Message contains " << p.sources << " sources, with payload length " << length());
  return length();
}

}  // namespace Routing::Pim::Packet
