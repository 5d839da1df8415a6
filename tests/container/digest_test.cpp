// Member digests: the standard SHA-256 vectors through the mapped-file path, and the directory
// form that covers a model package's names as well as its bytes.
#include <gtest/gtest.h>

#include "container/archive.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;

struct Vector {
  std::string content;
  const char* sha256;
};

void PrintTo(const Vector& v, std::ostream* os) { *os << v.content.size() << " bytes"; }

class DigestVectorTest : public test::ScratchTest, public ::testing::WithParamInterface<Vector> {};

TEST_P(DigestVectorTest, FileDigestMatchesTheStandardVector) {
  fs::path file = scratch_.write("f", GetParam().content);
  Archive::Digest d = Archive::digest(file);
  EXPECT_EQ(d.sha256, GetParam().sha256);
  EXPECT_EQ(d.bytes, GetParam().content.size());
}

INSTANTIATE_TEST_SUITE_P(
    Fips180, DigestVectorTest,
    ::testing::Values(
        Vector{"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        Vector{"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        Vector{"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
               "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        // Spans several hashing windows' worth of pages with a partial last page.
        Vector{std::string(1000000, 'a'),
               "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}));

class DirectoryDigestTest : public test::ScratchTest {};

TEST_F(DirectoryDigestTest, HashesSortedNamesThenBytesWithoutSeparators) {
  // SHA-256("a/x" "1" "b" "2"): names relative to the package, in member-name order.
  scratch_.write("pkg/b", "2");
  scratch_.write("pkg/a/x", "1");
  fs::create_directories(scratch_ / "pkg/empty");
  fs::create_symlink("b", scratch_ / "pkg/link");
  Archive::Digest d = Archive::digest(scratch_ / "pkg");
  EXPECT_EQ(d.sha256, "711fb573544f692e39b88976a743a35cecf4fb573099093180ac40490889b4c3");
  EXPECT_EQ(d.bytes, 2u);
}

TEST_F(DirectoryDigestTest, EmptyDirectoryIsTheDigestOfNothing) {
  fs::create_directories(scratch_ / "pkg");
  EXPECT_EQ(Archive::digest(scratch_ / "pkg").sha256,
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(DirectoryDigestTest, MissingFileIsTheFileSystemsError) {
  EXPECT_THROW(Archive::digest(scratch_ / "absent"), fs::filesystem_error);
}

}  // namespace
}  // namespace lumora2
