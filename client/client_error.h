// ClientError: a failure lumora2-render reports as one `error:` line and exit status 1.
#pragma once

#include <stdexcept>
#include <string>

namespace lumora2::render {

class ClientError : public std::runtime_error {
 public:
  explicit ClientError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace lumora2::render
