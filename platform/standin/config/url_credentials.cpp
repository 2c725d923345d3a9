#include "platform/standin/config/url_credentials.h"

namespace standin {
namespace {

// Where the user information of a URL lies: from `start` up to the '@' at
// `at`. The host follows the last '@' before the path, so that an '@' inside
// a password is counted with the password.
struct UserInfo {
  size_t start = 0;
  size_t at = std::string::npos;  // npos: no user information
};

UserInfo userInfoOf(const std::string& url) {
  UserInfo info;
  const size_t scheme = url.find("://");
  info.start = scheme == std::string::npos ? 0 : scheme + 3;
  const size_t authorityEnd = url.find_first_of("/?#", info.start);
  const std::string authority = url.substr(info.start, authorityEnd - info.start);
  const size_t at = authority.rfind('@');
  if (at != std::string::npos) info.at = info.start + at;
  return info;
}

}  // namespace

bool hasUrlCredentials(const std::string& url) { return userInfoOf(url).at != std::string::npos; }

std::string urlWithoutPassword(const std::string& url) {
  const UserInfo info = userInfoOf(url);
  if (info.at == std::string::npos) return url;
  const size_t colon = url.find(':', info.start);
  if (colon == std::string::npos || colon > info.at) return url;
  return url.substr(0, colon + 1) + "***" + url.substr(info.at);
}

}  // namespace standin
