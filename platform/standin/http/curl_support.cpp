#include "platform/standin/http/curl_support.h"

#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/standin/files/close_on_exec.h"
#include "port/fork_hooks.h"
#include "port/mutex.h"

namespace standin {
namespace {

const size_t kWakeUpSockets = 2;
// A transfer's own timeouts end it; this only bounds one wait for activity.
const int kLongestPollMs = 1000;

class Share {
 public:
  Share() {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return;
    if (CURL* probe = curl_easy_init()) {
      char* bundle = nullptr;
      if (curl_easy_getinfo(probe, CURLINFO_CAINFO, &bundle) == CURLE_OK && bundle != nullptr) m_caBundle = bundle;
      char* directory = nullptr;
      if (curl_easy_getinfo(probe, CURLINFO_CAPATH, &directory) == CURLE_OK && directory != nullptr) {
        m_caPath = directory;
      }
      curl_easy_cleanup(probe);
    }
    m_handle = curl_share_init();
    if (m_handle == nullptr) return;
    curl_share_setopt(m_handle, CURLSHOPT_LOCKFUNC, &Share::lock);
    curl_share_setopt(m_handle, CURLSHOPT_UNLOCKFUNC, &Share::unlock);
    curl_share_setopt(m_handle, CURLSHOPT_USERDATA, this);
    curl_share_setopt(m_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(m_handle, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }

  // At process exit, after every client is gone. libcurl stays initialised:
  // other code of the process may still use it. Kept handles go first: they
  // may still be attached to the share.
  ~Share() {
    for (CURL* easy : m_idle) cleanUp(easy);
    if (m_handle != nullptr) curl_share_cleanup(m_handle);
  }

  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  CURLSH* handle() const { return m_handle; }
  const char* caBundle() const { return m_caBundle.empty() ? nullptr : m_caBundle.c_str(); }
  const char* caPath() const { return m_caPath.empty() ? nullptr : m_caPath.c_str(); }

  CURL* takeIdle() {
    port::MutexLock lock(m_idleMutex);
    if (m_idle.empty()) return nullptr;
    CURL* easy = m_idle.back();
    m_idle.pop_back();
    return easy;
  }

  // Around fork(): no other thread is inside the pool or libcurl's shared
  // data while the process is copied.
  void lockForFork() NO_THREAD_SAFETY_ANALYSIS {
    m_idleMutex.lock();
    for (std::mutex& mutex : m_mutexes) mutex.lock();
  }
  void unlockAfterFork() NO_THREAD_SAFETY_ANALYSIS {
    for (std::mutex& mutex : m_mutexes) mutex.unlock();
    m_idleMutex.unlock();
  }
  // In a child, the kept handles' connections are the parent's: the child
  // never uses them, nor closes them (a TLS goodbye would end the parent's).
  void unlockInChild() NO_THREAD_SAFETY_ANALYSIS {
    m_abandoned.insert(m_abandoned.end(), m_idle.begin(), m_idle.end());
    m_idle.clear();
    unlockAfterFork();
  }

  // False when enough handles are kept already.
  bool keepIdle(CURL* easy) {
    port::MutexLock lock(m_idleMutex);
    if (m_idle.size() >= kMaxIdle) return false;
    m_idle.push_back(easy);
    return true;
  }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<Share*>(self)->mutexFor(data).lock();
  }

  static void unlock(CURL*, curl_lock_data data, void* self) { static_cast<Share*>(self)->mutexFor(data).unlock(); }

  std::mutex& mutexFor(curl_lock_data data) {
    const int index = static_cast<int>(data);
    return m_mutexes[index >= 0 && index < CURL_LOCK_DATA_LAST ? index : 0];
  }

  // One per thread that makes requests at the same time is plenty.
  static const size_t kMaxIdle = 8;

  std::string m_caBundle;  // libcurl's built-in one; empty: none
  std::string m_caPath;    // libcurl's built-in one; empty: none
  CURLSH* m_handle = nullptr;
  // One per kind of shared data, taken and released by libcurl itself.
  std::mutex m_mutexes[CURL_LOCK_DATA_LAST];
  port::Mutex m_idleMutex;
  std::vector<CURL*> m_idle GUARDED_BY(m_idleMutex);       // reset, waiting for reuse
  std::vector<CURL*> m_abandoned GUARDED_BY(m_idleMutex);  // a forked child's parent's; never used
};

// The multi handle that runs `easy`'s transfers, kept in its private pointer.
CURLM* multiOf(CURL* easy) {
  void* multi = nullptr;
  return curl_easy_getinfo(easy, CURLINFO_PRIVATE, &multi) == CURLE_OK ? static_cast<CURLM*>(multi) : nullptr;
}

// libcurl opens its connections through this, close-on-exec from the start;
// libcurl closes them with close(), its default.
curl_socket_t openCloseOnExecSocket(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

std::atomic<Share*> g_share{nullptr};  // once share() made it

Share& share() {
  static Share instance;  // C++ makes this initialisation thread-safe
  g_share.store(&instance, std::memory_order_release);
  return instance;
}

void lockForFork() {
  if (Share* made = g_share.load(std::memory_order_acquire)) made->lockForFork();
}
void unlockAfterFork() {
  if (Share* made = g_share.load(std::memory_order_acquire)) made->unlockAfterFork();
}
void unlockInChild() {
  if (Share* made = g_share.load(std::memory_order_acquire)) made->unlockInChild();
}

}  // namespace

const port::ForkHooks kCurlForkHooks = {&lockForFork, &unlockAfterFork, &unlockInChild};

size_t appendToBody(char* data, size_t size, size_t count, void* answer) {
  AnswerBody& body = *static_cast<AnswerBody*>(answer);
  if (size * count > kLargestAnswer - body.text.size()) {
    body.tooLarge = true;
    return 0;
  }
  try {
    body.text.append(data, size * count);
    return size * count;
  } catch (...) {
    return 0;
  }
}

CURL* takeEasyHandle() {
  Share& shared = share();  // also initialises libcurl
  CURL* easy = shared.takeIdle();
  CURLM* multi = nullptr;
  if (easy != nullptr) {
    // Back to libcurl's defaults, its multi handle and open connections
    // kept. This also clears the count of retries on a new connection that
    // libcurl 7.88 keeps per handle across requests: left to grow, it would
    // fail the sixth request that finds its kept-alive connection closed
    // ("Connection died, tried 5 times before giving up") instead of sending
    // it again.
    multi = multiOf(easy);
    curl_easy_reset(easy);
  } else {
    // A multi handle of its own, rather than the one curl_easy_perform would
    // make, so that its wake-up socket pair is made where it can be marked
    // close-on-exec.
    // Should another thread open sockets meanwhile, none is marked: the
    // handle works all the same.
    markSocketsOpenedBy(kWakeUpSockets, [&multi] { multi = curl_multi_init(); });
    easy = curl_easy_init();
    if (multi == nullptr || easy == nullptr) {
      curl_easy_cleanup(easy);
      curl_multi_cleanup(multi);
      return nullptr;
    }
  }
  curl_easy_setopt(easy, CURLOPT_PRIVATE, multi);
  curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &openCloseOnExecSocket);
  if (shared.handle() != nullptr) curl_easy_setopt(easy, CURLOPT_SHARE, shared.handle());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &appendToBody);
  return easy;
}

const char* builtInCaBundle() { return share().caBundle(); }

const char* builtInCaPath() { return share().caPath(); }

void giveBackEasyHandle(CURL* easy) {
  if (easy == nullptr) return;
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, nullptr);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, nullptr);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
  try {
    if (share().keepIdle(easy)) return;
  } catch (...) {
    // No memory to keep it: it goes.
  }
  cleanUp(easy);
}

void cleanUp(CURL* easy) {
  CURLM* multi = multiOf(easy);
  curl_easy_cleanup(easy);
  curl_multi_cleanup(multi);
}

CURLcode performTransfer(CURL* easy) {
  CURLM* multi = multiOf(easy);
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
  int running = 1;
  CURLMcode progress = CURLM_OK;
  while (progress == CURLM_OK && running > 0) {
    progress = curl_multi_perform(multi, &running);
    if (progress == CURLM_OK && running > 0) progress = curl_multi_poll(multi, nullptr, 0, kLongestPollMs, nullptr);
  }
  CURLcode result = progress == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_RECV_ERROR;
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
    if (message->msg == CURLMSG_DONE && message->easy_handle == easy) result = message->data.result;
  }
  curl_multi_remove_handle(multi, easy);
  return result;
}

}  // namespace standin
