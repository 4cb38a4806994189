#pragma once
// Exceptions of the platform. A value out of its allowed range (a prefix length beyond the
// address width, a number outside a value type's bounds) raises RangeException.
#include <stdexcept>
#include <string>

namespace Loom {

class RangeException : public std::out_of_range {
 public:
  explicit RangeException(const std::string& what) : std::out_of_range(what) {}
};

}  // namespace Loom
