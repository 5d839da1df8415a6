// The page's files, compiled into the executable from serve/web/ (cmake/EmbedFiles.cmake):
// the server answers only for these paths, so no request ever reaches the file system.
#pragma once

#include <string_view>
#include <vector>

namespace lumora2::serve {

struct WebAsset {
  std::string_view path;  // "/", "/app.js", "/style.css"
  std::string_view type;  // its Content-Type
  std::string_view body;
};

const std::vector<WebAsset>& webAssets();

}  // namespace lumora2::serve
