#pragma once
// The flag bytes of encoded group and source addresses.
#include <ostream>

#include "loom/Types.h"

namespace Routing::Pim {

// Flags of an encoded group address: B (bidirectional PIM) is 0x80, Z (admin-scope zone) 0x01.
class GroupFlags {
 public:
  static constexpr U8 bidirBit = 0x80;
  static constexpr U8 zoneBit = 0x01;
  constexpr GroupFlags() = default;
  constexpr explicit GroupFlags(U8 value) : value_(value) {}
  constexpr U8 value() const { return value_; }
  constexpr bool bidir() const { return value_ & bidirBit; }
  constexpr bool zone() const { return value_ & zoneBit; }
  friend constexpr bool operator==(GroupFlags, GroupFlags) = default;

 private:
  U8 value_ = 0;
};

// Flags of an encoded source address: S (sparse) 0x04, W (wildcard) 0x02, R (RPT) 0x01.
class SourceFlags {
 public:
  static constexpr U8 sparseBit = 0x04;
  static constexpr U8 wcBit = 0x02;
  static constexpr U8 rptBit = 0x01;
  constexpr SourceFlags() = default;
  constexpr explicit SourceFlags(U8 value) : value_(value) {}
  constexpr U8 value() const { return value_; }
  constexpr bool sparse() const { return value_ & sparseBit; }
  constexpr bool wc() const { return value_ & wcBit; }
  constexpr bool rpt() const { return value_ & rptBit; }
  // The entry kinds of a Join/Prune list: (*,G) has WC and RPT, (S,G,rpt) RPT only, (S,G) neither.
  constexpr bool isStarG() const { return wc() && rpt(); }
  constexpr bool isSgRpt() const { return rpt() && !wc(); }
  constexpr bool isSg() const { return !rpt() && !wc(); }
  friend constexpr bool operator==(SourceFlags, SourceFlags) = default;

 private:
  U8 value_ = 0;
};

// Rendered as the hex byte followed by the letters of the bits set, e.g. "0x80(B)".
std::ostream& operator<<(std::ostream& os, GroupFlags f);
std::ostream& operator<<(std::ostream& os, SourceFlags f);

}  // namespace Routing::Pim
