// lumora2-render: renders a speech recording through an avatar into a playable MP4, with a
// `lumora2-model render-stream` child doing the rendering.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "client/client_error.h"
#include "client/signal_cleanup.h"
#include "client/speech_text.h"
#include "client/stream_child.h"
#include "container/archive.h"
#include "container/manifest.h"
#include "output_path.h"
#include "render_job.h"

namespace {

using lumora2::render::ClientError;
namespace fs = std::filesystem;

constexpr const char* kUsage =
    "usage: lumora2-render <X.avatar> --engine vivra.model --audio speech.wav -o out.mp4\n"
    "       lumora2-render <X.avatar> --engine vivra.model --text \"...\" -o out.mp4\n"
    "       lumora2-render <X.avatar> --engine vivra.model --text-file F -o out.mp4\n"
    "                      [--voice NAME] [--gap SECONDS] [--host PATH] [--log FILE]\n"
    "\n"
    "Renders the speech in any audio file (WAV, FLAC, MP3, Ogg, M4A; any rate and channels)\n"
    "through the avatar into an H.264 + AAC MP4 at 20 fps; or speaks a text (UTF-8; in a file,\n"
    "a blank line is a pause) with the embedded voice: the avatar's own (from its gender and\n"
    "persona), or the espeak-ng voice --voice names (en-us, en-us+f3, de, ru, ...). Silences\n"
    "of at least --gap seconds (default 0.6) separate utterances and show the avatar's idle\n"
    "clip. --host names the lumora2-model that renders (default: the one beside\n"
    "lumora2-render). --log appends the idle clip reader's log lines to FILE (by default they\n"
    "go nowhere).\n";

double parseSeconds(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0) || value > 3600) {
    throw ClientError("--gap wants a number of seconds above 0, not \"" + text + "\"");
  }
  return value;
}

// A text file's UTF-8 text (a byte order mark dropped); the text's own checks follow.
std::string readTextFile(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_regular_file(file, ec)) {
    throw ClientError("the text file " + file.string() + " is not a readable file");
  }
  std::ifstream in(file, std::ios::binary);
  // At most four bytes a character: more than that many bytes is too long whatever it holds.
  const std::size_t most = 4 * lumora2::render::kMaxTextChars;
  std::string text(most + 1, '\0');
  in.read(text.data(), std::streamsize(text.size()));
  if (in.bad()) throw ClientError("cannot read the text file " + file.string());
  text.resize(std::size_t(in.gcount()));
  if (text.size() > most) {
    throw ClientError("the text file " + file.string() + " has more than " +
                      std::to_string(lumora2::render::kMaxTextChars) +
                      " characters; at most that many are taken");
  }
  if (text.starts_with("\xEF\xBB\xBF")) text.erase(0, 3);
  return text;
}

lumora2::render::RenderOptions parseArguments(const std::vector<std::string>& args) {
  lumora2::render::RenderOptions options;
  options.host = lumora2::render::StreamChild::defaultHost();
  bool haveAvatar = false;
  fs::path textFile;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw ClientError(a + " needs a value");
      return args[++i];
    };
    if (a == "--engine") {
      options.engine = value();
    } else if (a == "--audio") {
      options.audio = value();
    } else if (a == "--text") {
      options.text = value();
    } else if (a == "--text-file") {
      textFile = value();
    } else if (a == "--voice") {
      options.voice = value();
    } else if (a == "-o" || a == "--output") {
      options.output = value();
    } else if (a == "--gap") {
      options.gapSeconds = parseSeconds(value());
    } else if (a == "--host") {
      options.host = value();
    } else if (a == "--log") {
      options.logFile = value();
    } else if (!a.empty() && a[0] == '-') {
      throw ClientError("unknown option " + a);
    } else if (!haveAvatar) {
      options.avatar = a;
      haveAvatar = true;
    } else {
      throw ClientError("unexpected argument " + a);
    }
  }
  if (!haveAvatar) throw ClientError("missing <X.avatar>");
  if (options.engine.empty()) throw ClientError("missing --engine vivra.model");
  const int sources =
      int(!options.audio.empty()) + int(options.text.has_value()) + int(!textFile.empty());
  if (sources == 0) throw ClientError("missing --audio FILE, --text \"...\" or --text-file FILE");
  if (sources > 1) throw ClientError("--audio, --text and --text-file exclude each other");
  if (options.output.empty()) throw ClientError("missing -o out.mp4");
  if (!options.voice.empty() && !options.audio.empty()) {
    throw ClientError("--voice speaks a text: it goes with --text or --text-file");
  }
  try {
    if (!textFile.empty()) {
      options.text = readTextFile(textFile);
      options.textFile = textFile;
    }
    if (options.text) lumora2::render::checkText(*options.text, lumora2::render::kMaxTextChars);
  } catch (const lumora2::render::TextError& e) {
    throw ClientError(textFile.empty() ? e.what() : textFile.string() + ": " + e.what());
  }
  return options;
}

// What a container's manifest says it is; unknown when the file cannot tell (missing,
// unreadable, neither): the render reports those itself. Digests are not checked here:
// render-stream does that.
lumora2::ManifestJSON::Kind artifactKind(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_regular_file(file, ec)) return lumora2::ManifestJSON::Kind::unknown;
  try {
    return lumora2::ManifestJSON::kindOf(lumora2::Archive::readManifest(file));
  } catch (const std::exception&) {
    return lumora2::ManifestJSON::Kind::unknown;
  }
}

// Refuses an engine given as the avatar or the other way round, before a child is started.
void checkKinds(const lumora2::render::RenderOptions& options) {
  using Kind = lumora2::ManifestJSON::Kind;
  const Kind avatar = artifactKind(options.avatar);
  const Kind engine = artifactKind(options.engine);
  std::string wrong;
  if (engine == Kind::avatar)
    wrong = options.engine.string() + " is an avatar file, not an engine file";
  if (avatar == Kind::engine) {
    wrong += (wrong.empty() ? "" : "; ") + options.avatar.string() +
             " is an engine file, not an avatar file";
  }
  if (!wrong.empty()) throw ClientError(wrong);
}

const char* plural(std::size_t count) { return count == 1 ? "" : "s"; }

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && (args[0] == "-h" || args[0] == "--help")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  // A child that dies while audio is written to it is a failed write, not our death.
  ::signal(SIGPIPE, SIG_IGN);
  // FFmpeg's own diagnostics stay quiet; failures reach the user as one error line each.
  av_log_set_level(AV_LOG_QUIET);
  try {
    const lumora2::render::RenderOptions options = parseArguments(args);
    const std::vector<lumora2::render::NamedInput> inputs = {{"audio", options.audio},
                                                             {"text", options.textFile},
                                                             {"avatar", options.avatar},
                                                             {"engine", options.engine}};
    lumora2::render::checkOutputPath(options.output, inputs);
    if (!options.logFile.empty()) {
      std::vector<lumora2::render::NamedInput> taken = inputs;
      taken.push_back({"output", options.output});
      lumora2::render::checkOutputPath(options.logFile, taken);
    }
    checkKinds(options);
    lumora2::render::signal_cleanup::setPartialFile(
        lumora2::render::partialNameFor(options.output));
    lumora2::render::signal_cleanup::install();
    const lumora2::render::RenderReport r = lumora2::render::renderToMp4(options);
    std::printf(
        "%s: %zu frame%s (%.2f s at 20 fps), %zu utterance%s, %zu rendered frame%s; seams: "
        "largest step %.2f (between rendered frames: up to %.2f; idle and rendered pictures up "
        "to %.2f apart)\n",
        options.output.c_str(), r.frames, plural(r.frames), double(r.frames) / 20.0, r.utterances,
        plural(r.utterances), r.renderedFrames, plural(r.renderedFrames), r.largestSeamStep,
        r.largestRenderedStep, r.largestSeamGap);
    return 0;
  } catch (const ClientError& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    if (args.empty()) std::fputs(kUsage, stderr);
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return 1;
  }
}
