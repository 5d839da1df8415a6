// LibTorch side of the family: builds the graphs as TorchScript modules with fixed weights and
// saves them as model packages. Include only where LibTorch is needed.
#pragma once

#include <torch/script.h>

#include <filesystem>
#include <string>
#include <vector>

#include "family/graphs.h"
#include "family/identity.h"

namespace lumora2::family {

torch::jit::Module makeFrontEnd(bool heavy);
torch::jit::Module makeTokenizer();
torch::jit::Module makeStudent(bool faulty);
torch::jit::Module makeDecoder(const Identity& id, bool heavy, DecoderKind kind);

// One input or output of a package's io.json.
struct IoFeature {
  std::string name;
  std::vector<std::int64_t> shape;
  std::string dtype;  // "float32", "float16" or "int32"
};

struct IoSpec {
  std::vector<IoFeature> inputs;
  std::vector<IoFeature> outputs;
};

IoSpec frontEndIo();
IoSpec tokenizerIo();
IoSpec studentIo();
IoSpec decoderIo();

// Writes <dir>/<name>.mlpackage/{model.pt, io.json}, replacing an existing package.
void savePackage(torch::jit::Module& module, const std::filesystem::path& dir,
                 std::string_view name, const IoSpec& io);

}  // namespace lumora2::family
