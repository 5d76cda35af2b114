# Functions for fresh Debian roots. To be sourced, as root.

# make_root FOLDER [PACKAGE...]: a minimal Debian 12 with these packages. It takes only the addresses of the mirror and the
# name server from this machine.
make_root() {
    local root=$1 mirror include=()
    shift
    # The mirror that this machine's apt uses. The names in brackets are apt's variables.
    # shellcheck disable=SC2016
    mirror=$(apt-get indextargets --format '$(SITE) $(RELEASE)' 'Created-By: Packages' | sed -n 's/ bookworm$//p' | head -n 1)
    if (($# > 0)); then
        include=(--include="$(IFS=,; printf '%s' "$*")")
    fi
    printf '== a fresh Debian root%s\n' "${*:+ with $*}"
    if ! debootstrap --variant=minbase "${include[@]}" bookworm "$root" "$mirror" >"$root.log" 2>&1; then
        cat "$root.log" >&2
        return 1
    fi
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    # As every installation has it; without it, "localhost" is unknown.
    printf '127.0.0.1 localhost\n::1 localhost\n' >"$root/etc/hosts"
}

# in_root FOLDER: runs standard input as a script in a root. Its processes and mounts end with it.
in_root() {
    unshare --mount --pid --fork --kill-child bash -s -- "$1" /dev/fd/3 3< <(cat) <<'END'
set -euo pipefail
mount -t proc proc "$1/proc"
mount -t tmpfs tmpfs "$1/dev/shm"
mount -t devpts -o ptmxmode=666 devpts "$1/dev/pts"
ln -sf pts/ptmx "$1/dev/ptmx"
cp "$2" "$1/tmp/script"
exec chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb LANG=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive bash -euo pipefail /tmp/script </dev/null
END
}

# boot_root FOLDER SCRIPT: boots a root with systemd in it, in a network of its own, and runs a script there. Prints what the
# script prints, and fails unless its last line is "ok".
boot_root() {
    local root=$1
    rm -f "$root/root/boot_output"
    cp "$2" "$root/root/boot_script"
    cat >"$root/etc/systemd/system/boot_script.service" <<'END'
[Unit]
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/root/boot_script
StandardOutput=file:/root/boot_output
StandardError=file:/root/boot_output
ExecStopPost=systemctl --no-block poweroff
[Install]
WantedBy=graphical.target
END
    mkdir -p "$root/etc/systemd/system/graphical.target.wants"
    ln -sf ../boot_script.service "$root/etc/systemd/system/graphical.target.wants/boot_script.service"
    timeout 300 systemd-nspawn --quiet --boot --private-network --register=no --keep-unit --directory="$root" \
        >"$root.boot" 2>&1 </dev/null || true
    cat "$root/root/boot_output" || tail -n 30 "$root.boot"
    [[ "$(tail -n 1 "$root/root/boot_output")" == ok ]]
}

# put_tree FOLDER: checks the committed tree out to /root/kav in the root.
put_tree() {
    git bundle create -q "$1/root/kav.bundle" HEAD
    in_root "$1" <<'END'
git init -q /root/kav
cd /root/kav
git fetch -q ../kav.bundle HEAD
git -c advice.detachedHead=false checkout -q FETCH_HEAD
END
}
