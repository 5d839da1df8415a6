#include "artifact_output.h"

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

#include "container/imx.h"
#include "container/platform.h"
#include "host/command.h"

namespace lumora2 {

namespace fs = std::filesystem;

namespace {

// The path with symbolic links and "." / ".." resolved as far as it exists, made absolute.
fs::path resolved(const fs::path& path) {
  std::error_code ec;
  fs::path result = fs::weakly_canonical(fs::absolute(path), ec);
  return ec ? fs::absolute(path).lexically_normal() : result;
}

bool isInside(const fs::path& inner, const fs::path& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (o->empty()) continue;  // a trailing separator of `outer`
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

}  // namespace

AtomicOutput::AtomicOutput(fs::path output) : output_(std::move(output)) {
  std::string name = ".";
  name += output_.filename().string();
  name += ".partial-";
  name += newUUID();
  temporary_ = output_.parent_path() / name;
}

AtomicOutput::~AtomicOutput() {
  if (committed_) return;
  std::error_code ec;
  fs::remove(temporary_, ec);
}

void AtomicOutput::commit() {
  fs::rename(temporary_, output_);
  committed_ = true;
}

void refuseOutputPath(std::string_view command, const fs::path& output,
                      const std::optional<fs::path>& stagingDir) {
  std::string prefix(command);
  if (output.empty()) throw Err(prefix + ": the output path is empty");
  if (fs::is_directory(output)) {
    throw Err(prefix + ": output " + output.string() + " is a directory");
  }
  if (stagingDir && isInside(resolved(output), resolved(*stagingDir))) {
    throw Err(prefix + ": output " + output.string() + " lies inside the staging directory " +
              stagingDir->string() + "; write it elsewhere");
  }
  fs::path parent = output.parent_path();
  if (!parent.empty() && !fs::is_directory(parent)) {
    throw Err(prefix + ": no directory " + parent.string() + " to write " + output.string() +
              " in");
  }
}

bool samePath(const fs::path& a, const fs::path& b) {
  std::error_code ec;
  if (fs::equivalent(a, b, ec)) return true;
  return resolved(a) == resolved(b);
}

std::string_view formName(ArtifactForm form) {
  return form == ArtifactForm::imx ? "IMX\\0" : "zip";
}

ArtifactForm formOf(const fs::path& artifact) {
  return Lumora2Container::isContainer(artifact) ? ArtifactForm::imx : ArtifactForm::zip;
}

void writeArtifact(ArtifactForm form, const std::vector<Archive::StagedMember>& members,
                   const std::string& manifest, const fs::path& stagingDir, const fs::path& to) {
  AtomicOutput output(to);
  if (form == ArtifactForm::imx) {
    TerminalProgress meter("writing " + to.filename().string());
    Archive::writeImxMembers(members, manifest, output.temporary(), meter.callback());
  } else {
    ScratchDir scratch("lumora2-pack-");
    fs::path manifestFile = scratch.path() / std::string(Lumora2Container::manifestName);
    {
      std::ofstream out(manifestFile, std::ios::binary);
      out.write(manifest.data(), static_cast<std::streamsize>(manifest.size()));
      if (!out.flush()) {
        throw fs::filesystem_error("cannot write", manifestFile,
                                   std::make_error_code(std::errc::io_error));
      }
    }
    Archive::zip(fs::absolute(stagingDir), members, fs::absolute(output.temporary()));
    Archive::run("/usr/bin/zip",
                 {"-jq", fs::absolute(output.temporary()).string(), manifestFile.string()});
  }
  output.commit();
}

std::string readWholeFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw fs::filesystem_error("cannot open", path,
                               std::error_code(errno, std::generic_category()));
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace lumora2
