#pragma once
// Readiness of a packet access socket as an attribute change: the event loop watches the socket's
// descriptor while it is open, and when it is readable raises the socket's `readable` count; the
// receive path reacts to that count (onReadable) on the loop's own thread. The loop is level-
// triggered, so packets that one reaction leaves in the kernel raise the count again next round.
#include "keel/EventLoop.h"
#include "knet/IpPam.h"

namespace Routing::Pim::IO {

class PamWatch : public Keel::FdWatch, public Knet::IpPam::Notifiee {
 public:
  PamWatch(const Loom::Ptr<Keel::EventLoop>& loop, const Loom::Ptr<Knet::IpPam>& pam) : loop_(loop) {
    notifierIs(pam);
    onEnabled();  // the socket may be open already
  }
  ~PamWatch() override { unwatch(); }

  void onFdReadable() override { notifier()->readableInc(); }
  void onEnabled() override {
    unwatch();
    if (notifier()->enabled()) loop_->fdWatchIs(fd_ = notifier()->fd(), this);
  }

 private:
  void unwatch() {
    if (fd_ >= 0) loop_->fdWatchDel(fd_);
    fd_ = -1;
  }
  Loom::Ptr<Keel::EventLoop> loop_;
  int fd_ = -1;  // the descriptor watched: the socket forgets it when it closes
};

}  // namespace Routing::Pim::IO
