#include <cstdlib>
#include <ctime>
#include <string>

#include "container/error.h"
#include "container/manifest.h"
#include "json_text.h"

namespace lumora2 {

namespace UnifiedHeader {

std::string stamp(std::string_view manifest, std::string_view engine, std::int64_t engineAbi) {
  nlohmann::json value = parseJsonText(manifest, "unified-header");
  if (!value.is_object()) throw ArtifactError("unified-header: manifest is not a JSON object");
  value["engine"] = std::string(engine);
  value["engine_abi"] = engineAbi;
  value["unified_format_version"] = 2;
  value["decoder"] = "decp2v3";
  return manifestText(value);
}

}  // namespace UnifiedHeader

std::string isoNowUTC() {
  // SOURCE_DATE_EPOCH (seconds since 1970, the reproducible-builds convention) stands for now, so
  // that packing the same tree twice gives the same bytes.
  std::time_t now = std::time(nullptr);
  if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH"); epoch != nullptr && *epoch != '\0') {
    char* end = nullptr;
    const long long seconds = std::strtoll(epoch, &end, 10);
    if (*end == '\0' && seconds >= 0) now = static_cast<std::time_t>(seconds);
  }
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::string(text, n);
}

}  // namespace lumora2
