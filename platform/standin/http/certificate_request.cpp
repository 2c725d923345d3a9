#include "platform/standin/http/certificate_request.h"

#include <openssl/ssl.h>

namespace standin {
namespace {

// Per thread: a request's handshakes run in the thread that performs it, and
// a connection made for one request may serve the next, so nothing that
// outlives the request may point at it.
thread_local bool t_requested = false;

// OpenSSL calls this when a server asks for a certificate the client has not
// set; none is given.
int noteRequest(SSL* /*ssl*/, X509** /*certificate*/, EVP_PKEY** /*key*/) {
  t_requested = true;
  return 0;
}

// libcurl calls this with each new connection's OpenSSL context.
CURLcode watchContext(CURL* /*easy*/, void* context, void* /*data*/) {
  SSL_CTX_set_client_cert_cb(static_cast<SSL_CTX*>(context), &noteRequest);
  return CURLE_OK;
}

}  // namespace

void watchCertificateRequests(CURL* easy, bool watch) {
  t_requested = false;
  curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, watch ? &watchContext : nullptr);
}

bool certificateRequested() { return t_requested; }

}  // namespace standin
