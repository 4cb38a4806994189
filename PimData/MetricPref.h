#pragma once
// A route's metric preference and metric, compared as a pair in assert and DF elections.
#include <compare>

#include "loom/Types.h"

namespace Routing {

struct MetricPref {
  U32 metricPreference = 0;
  U32 metric = 0;
  friend bool operator==(const MetricPref&, const MetricPref&) = default;
  friend std::strong_ordering operator<=>(const MetricPref&, const MetricPref&) = default;
};

}  // namespace Routing
