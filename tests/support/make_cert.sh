#!/bin/sh
# make_cert.sh OUTDIR [HOST]: a self-signed certificate (OUTDIR/cert.pem) and its key
# (OUTDIR/key.pem) for the test endpoints, valid for HOST (default localhost: the metrics host
# name a test resolves to the endpoint) and for the address 127.0.0.1.
set -eu
[ $# -ge 1 ] && [ $# -le 2 ] || { echo "usage: $0 OUTDIR [HOST]" >&2; exit 2; }
mkdir -p "$1"
# An EC key: quick to make, and every TLS stack in use accepts it.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "$1/key.pem" \
    -out "$1/cert.pem" -days 3650 -subj "/CN=${2:-localhost}" \
    -addext "subjectAltName=DNS:${2:-localhost},IP:127.0.0.1" 2>/dev/null
chmod 600 "$1/key.pem"
