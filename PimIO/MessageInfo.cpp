#include "PimIO/MessageInfo.h"

#include "loom/Assert.h"

namespace Routing::Pim::IO {

Loom::Ptr<MessageInfo> messageInfoFactory() { return new MessageInfo; }

// The assertion texts name the check as the agent's developer reads it in a core file.
#define PIMIO_TYPED_IS(Name, Class, constant, text)                         \
  void MessageInfo::Name##Is(const Loom::Ptr<Packet::Class>& m) {           \
    LOOM_ASSERT(m->pimMessageType() == Knet::constant(), "msg->pimMessageType() == Knet::" text "()"); \
    messageIs(m);                                                           \
  }
PIMIO_TYPED_IS(helloMessage, HelloMessage, pimHello, "pimHello")
PIMIO_TYPED_IS(registerMessage, RegisterMessage, pimRegister, "pimRegister")
PIMIO_TYPED_IS(registerStopMessage, RegisterStopMessage, pimRegisterStop, "pimRegisterStop")
PIMIO_TYPED_IS(joinPruneMessage, JoinPruneMessage, pimJoinPrune, "pimJoinPrune")
PIMIO_TYPED_IS(bootstrapMessage, BootstrapMessage, pimBootstrap, "pimBootstrap")
PIMIO_TYPED_IS(assertMessage, AssertMessage, pimAssert, "pimAssert")
PIMIO_TYPED_IS(crpAdvMessage, CrpAdvMessage, pimCandidateRpAdvertisement, "pimCrpAdvertisement")
PIMIO_TYPED_IS(dfElectionMessage, DfElectionMessage, pimDfElection, "pimDfElection")
#undef PIMIO_TYPED_IS

#define PIMIO_DF_IS(Name, Class, subtype)                                                          \
  void MessageInfo::Name##Is(const Loom::Ptr<Packet::Class>& m) {                                  \
    LOOM_ASSERT(m->pimMessageType() == Knet::pimDfElection(), "msg->pimMessageType() == Knet::pimDfElection()"); \
    LOOM_ASSERT(m->dfElectionMessageType() == Packet::subtype(),                                   \
                "msg->dfElectionMessageType() == Pim::Packet::" #subtype "()");                    \
    messageIs(m);                                                                                  \
  }
PIMIO_DF_IS(dfElectionOfferMessage, DfElectionOfferMessage, dfElectionOffer)
PIMIO_DF_IS(dfElectionWinnerMessage, DfElectionWinnerMessage, dfElectionWinner)
PIMIO_DF_IS(dfElectionBackoffMessage, DfElectionBackoffMessage, dfElectionBackoff)
PIMIO_DF_IS(dfElectionPassMessage, DfElectionPassMessage, dfElectionPass)
#undef PIMIO_DF_IS

}  // namespace Routing::Pim::IO
