// The unpack command as a process: its report line by line, its exit statuses, and the shared
// checksum verification.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "container/archive.h"
#include "container/imx.h"
#include "container/unpack.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs cmdUnpack in a child process, as the entry point would: an error is printed as
// "error: …" with status 1, and the command's own exit statuses reach the parent unchanged.
Outcome runUnpack(const Positionals& positionals, const Options& options, const fs::path& dir) {
  const fs::path outFile = dir / "stdout.txt", errFile = dir / "stderr.txt";
  std::cout.flush();
  std::fflush(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(::open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    ::dup2(::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    int code = kExitOk;
    try {
      cmdUnpack(positionals, options);
    } catch (const std::exception& e) {
      std::cerr << "error: " << e.what() << '\n';
      code = kExitFailure;
    }
    std::cout.flush();
    std::cerr.flush();
    ::_exit(code);
  }
  Outcome o;
  int raw = 0;
  ::waitpid(pid, &raw, 0);
  o.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  o.out = test::readBytes(outFile);
  o.err = test::readBytes(errFile);
  return o;
}

class UnpackCommandTest : public test::ScratchTest {
 protected:
  void SetUp() override {
    scratch_.write("stage/warm.wav", "RIFF....WAVE");
    scratch_.write("stage/w2v.mlpackage/model.pt", "front end");
    scratch_.write("stage/w2v.mlpackage/io.json", "{}");
    declared_["warm"] = ref("warm.wav");
    declared_["frontend_long_label"] = ref("w2v.mlpackage");
  }

  FileRef ref(const std::string& path) {
    Archive::Digest d = Archive::digest(scratch_ / "stage" / path);
    return {path, d.sha256, static_cast<std::int64_t>(d.bytes)};
  }

  std::string engineManifest(const std::string& format = "vivra-engine/1") {
    EngineManifest m;
    m.format = format;
    m.abi = 3;
    m.created = "2025-03-01T09:30:00Z";
    m.files = declared_;
    return UnifiedHeader::stamp(ManifestJSON::encode(m), "lumora2", 3);
  }

  fs::path pack(const std::string& manifest, bool imx = true) {
    fs::path out = scratch_ / (imx ? "e.model" : "z.model");
    if (imx) {
      Archive::writeImxMembers(Archive::stage(scratch_ / "stage"), manifest, out);
    } else {
      scratch_.write("stage/manifest.json", manifest);
      Archive::zip(scratch_ / "stage", out);
    }
    return out;
  }

  std::string okLine(const std::string& column, const std::string& path) {
    return "  " + column + " OK  " + ref(path).sha256.substr(0, 16) + "  " + path + "\n";
  }

  std::string dest() const { return (scratch_ / "out").string(); }

  std::map<std::string, FileRef> declared_;
};

TEST_F(UnpackCommandTest, VerifiesEveryDeclaredMemberOfBothForms) {
  for (bool imx : {true, false}) {
    fs::path artifact = pack(engineManifest(), imx);
    Outcome o = runUnpack({artifact.string(), dest()}, {}, scratch_.path());
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.out, "unpacked " + artifact.filename().string() + " → " + dest() + "   [" +
                         (imx ? "IMX\\0" : "zip") + "]\n" +
                         "  ENGINE format=vivra-engine/1 abi=3\n" +
                         okLine("frontend", "w2v.mlpackage") + okLine("warm    ", "warm.wav") +
                         "  checksums OK (2 members)\n");
    fs::remove_all(dest());
  }
}

TEST_F(UnpackCommandTest, MissingAndAlteredMembersEndWithStatusTwo) {
  declared_["ghost"] = {"ghost.bin", std::string(64, '0'), 1};
  fs::path artifact = pack(engineManifest());
  // Flip one byte of warm.wav inside the container.
  for (const Member& m : Lumora2Container::members(artifact)) {
    if (m.name != "warm.wav") continue;
    std::string bytes = test::readBytes(artifact);
    bytes[m.offset] ^= 0x20;
    test::writeBytes(artifact, bytes);
  }
  Outcome o = runUnpack({artifact.string(), dest()}, {}, scratch_.path());
  EXPECT_EQ(o.status, kExitChecksumProblems);
  const std::string actual = Archive::digest(scratch_ / "out/warm.wav").sha256;
  EXPECT_THAT(o.out,
              ::testing::EndsWith(okLine("frontend", "w2v.mlpackage") + "  CHECKSUM PROBLEMS:\n" +
                                  "    ghost: missing ghost.bin\n" +
                                  "    warm: sha mismatch (warm.wav) declared=" +
                                  declared_["warm"].sha256.substr(0, 16) +
                                  " actual=" + actual.substr(0, 16) + "\n"));
}

TEST_F(UnpackCommandTest, NoVerifySkipsChecksumsAndGivesItsValueBackAsTheDestination) {
  declared_["ghost"] = {"ghost.bin", std::string(64, '0'), 1};
  fs::path artifact = pack(engineManifest());
  for (const Options& options : {Options{{"no-verify", "true"}}, Options{{"no-verify", dest()}}}) {
    Positionals positionals{artifact.string()};
    if (options.at("no-verify") == "true") positionals.push_back(dest());
    Outcome o = runUnpack(positionals, options, scratch_.path());
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.out, "unpacked e.model → " + dest() +
                         "   [IMX\\0]\n  ENGINE format=vivra-engine/1 abi=3\n"
                         "  --no-verify — member checksums NOT checked\n");
  }
}

TEST_F(UnpackCommandTest, AcceptsTheLegacyAvatarTag) {
  AvatarManifest m;
  m.format = "lumora2-avatar/1";
  m.code = "ava";
  m.requiresEngineAbi = 3;
  m.files["warm"] = declared_["warm"];
  Outcome o = runUnpack({pack(ManifestJSON::encode(m)).string(), dest()}, {}, scratch_.path());
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_THAT(
      o.out, ::testing::HasSubstr("\n  AVATAR code=ava requires_engine_abi=3\n" +
                                  okLine("warm    ", "warm.wav") + "  checksums OK (1 members)\n"));
}

struct Failure {
  const char* label;
  std::string manifest;  // "" when the artifact is not to exist
  Positionals positionals;
  std::string error;
};

void PrintTo(const Failure& f, std::ostream* os) { *os << f.label; }

class UnpackFailureTest : public UnpackCommandTest,
                          public ::testing::WithParamInterface<Failure> {};

TEST_P(UnpackFailureTest, PrintsOneErrorLineAndNothingOnStandardOutput) {
  Positionals positionals = GetParam().positionals;
  if (!GetParam().manifest.empty())
    positionals.insert(positionals.begin(), pack(GetParam().manifest));
  Outcome o = runUnpack(positionals, {}, scratch_.path());
  EXPECT_EQ(o.status, kExitFailure);
  EXPECT_EQ(o.out, "");
  EXPECT_EQ(o.err, "error: " + GetParam().error + "\n");
  EXPECT_FALSE(fs::exists(scratch_ / "out"));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UnpackFailureTest,
    ::testing::Values(
        Failure{"one positional",
                "",
                {"only-one"},
                "usage: unpack <file.model|file.avatar> <dir> [--no-verify]"},
        Failure{"no such archive", "", {"no/such.model", "out"}, "no such archive: no/such.model"},
        Failure{"refused tag",
                R"({"format": "vivra-engine/2", "abi": 3, "runtime": {"input_rate": 1,
                    "frame": [], "fps": 1}, "created": "c", "files": {}})",
                {"out"},
                "unrecognized manifest format in e.model"},
        Failure{"bad JSON", "not json", {"out"}, "unrecognized manifest format in e.model"}));

TEST_F(UnpackCommandTest, VerifyChecksumsReportsProblemsAndLeavesNoScratchBehind) {
  fs::create_directories(scratch_ / "tmp");
  ::setenv("TMPDIR", (scratch_ / "tmp").c_str(), 1);
  fs::path artifact = pack(engineManifest());
  EXPECT_THAT(verifyChecksums(artifact, declared_), IsEmpty());
  declared_["ghost"] = {"ghost.bin", "x", 1};
  declared_["warm"].sha256 = "0123456789abcdef0123";
  EXPECT_THAT(verifyChecksums(artifact, declared_),
              ElementsAre("ghost: missing ghost.bin",
                          "warm: sha mismatch (warm.wav) declared=0123456789abcdef actual=" +
                              ref("warm.wav").sha256.substr(0, 16)));
  fs::path hostile = test::ImxBuilder().add("../x", "x").writeTo(scratch_ / "bad.model");
  EXPECT_THROW(verifyChecksums(hostile, declared_), Err);
  ::unsetenv("TMPDIR");
  EXPECT_THAT(test::listTree(scratch_ / "tmp"), IsEmpty());
}

}  // namespace
}  // namespace lumora2
