#include "platform/standin/mqtt/early_close.h"

#include <linux/tcp.h>  // glibc's struct tcp_info lacks tcpi_bytes_acked
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace standin {
namespace {

// The socket's pending error, taken from it; 0 when none.
int takePendingError(int socket) {
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
  return error;
}

// Whether the peer ever acknowledged the connection request: the kernel
// counts the SYN among the bytes acknowledged.
bool peerAcknowledgedConnect(int socket) {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return true;  // not TCP: no such test
  return info.tcpi_bytes_acked > 0;
}

}  // namespace

bool connectionEndedEarly(struct mosquitto* client, EarlyEnd& end) {
  const int socket = mosquitto_socket(client);
  if (socket < 0) return false;
  pollfd watched = {socket, 0, 0};  // POLLHUP and POLLERR are always reported
  if (poll(&watched, 1, 0) <= 0 || (watched.revents & (POLLHUP | POLLERR)) == 0) return false;
  // What the broker sent before it closed (a TLS alert: a certificate
  // refused, a handshake failure) is libmosquitto's to read first: its
  // failure then says why.
  int unread = 0;
  if (ioctl(socket, FIONREAD, &unread) == 0 && unread > 0) return false;
  // Taken whatever follows, so that no later call on the socket reports it.
  const int pending = takePendingError(socket);
  if (peerAcknowledgedConnect(socket)) {
    // With a reset or a clean end, as it happens: the same refusal.
    end.error = 0;
    end.text = "the broker closed the connection before accepting it";
  } else {
    end.error = pending != 0 ? pending : ECONNREFUSED;
    end.text = std::strerror(end.error);
  }
  return true;
}

}  // namespace standin
