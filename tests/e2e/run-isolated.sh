#!/bin/sh
# Usage: run-isolated.sh ETC_DIR LOG_DIR SCRATCH_DIR COMMAND [ARG...]
# Runs COMMAND in a private mount namespace in which /etc/orvix is ETC_DIR and /var/log/orvix is LOG_DIR, so a test
# of the real binary never touches the machine's own configuration and logs. Needs root (CI runs as root).
# Where a mount point is missing, it is made inside the namespace only, on an overlay kept in SCRATCH_DIR.
set -eu
[ $# -ge 4 ] || { echo "usage: $0 ETC_DIR LOG_DIR SCRATCH_DIR COMMAND [ARG...]" >&2; exit 2; }
exec unshare --mount --propagation private sh -eu -c '
cover() {
    source=$1 mountpoint=$2 parent=$3 scratch=$4
    if [ ! -d "$mountpoint" ]; then
        mkdir -p "$scratch/upper" "$scratch/work"
        mount -t overlay overlay -o "lowerdir=$parent,upperdir=$scratch/upper,workdir=$scratch/work" "$parent"
        mkdir -p "$mountpoint"
    fi
    mount --bind "$source" "$mountpoint"
}
cover "$1" /etc/orvix /etc "$3/etc"
cover "$2" /var/log/orvix /var/log "$3/log"
shift 3
exec "$@"
' run-isolated "$@"
