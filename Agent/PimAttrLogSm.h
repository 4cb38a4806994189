#pragma once
// The agent's attribute-log writer: records of attribute changes wait in its output until the
// reader takes them. When the output holds its limit the writer is clogged, and producers that
// can wait (the receive loop of the I/O library) stop until it drains.
#include "loom/Entity.h"

namespace Routing::Pim {

class PimAttrLogSm : public Loom::Entity {
 public:
  static constexpr U32 outLimitDefault = 4096;

  // Records written and not yet taken by the reader.
  U32 outPending() const { return outPending_; }
  void outPendingInc(U32 n = 1) { outPending_ += n; }
  // The reader took n records; taking more than are pending empties the output.
  void outPendingDec(U32 n = 1) { outPending_ = n >= outPending_ ? 0 : outPending_ - n; }
  U32 outLimit() const { return outLimit_; }
  void outLimitIs(U32 v) { outLimit_ = v; }

  bool isAttrLogOutClogged() const { return outPending_ >= outLimit_; }

 private:
  U32 outPending_ = 0;
  U32 outLimit_ = outLimitDefault;
};

inline Loom::Ptr<PimAttrLogSm> pimAttrLogSmFactory() { return new PimAttrLogSm; }

}  // namespace Routing::Pim
