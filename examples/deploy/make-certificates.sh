#!/bin/sh
# make-certificates.sh <directory>: an authority of one's own (ca.pem, ca.key) and from it server.pem
# and client.pem, each a certificate with its key, for ten years. Whoever has ca.key can let others
# in: it belongs on neither site. Run again with the same directory, it makes what is missing only.
set -eu
umask 077
mkdir -p "$1"
cd "$1"

if [ ! -e ca.key ]; then
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3650 \
        -subj "/CN=NRPC authority" -keyout ca.key -out ca.pem 2>/dev/null
fi
for name in server client; do
    if [ ! -e "$name.pem" ]; then
        openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=nrpc-$name" \
            -keyout "$name.key" -out "$name.csr" 2>/dev/null
        printf 'subjectAltName=DNS:nrpc-%s\nextendedKeyUsage=%sAuth\n' "$name" "$name" >"$name.ext"
        openssl x509 -req -in "$name.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 3650 \
            -extfile "$name.ext" -out "$name.crt" 2>/dev/null
        cat "$name.crt" "$name.key" >"$name.pem"
        rm "$name.csr" "$name.ext" "$name.crt" "$name.key"
    fi
done
