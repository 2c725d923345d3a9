// Whether a server asked for a client certificate that the request had none
// of: the sign that a TLS connection the server then ended was refused for
// want of one, rather than closed while idle.
#ifndef KSCDP_PLATFORM_STANDIN_HTTP_CERTIFICATE_REQUEST_H_
#define KSCDP_PLATFORM_STANDIN_HTTP_CERTIFICATE_REQUEST_H_

#include <curl/curl.h>

namespace standin {

// Watches the TLS handshakes of `easy`'s next transfer in this thread (see
// performTransfer(), which drives it in the calling thread) for a server's
// certificate request, forgetting any earlier one; `watch` false stops
// watching (a request that presents a certificate). OpenSSL reports a
// certificate request only when the client has no certificate.
// A libcurl built on another TLS library than OpenSSL sees no requests.
void watchCertificateRequests(CURL* easy, bool watch);
// Whether a server asked this thread's request, since the last
// watchCertificateRequests(), for a client certificate.
bool certificateRequested();

}  // namespace standin

#endif  // KSCDP_PLATFORM_STANDIN_HTTP_CERTIFICATE_REQUEST_H_
