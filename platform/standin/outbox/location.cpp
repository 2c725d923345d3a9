#include "platform/standin/outbox/location.h"

#include <filesystem>
#include <system_error>

namespace standin {

bool locateOutbox(std::string& path, OutboxLocation& location, std::string& error) {
  std::error_code failure;
  const std::filesystem::path file = std::filesystem::absolute(path, failure).lexically_normal();
  if (failure) {
    error = "cannot tell which directory it is in: " + failure.message();
    return false;
  }
  path = file.string();
  if (!file.has_filename()) {
    error = "it names a directory: name a file in it";
    return false;
  }
  std::shared_ptr<const PrivateDirectory> directory = PrivateDirectory::open(file.parent_path().string(), error);
  if (!directory) return false;
  location.directory = std::move(directory);
  location.name = file.filename().string();
  return true;
}

}  // namespace standin
