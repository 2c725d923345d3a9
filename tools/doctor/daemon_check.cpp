// The request daemon's address: a TCP connection, opened and closed at once,
// and over https a handshake and a GET of its root. No request of the
// daemon's is ever sent, so no backup can start from here.
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "checks.h"
#include "platform/standin/config/ksqd_url.h"
#include "platform/standin/config/protocol.h"
#include "platform/standin/config/url_credentials.h"
#include "platform/standin/http/curl_exchange.h"
#include "platform/standin/http/http_settings.h"
#include "tls_advice.h"
#include "url_parts.h"

namespace doctor {
namespace {

const char kId[] = "daemon";
const char kTitle[] = "request daemon";
const int kConnectMilliseconds = 2000;

// 0 once one address of `where` accepted a connection within the time limit,
// else the errno of the last attempt (ETIMEDOUT when none answered in time),
// or -1 with the resolver's message in `resolveError`.
int connectWithin(const UrlParts& where, std::string& resolveError) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* addresses = nullptr;
  const int lookup = getaddrinfo(where.host.c_str(), std::to_string(where.port).c_str(), &hints, &addresses);
  if (lookup != 0) {
    resolveError = gai_strerror(lookup);
    return -1;
  }
  int error = ECONNREFUSED;
  for (const addrinfo* address = addresses; address != nullptr; address = address->ai_next) {
    const int fd =
        socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address->ai_protocol);
    if (fd < 0) {
      error = errno;
      continue;
    }
    if (connect(fd, address->ai_addr, address->ai_addrlen) == 0) {
      error = 0;
    } else if (errno != EINPROGRESS) {
      error = errno;
    } else {
      pollfd waiting = {fd, POLLOUT, 0};
      const int ready = poll(&waiting, 1, kConnectMilliseconds);
      socklen_t length = sizeof error;
      if (ready == 0) {
        error = ETIMEDOUT;
      } else if (ready < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        error = errno;
      }
    }
    close(fd);
    if (error == 0) break;
  }
  freeaddrinfo(addresses);
  return error;
}

// Over https: the handshake as a request would make it, with the host's
// certificate, and a GET of the daemon's root, which starts nothing.
CheckResult checkHandshake(const Configuration& configuration, const std::string& requestUrl) {
  const std::string root = requestUrl.substr(0, requestUrl.rfind(standin::kDaemonPath)) + "/";
  const std::string shownRoot = standin::urlWithoutPassword(root);
  standin::CurlSettings settings = standin::httpSettings(configuration).curl;
  settings.connectTimeoutSeconds = kConnectMilliseconds / 1000;
  settings.timeoutSeconds = kConnectMilliseconds / 1000 + 1;
  standin::CurlExchange exchange;
  const CURLcode result = exchange.perform(nullptr, root, nullptr, settings);
  if (result != CURLE_OK) {
    UrlParts where;
    splitUrl(root, where);
    std::string action = result == CURLE_SSL_CERTPROBLEM
                             ? unusableCertificateAction(configuration, kMasterTlsKeys)
                             : tlsAction(exchange.errorText(), configuration, kMasterTlsKeys, where.host);
    if (action.empty()) {
      action =
          "set ca_file to the CA bundle that signed the daemon's certificate, and cert_file and key_file to the "
          "host's certificate that the master's CA signed";
    }
    return failedResult(kId, kTitle, "GET " + shownRoot + ": " + exchange.errorText(), action);
  }
  return okResult(kId, kTitle,
                  "GET " + shownRoot + " answered HTTP " + std::to_string(exchange.responseCode()) +
                      " over TLS, the host's certificate presented (no backup was started)");
}

}  // namespace

CheckResult checkRequestDaemon(const Configuration& configuration, bool masterResolves) {
  if (!configuration.namesMaster()) return skippedResult(kId, kTitle, kNoMasterReason);
  std::string url;
  std::string problem;
  const std::string advice = "set ksqd_url in " + configuration.path + " to the base URL of the request daemon";
  if (!standin::ksqdRequestUrl(configuration.values, configuration.master(), 0, url, problem)) {
    return failedResult(kId, kTitle, problem, advice);
  }
  UrlParts where;
  CheckResult verdict;
  if (!serviceAddress(kId, kTitle, url, advice, configuration, masterResolves, where, verdict)) return verdict;
  const std::string address = where.host + ":" + std::to_string(where.port);
  std::string resolveError;
  const int error = connectWithin(where, resolveError);
  if (error == 0 && strncasecmp(url.c_str(), "https:", 6) == 0) return checkHandshake(configuration, url);
  if (error == 0) return okResult(kId, kTitle, address + " accepts connections (nothing was sent)");
  if (error < 0) {
    return failedResult(kId, kTitle, where.host + " does not resolve: " + resolveError,
                        "correct the host of ksqd_url, or make " + where.host + " known to DNS or /etc/hosts");
  }
  if (error == ETIMEDOUT) {
    return failedResult(kId, kTitle, address + " did not answer within 2 s",
                        "let this host reach " + address + " through the firewalls between them");
  }
  return failedResult(kId, kTitle, address + ": " + std::strerror(error),
                      "start the request daemon on the master, or set ksqd_url to where it listens");
}

}  // namespace doctor
