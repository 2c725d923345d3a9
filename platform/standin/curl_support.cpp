#include "curl_support.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <mutex>

namespace standin {
namespace {

class Share {
 public:
  Share() {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return;
    handle_ = curl_share_init();
    if (handle_ == nullptr) return;
    curl_share_setopt(handle_, CURLSHOPT_LOCKFUNC, &Share::lock);
    curl_share_setopt(handle_, CURLSHOPT_UNLOCKFUNC, &Share::unlock);
    curl_share_setopt(handle_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(handle_, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    curl_share_setopt(handle_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(handle_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }

  // At process exit, after every client is gone. libcurl stays initialised:
  // other code of the process may still use it.
  ~Share() {
    if (handle_ != nullptr) curl_share_cleanup(handle_);
  }

  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  CURLSH* handle() const { return handle_; }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<Share*>(self)->mutexFor(data).lock();
  }

  static void unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<Share*>(self)->mutexFor(data).unlock();
  }

  std::mutex& mutexFor(curl_lock_data data) {
    const int index = static_cast<int>(data);
    return mutexes_[index >= 0 && index < CURL_LOCK_DATA_LAST ? index : 0];
  }

  CURLSH* handle_ = nullptr;
  std::mutex mutexes_[CURL_LOCK_DATA_LAST];  // one per kind of shared data
};

}  // namespace

CURLSH* curlShare() {
  static Share share;  // C++ makes this initialisation thread-safe
  return share.handle();
}

long httpTimeoutSeconds(const ConfigValues& values) {
  const long kDefaultSeconds = 30;
  const std::string text = setting(values, "http_timeout", "");
  char* end = nullptr;
  errno = 0;
  const long seconds = std::strtol(text.c_str(), &end, 10);
  const bool valid = !text.empty() && errno == 0 && *end == '\0' && seconds > 0 && seconds <= INT_MAX / 1000;
  return valid ? seconds : kDefaultSeconds;
}

size_t appendToBody(char* data, size_t size, size_t count, void* body) {
  try {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
  } catch (...) {
    return 0;
  }
}

bool appendHeader(HeaderList& headers, const std::string& line) {
  curl_slist* extended = curl_slist_append(headers.get(), line.c_str());
  if (extended == nullptr) return false;
  headers.release();  // `extended` is the same list, grown
  headers.reset(extended);
  return true;
}

}  // namespace standin
