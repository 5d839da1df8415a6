// The artifact layer's plain error: one message string that is also its printed description.
// Everything in container/ that fails for a reason a user can act on throws it (the IMX reader's
// own Lumora2ContainerError passes through Archive as one of these, prefixed "IMX: "); the host
// prints "error: " + what().
#pragma once

#include <stdexcept>

namespace lumora2 {

class ArtifactError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace lumora2
