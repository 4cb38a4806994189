#pragma once
// The agent's PIM interface: the part of the agent's PIM status that the I/O library reads about
// one interface. It belongs to the agent, not to the library; the library only holds references.
#include "knet/Address.h"
#include "loom/Entity.h"

namespace Routing::Pim {

class Intf : public Loom::Entity {
 public:
  explicit Intf(Knet::IntfId id) : intfId_(std::move(id)) {}
  const Knet::IntfId& intfId() const { return intfId_; }

 private:
  Knet::IntfId intfId_;
};

}  // namespace Routing::Pim
