#!/bin/sh
# make_cert.sh OUTDIR [HOST]: a self-signed certificate (OUTDIR/cert.pem) and its key
# (OUTDIR/key.pem) for the test endpoints, valid for HOST (default localhost) and for the
# address 127.0.0.1. HOST is the metrics host name a test resolves to the endpoint.
set -eu
if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 OUTDIR [HOST]" >&2
    exit 2
fi
outdir=$1
host=${2:-localhost}
mkdir -p "$outdir"
# An EC key: quick to make, and every TLS stack in use accepts it.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
    -keyout "$outdir/key.pem" -out "$outdir/cert.pem" -days 3650 \
    -subj "/CN=$host" -addext "subjectAltName=DNS:$host,IP:127.0.0.1" 2>/dev/null
chmod 600 "$outdir/key.pem"
