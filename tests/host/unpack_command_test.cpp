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
#include "container/error.h"
#include "container/imx.h"
#include "container/verify.h"
#include "host/commands.h"
#include "support/imx_builder.h"
#include "support/scratch_dir.h"

namespace lumora2 {
namespace {

namespace fs = std::filesystem;
using ::testing::IsEmpty;

struct Outcome {
  int status = -1;
  std::string out, err;
};

class UnpackCommandTest : public test::ScratchTest {
 protected:
  void SetUp() override {
    scratch_.write("stage/warm.wav", "RIFF....WAVE");
    scratch_.write("stage/w2v.mlpackage/model.pt", "front end");
    scratch_.write("stage/w2v.mlpackage/io.json", "{}");
    declared_["warm"] = ref("warm.wav");
    declared_["frontend_long_label"] = ref("w2v.mlpackage");  // reported cut to 8 characters
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

  fs::path pack(const std::string& manifest) {
    Archive::writeImxMembers(Archive::stage(scratch_ / "stage"), manifest, scratch_ / "e.model");
    return scratch_ / "e.model";
  }

  // Runs cmdUnpack in a child process, as the entry point would: an error is printed as
  // "error: …" with status 1, and the command's own exit statuses reach the parent unchanged.
  Outcome unpack(const Positionals& positionals, const Options& options = {}) {
    const fs::path out = scratch_ / "stdout.txt", err = scratch_ / "stderr.txt";
    std::cout.flush();
    pid_t pid = ::fork();
    if (pid == 0) {
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
      ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
      int code = kExitFailure;
      try {
        code = cmdUnpack(positionals, options);
      } catch (const std::exception& e) {
        std::cerr << "error: " << e.what() << '\n';
        code = kExitFailure;
      }
      std::cout.flush();
      ::_exit(code);
    }
    int raw = 0;
    ::waitpid(pid, &raw, 0);
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), test::readBytes(out),
            test::readBytes(err)};
  }

  std::string okLine(const std::string& column, const std::string& path) {
    return "  " + column + " OK  " + ref(path).sha256.substr(0, 16) + "  " + path + "\n";
  }

  const std::string dest_ = (scratch_ / "out").string();
  std::map<std::string, FileRef> declared_;
};

TEST_F(UnpackCommandTest, MissingAndAlteredMembersEndWithStatusTwoUnlessNotVerified) {
  declared_["ghost"] = {"ghost.bin", std::string(64, '0'), 1};
  fs::path artifact = pack(engineManifest());
  const Member warm = Lumora2Container::members(artifact).rbegin()[1];  // the manifest is last
  ASSERT_EQ(warm.name, "warm.wav");
  std::string bytes = test::readBytes(artifact);
  bytes[warm.offset] ^= 0x20;
  test::writeBytes(artifact, bytes);
  Outcome o = unpack({artifact.string(), dest_});
  EXPECT_EQ(o.status, kExitChecksumProblems);
  const std::string actual = Archive::digest(scratch_ / "out/warm.wav").sha256;
  EXPECT_THAT(o.out, ::testing::EndsWith(okLine("frontend", "w2v.mlpackage") +
                                         "  CHECKSUM PROBLEMS:\n    ghost: missing ghost.bin\n" +
                                         "    warm: sha mismatch (warm.wav) declared=" +
                                         declared_["warm"].sha256.substr(0, 16) +
                                         " actual=" + actual.substr(0, 16) + "\n"));
  // --no-verify skips the checksums; the grammar may have made the destination its value.
  for (const Options& options : {Options{{"no-verify", "true"}}, Options{{"no-verify", dest_}}}) {
    fs::remove_all(dest_);
    Positionals positionals{artifact.string()};
    if (options.at("no-verify") == "true") positionals.push_back(dest_);
    o = unpack(positionals, options);
    EXPECT_EQ(o.status, 0) << o.err;
    EXPECT_EQ(o.out, "unpacked e.model → " + dest_ +
                         "   [IMX\\0]\n  ENGINE format=vivra-engine/1 abi=3\n"
                         "  --no-verify — member checksums NOT checked\n");
  }
}

}  // namespace
}  // namespace lumora2
