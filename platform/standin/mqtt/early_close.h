// A connection that ended before the broker answered CONNECT, as the kernel
// saw it: the cause libmosquitto loses while a TLS handshake is under way.
#ifndef KSCDP_PLATFORM_STANDIN_MQTT_EARLY_CLOSE_H_
#define KSCDP_PLATFORM_STANDIN_MQTT_EARLY_CLOSE_H_

#include <string>

struct mosquitto;

namespace standin {

// libmosquitto (before 2.0.22) takes a write that fails during the TLS
// handshake for one to retry: a refused connection then keeps its loop
// busy, reporting success, until the caller gives up. Call this after a
// loop step that succeeded while the broker has not yet answered CONNECT.
// True when `client`'s socket is closed or in error and holds nothing
// unread, with why in `end`. False, `end` untouched, while the connection
// stands, while the broker's last words wait to be read (a loop step reads
// them and fails with their reason), or when the client has no socket.
// Never blocks; the thread that runs `client`'s loop.
struct EarlyEnd {
  // 0 when the broker had acknowledged the connection request and closed
  // the connection (reset or ended it) before accepting it. Otherwise why
  // the connection was never made: the socket's pending error, else
  // ECONNREFUSED (a failed write took the error).
  int error = 0;
  std::string text;  // what happened, to go inside a sentence
};
bool connectionEndedEarly(struct mosquitto* client, EarlyEnd& end);

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_MQTT_EARLY_CLOSE_H_
