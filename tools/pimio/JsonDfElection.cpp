// The attribute tables of the DF election messages.
#include "tools/pimio/Json.h"

namespace Pimio::Cli {

using Routing::MetricPref;
using Routing::Pim::Packet::DfElectionBackoffMessage;
using Routing::Pim::Packet::DfElectionMessage;
using Routing::Pim::Packet::DfElectionPassMessage;
using Routing::Pim::Packet::Message;

namespace {

// The subtype by its name, as a view of the reserved byte.
template <class M>
constexpr Attribute<M> subtypeAttribute{
    "dfElectionType", [](const M& m) -> Json { return valueToStrep(m.dfElectionMessageType()); },
    [](const Json& j, M& m, std::string& error) {
      const auto t = j.is_string() ? Routing::Pim::Packet::dfElectionMessageTypeInstance(j.get<std::string>())
                                   : std::nullopt;
      if (!t) {
        error = "expected dfElectionOffer, dfElectionWinner, dfElectionBackoff or dfElectionPass, got " + j.dump();
        return false;
      }
      m.dfElectionMessageTypeIs(*t);
      return true;
    },
    "reserved"};

// One half of a metric pair: the preference or the metric.
template <class M, auto Get, auto Set, U32 MetricPref::*Half>
constexpr Attribute<M> half(const char* name) {
  return {name, [](const M& m) -> Json { return (m.*Get)().*Half; },
          [](const Json& j, M& m, std::string& error) {
            U32 v = 0;
            if (!valueOf(j, v, error)) return false;
            MetricPref p = (m.*Get)();
            p.*Half = v;
            (m.*Set)(p);
            return true;
          }};
}

// The attributes that every DF election message has.
template <class M>
constexpr auto commonAttributes() {
  return std::to_array<Attribute<M>>({
      attribute<M, &Message::reserved, &Message::reservedIs>("reserved"),
      subtypeAttribute<M>,
      attribute<M, &DfElectionMessage::rpAddress, &DfElectionMessage::rpAddressIs>("rpAddress"),
      half<M, &DfElectionMessage::senderMetricPref, &DfElectionMessage::senderMetricPrefIs, &MetricPref::metricPreference>(
          "senderMetricPreference"),
      half<M, &DfElectionMessage::senderMetricPref, &DfElectionMessage::senderMetricPrefIs, &MetricPref::metric>(
          "senderMetric"),
  });
}

template <class M, size_t N, size_t K>
constexpr std::array<Attribute<M>, N + K> joined(const std::array<Attribute<M>, N>& a, const std::array<Attribute<M>, K>& b) {
  std::array<Attribute<M>, N + K> out{};
  for (size_t i = 0; i < N; ++i) out[i] = a[i];
  for (size_t i = 0; i < K; ++i) out[N + i] = b[i];
  return out;
}

const auto dfElectionTable = commonAttributes<DfElectionMessage>();

using Backoff = DfElectionBackoffMessage;
const auto backoffTable = joined(
    commonAttributes<Backoff>(),
    std::to_array<Attribute<Backoff>>({
        attribute<Backoff, &Backoff::offeringAddress, &Backoff::offeringAddressIs>("offeringAddress"),
        half<Backoff, &Backoff::offeringMetricPref, &Backoff::offeringMetricPrefIs, &MetricPref::metricPreference>(
            "offeringMetricPreference"),
        half<Backoff, &Backoff::offeringMetricPref, &Backoff::offeringMetricPrefIs, &MetricPref::metric>("offeringMetric"),
        attribute<Backoff, &Backoff::interval, &Backoff::intervalIs>("interval"),
    }));

using Pass = DfElectionPassMessage;
const auto passTable = joined(
    commonAttributes<Pass>(),
    std::to_array<Attribute<Pass>>({
        attribute<Pass, &Pass::winningAddress, &Pass::winningAddressIs>("winningAddress"),
        half<Pass, &Pass::winningMetricPref, &Pass::winningMetricPrefIs, &MetricPref::metricPreference>(
            "winningMetricPreference"),
        half<Pass, &Pass::winningMetricPref, &Pass::winningMetricPrefIs, &MetricPref::metric>("winningMetric"),
    }));

}  // namespace

std::span<const Attribute<DfElectionMessage>> dfElectionAttributes() { return dfElectionTable; }
std::span<const Attribute<DfElectionBackoffMessage>> dfElectionBackoffAttributes() { return backoffTable; }
std::span<const Attribute<DfElectionPassMessage>> dfElectionPassAttributes() { return passTable; }

}  // namespace Pimio::Cli
