# Folders filled from Debian's archive, for ./dev: packages of another architecture to build against, and whole
# systems of one release to build, install and test in. All of them stay in $cache and can be thrown away.
cache=${XDG_CACHE_HOME:-$HOME/.cache}/vnjs

# The archive that this machine itself gets its packages from.
archive() {
  local uri
  uri=$(apt-get indextargets --format '$(REPO_URI) $(ORIGIN) $(COMPONENT)' 'Created-By: Packages' |
    awk '$2 == "Debian" && $3 == "main" && $1 !~ /security/ { print $1; exit }')
  [[ -n $uri ]] || fail "this machine's apt names no Debian archive: apt-get update"
  echo "$uri"
}

# --- A sysroot -------------------------------------------------------------------------------------------------

# sysroot ARCHITECTURE SUITE PACKAGE...: prints the folder that has the packages and all they depend on. Asks the
# archive once a day; what has another version then is fetched anew. The machine's own packages are not touched.
sysroot() {
  local architecture=$1 suite=$2 root
  shift 2
  root=$cache/sysroot-$suite-$architecture
  local state=$root.state asked=$root.state/asked wanted
  mkdir -p "$state/lists/partial" "$state/archives/partial"
  if [[ $(cat "$asked" 2>/dev/null) != "$*" || -z $(find "$asked" -mmin -1440) ]]; then
    local uri
    uri=$(archive)
    printf 'deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s %s main\n' \
      "$uri" "$suite" "$uri" "$suite-updates" "${uri%/debian/}/debian-security/" "$suite-security" >"$state/sources"
    local options=(-q -o APT::Architecture="$architecture" -o APT::Architectures="$architecture"
      -o Dir::State="$state" -o Dir::State::status=/dev/null -o Dir::State::Lists="$state/lists"
      -o Dir::Cache="$state" -o Dir::Etc::SourceList="$state/sources" -o Dir::Etc::SourceParts=/dev/null
      -o Dir::Etc::Parts=/dev/null -o APT::Install-Recommends=false -o APT::Sandbox::User=root
      -o Debug::NoLocking=true)
    apt-get "${options[@]}" update >"$state/log" 2>&1 || echo "dev: going on with the package lists that came" >&2
    wanted=$(apt-get "${options[@]}" install -s "$@" 2>>"$state/log" | sed -n 's/^Inst //p' | sort) ||
      fail "$(tail -n 5 "$state/log")"
    if [[ $wanted != "$(cat "$root/.packages" 2>/dev/null)" ]]; then
      echo "Fetching $(wc -l <<<"$wanted") packages for $architecture" >&2
      apt-get "${options[@]}" install -y -d "$@" >>"$state/log" 2>&1 || fail "$(tail -n 5 "$state/log")"
      fill_sysroot "$root" "$state"/archives/*.deb
      echo "$wanted" >"$root/.packages"
      rm -f "$state"/archives/*.deb
    fi
    echo "$*" >"$asked"
  fi
  echo "$root"
}

# fill_sysroot FOLDER PACKAGE_FILE...
fill_sysroot() {
  local root=$1 package folder
  shift
  rm -rf --one-file-system "$root"
  for folder in bin lib sbin; do
    mkdir -p "$root/usr/$folder"
    ln -s "usr/$folder" "$root/$folder"
  done
  for package; do
    dpkg-deb --fsys-tarfile "$package" | tar -x -C "$root" --keep-directory-symlink --no-same-owner
    # Which package has which library, for packages that depend on them.
    dpkg-deb --ctrl-tarfile "$package" | tar -xO ./shlibs >>"$root/.shlibs" 2>/dev/null || true
  done
}

# --- A whole system --------------------------------------------------------------------------------------------

# fresh_root SUITE [ARCHITECTURE]: prints a folder with Debian's smallest system, as new. Takes root.
fresh_root() {
  local suite=$1 architecture=${2:-$(dpkg --print-architecture)}
  local root=$cache/root-$suite-$architecture
  [[ $EUID -eq 0 ]] || fail "a root folder can only be made by root"
  mkdir -p "$cache"
  if [[ ! -f $root.tar ]]; then
    echo "Fetching the smallest $suite for $architecture" >&2
    local from
    from=$(archive)
    rm -rf --one-file-system "$root"
    local foreign=()
    [[ $architecture == "$(dpkg --print-architecture)" ]] || foreign=(--foreign)
    debootstrap --variant=minbase --arch="$architecture" "${foreign[@]}" "$suite" "$root" "$from" >"$root.log" 2>&1 ||
      fail "$(tail -n 5 "$root.log")"
    [[ -z ${foreign[*]} ]] || in_root "$root" /debootstrap/debootstrap --second-stage >>"$root.log" 2>&1 ||
      fail "$(tail -n 5 "$root.log")"
    rm -rf --one-file-system "$root/var/cache/apt/archives"
    printf 'deb %s %s main\n' "$from" "$suite" "$from" "$suite-updates" \
      "${from%/debian/}/debian-security/" "$suite-security" >"$root/etc/apt/sources.list"
    tar -C "$root" -cf "$root.tar.new" .
    mv "$root.tar.new" "$root.tar"
  fi
  rm -rf --one-file-system "$root"
  mkdir -p "$root"
  tar -C "$root" -xpf "$root.tar"
  # What is behind this machine's own proxies and names is reached from there too.
  cp /etc/resolv.conf /etc/hosts "$root/etc/"
  if [[ -f /etc/ssl/certs/ca-certificates.crt ]]; then
    mkdir -p "$root/usr/local/share"
    cp /etc/ssl/certs/ca-certificates.crt "$root/usr/local/share/machine.crt"
  fi
  echo "$root"
}

# in_root FOLDER COMMAND...: runs the command there, as root, with what a container has of devices. The mounts are
# nobody else's and end with the command, as do the processes that it leaves behind.
in_root() {
  unshare --mount --pid --fork --kill-child --propagation private bash -euc '
    root=$1
    shift
    mount -t proc proc "$root/proc"
    mount -t tmpfs -o mode=755 tmpfs "$root/dev"
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
    mount -t tmpfs tmpfs "$root/dev/shm"
    mount -t tmpfs tmpfs "$root/tmp"
    for device in null zero full random urandom tty; do
      touch "$root/dev/$device"
      mount --bind "/dev/$device" "$root/dev/$device"
    done
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    # While the command runs, this machine starts programs for ARM in the emulator.
    if [[ $root == *-armhf ]]; then
      mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
      magic="\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00"
      mask="\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff"
      echo ":vnjs-arm:M::$magic:$mask:/usr/bin/qemu-arm-static:F" >/proc/sys/fs/binfmt_misc/register
      trap "echo -1 >/proc/sys/fs/binfmt_misc/vnjs-arm" EXIT
    fi
    chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
      DEBIAN_FRONTEND=noninteractive npm_config_cafile=/usr/local/share/machine.crt "$@"
  ' in_root "$@"
}
