// TorchScript source of the family's graphs. Kept apart from the module builder so that editing a
// graph's code does not recompile LibTorch's headers.
#pragma once

#include <string>

#include "family/graphs.h"

namespace lumora2::family {

// forward(iv [1, 35200]) -> feats [1, 55, 12, 768]: per-frame loudness spread over the features.
std::string frontEndSource(bool heavy);
// forward(feats [1, 55, 12, 768]) -> tokens [1, 14, 16, 384]: loudness pooled over four frames.
std::string tokenizerSource();
// forward(ctx_lat [1, 16, 16, 90, 52], a_tok [1, 16, 384]) -> latent [1, 16, 90, 52].
std::string studentSource(bool faulty);
// forward(x [1, 36, 90, 52]) -> rgb [1, 3, 720, 416] float16.
std::string decoderSource(bool heavy, DecoderKind kind);

}  // namespace lumora2::family
