// Member digests: the standard SHA-256 vectors, a file that shrinks while it is hashed, and the
// directory form that covers a model package's names as well as its bytes.
#include <gtest/gtest.h>

#include <gmock/gmock.h>
#include <unistd.h>

#include "container/archive.h"
#include "container/error.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

class DigestTest : public test::ScratchTest {};

// Another process truncating a member mid-digest (a re-pack into the same path, say) must end in an
// error naming the file; a reader that maps the file is killed by SIGBUS instead.
TEST_F(DigestTest, AFileTruncatedWhileHashedIsAnErrorNotASignal) {
  const fs::path file = scratch_.write("shrinking", std::string(16u << 20, 'x'));
  bool truncated = false;
  auto truncateOnce = [&](std::uint64_t, std::uint64_t) {
    if (!truncated) {
      truncated = true;
      ASSERT_EQ(::truncate(file.c_str(), 4096), 0);
    }
  };
  EXPECT_THAT([&] { Archive::digest(file, truncateOnce); },
              ::testing::ThrowsMessage<ArtifactError>(
                  ::testing::HasSubstr(file.string() + " changed while it was being hashed")));
}

TEST_F(DigestTest, DirectoryHashesSortedNamesThenBytesWithoutSeparators) {
  fs::create_directories(scratch_ / "pkg/empty");
  EXPECT_EQ(Archive::digest(scratch_ / "pkg").sha256,  // nothing at all
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  // SHA-256("a/x" "1" "b" "2"): names relative to the package, in member-name order; links and
  // directories add nothing.
  scratch_.write("pkg/b", "2");
  scratch_.write("pkg/a/x", "1");
  fs::create_symlink("b", scratch_ / "pkg/link");
  Archive::Digest d = Archive::digest(scratch_ / "pkg");
  EXPECT_EQ(d.sha256, "711fb573544f692e39b88976a743a35cecf4fb573099093180ac40490889b4c3");
  EXPECT_EQ(d.bytes, 2u);
}

}  // namespace
}  // namespace lumora2
