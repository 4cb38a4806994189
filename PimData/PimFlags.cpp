#include "PimData/PimFlags.h"

#include <iomanip>

namespace Routing::Pim {
namespace {

void writeFlags(std::ostream& os, U8 value, std::initializer_list<std::pair<U8, char>> names) {
  auto f = os.flags();
  os << "0x" << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(value);
  os.flags(f);
  os << std::setfill(' ');
  bool first = true;
  for (auto [bit, letter] : names) {
    if (!(value & bit)) continue;
    os << (first ? '(' : ',') << letter;
    first = false;
  }
  if (!first) os << ')';
}

}  // namespace

std::ostream& operator<<(std::ostream& os, GroupFlags f) {
  writeFlags(os, f.value(), {{GroupFlags::bidirBit, 'B'}, {GroupFlags::zoneBit, 'Z'}});
  return os;
}

std::ostream& operator<<(std::ostream& os, SourceFlags f) {
  writeFlags(os, f.value(),
             {{SourceFlags::sparseBit, 'S'}, {SourceFlags::wcBit, 'W'}, {SourceFlags::rptBit, 'R'}});
  return os;
}

}  // namespace Routing::Pim
