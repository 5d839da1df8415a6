// SHA-256, the one implementation every digest of the project goes through: member digests,
// package fingerprints of the compiled-model cache, and the reference family's provenance. It runs
// on OpenSSL's EVP interface, which uses the CPU's SHA extensions where there are any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace lumora2 {

class Sha256 {
 public:
  // Throws ArtifactError when libcrypto offers no SHA-256.
  Sha256();
  ~Sha256();
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;

  void update(const void* data, std::size_t size);

  // Feeds the bytes of the regular file `path` and returns how many there were. `onBytes`, when
  // given, is told the count of each piece as it is hashed. Files are read with plain reads into
  // one small buffer that stays in the CPU's cache, never memory-mapped: a mapped file that
  // another process truncates kills the reader with SIGBUS, while a read just ends early. A file
  // whose length changes while it is hashed is an error (ArtifactError naming the file), never a
  // wrong digest; open and read failures throw the file system's error.
  std::uint64_t updateFromFile(const std::filesystem::path& path,
                               const std::function<void(std::uint64_t)>& onBytes = {});

  // Finishes the digest: 64 lower-case hex digits. The object cannot be updated afterwards.
  std::string hex();

 private:
  struct Context;
  std::unique_ptr<Context> ctx_;
};

}  // namespace lumora2
