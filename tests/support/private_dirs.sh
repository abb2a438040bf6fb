#!/usr/bin/env bash
# private_dirs.sh WORK DIR...: gives each DIR a private, empty tmpfs in the caller's mount
# namespace (never run it outside one). A directory this machine lacks is made in an overlay
# (its layers under WORK) of its nearest existing ancestor, so nothing is created on the real
# file system; mounts below that ancestor (dnsenv.sh's /etc/hosts, say) are carried over.
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: private_dirs.sh WORK DIR..." >&2; exit 2; }
work=$1
shift
mkdir -p "$work"

overlay() {
    local parent=$1 layer mounts=() i m
    layer=$(mktemp -d "$work/overlay.XXXXXX")
    mkdir "$layer/upper" "$layer/work" "$layer/hold"
    # Mount points strictly inside parent, shallowest first (mountinfo lists parents first).
    while read -r m; do
        [[ $m == "$parent"/* ]] && mounts+=("$m")
    done < <(awk '{ print $5 }' /proc/self/mountinfo)
    for i in "${!mounts[@]}"; do
        if [ -d "${mounts[$i]}" ]; then mkdir "$layer/hold/$i"; else touch "$layer/hold/$i"; fi
        mount --bind "${mounts[$i]}" "$layer/hold/$i"
    done
    mount -t overlay private-dirs \
        -o "lowerdir=$parent,upperdir=$layer/upper,workdir=$layer/work" "$parent"
    for i in "${!mounts[@]}"; do
        mount --bind "$layer/hold/$i" "${mounts[$i]}"
        umount -l "$layer/hold/$i"
    done
}

for dir in "$@"; do
    dir=${dir%/}
    if [ ! -d "$dir" ]; then
        parent=$(dirname "$dir")
        while [ ! -d "$parent" ]; do parent=$(dirname "$parent"); done
        [ "$parent" != / ] || { echo "private_dirs.sh: will not overlay / for $dir" >&2; exit 1; }
        overlay "$parent"
        mkdir -p "$dir"
    fi
    mount -t tmpfs -o mode=755 private-dir "$dir"
done
