#!/usr/bin/env bash
# Makes, in DIR, the certificates of a TLS run on loopback with openssl:
#   ca.pem, other-ca.pem             two CAs (keys beside them)
#   master.pem, broker.pem, client.pem  signed by ca, for 127.0.0.1 and localhost
#   stranger.pem                     signed by other-ca
#   expiring.pem, expired.pem        signed by ca, for 10 days and gone yesterday
# each with its key (NAME.key, mode 0600); the others valid for 400 days.
#
#   scripts/make-certs.sh DIR
set -euo pipefail

dir=${1:?usage: make-certs.sh DIR}
mkdir -p "$dir"
cd "$dir"
umask 077
printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\n' >san
for name in ca other-ca; do
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "$name.key" -out "$name.pem" -days 400 -subj "/CN=$name" 2>/dev/null
done
sign() {  # NAME CA DAYS
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "$1.key" -out "$1.csr" -subj "/CN=$1" 2>/dev/null
  openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -out "$1.pem" -days "$3" \
    -extfile san 2>/dev/null
  rm -f "$1.csr"
}
for name in master broker client; do sign "$name" ca 400; done
sign stranger other-ca 400
sign expiring ca 10
sign expired ca -1
chmod 644 ./*.pem
