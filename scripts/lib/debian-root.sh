# shellcheck shell=bash
# Debian 12 roots in which packages are built and tried. Sourced by scripts in scripts/ from the
# top of the checkout; isolate comes first, then prepare_root and use_root.
#
# Finished roots are a cache below build/roots (or GPIO_SERVER_ROOTS) that a week or a change of
# what goes into them ends.

roots=${GPIO_SERVER_ROOTS:-$PWD/build/roots}
native=$(dpkg --print-architecture)
readonly ARCHITECTURES='amd64 arm64 armhf'

# isolate SCRIPT [ARGUMENT...]: runs it again as root where its mounts and processes end with it.
isolate() {
    if [[ -z ${CCACHE_DIR-} ]] && command -v ccache >/dev/null; then
        CCACHE_DIR=$(ccache --get-config cache_dir)
        export CCACHE_DIR
    fi
    if ((EUID != 0)); then
        exec sudo --preserve-env=CCACHE_DIR,GPIO_SERVER_ROOTS "$@"
    fi
    if [[ -z ${GPIO_SERVER_ISOLATED-} ]]; then
        export GPIO_SERVER_ISOLATED=1
        exec unshare --mount --pid --fork --kill-child "$@"
    fi
    unset GPIO_SERVER_ISOLATED
    mount --make-rprivate /
    mkdir -p "$roots/archives"
}

known_architecture() { [[ " $ARCHITECTURES " == *" $1 "* ]]; }

# take_architecture [--arch NAME | --help]: sets $arch from the options of a script, which has usage.
take_architecture() {
    arch=$native
    case ${1-} in
        '') ;;
        --arch)
            arch=${2-}
            shift
            ;;
        --help)
            usage
            exit 0
            ;;
        *) arch= ;;
    esac
    if (($# > 1)) || ! known_architecture "$arch"; then
        usage >&2
        exit 2
    fi
}

# Lets the kernel start programs of an architecture through an emulator. The registration is the
# machine's and outlives the script, like that which the emulator's package makes at boot.
emulate() {
    local cpu directory=/proc/sys/fs/binfmt_misc
    case $1 in
        "$native") return ;;
        arm64) cpu=aarch64 ;;
        armhf) cpu=arm ;;
    esac
    [[ -e $directory/register ]] || mount -t binfmt_misc binfmt_misc "$directory"
    [[ -e $directory/qemu-$cpu ]] ||
        cat "/usr/lib/binfmt.d/qemu-$cpu.conf" >"$directory/register"
}

# The root takes its packages from where this machine takes its own.
sources() {
    # shellcheck disable=SC2016 # apt fills these in
    apt-get indextargets --format 'deb $(REPO_URI) $(CODENAME) main' \
        'Identifier: Packages' 'Origin: Debian' 'Component: main' 'Codename: bookworm*' | sort -u
}

mount_root() {
    mount -t proc proc "$root/proc"
    mount -t sysfs -o ro sysfs "$root/sys"
    # Not this machine's own devices: udev is going to leave links among them.
    mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
    mkdir -p "$root/dev/shm"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    mount --bind "$roots/archives" "$root/var/cache/apt/archives"
}
unmount_root() { umount "$root"/{proc,sys,dev/pts,dev/shm,var/cache/apt/archives}; }

inside() {
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}
inside_quietly() {
    inside "$@" >"$root/log" 2>&1 || { tail -n 100 "$root/log" >&2; exit 1; }
}
install_inside() { inside_quietly apt-get -qq install -y --no-install-recommends "$@"; }

# Fills the empty $root with a minimal Debian of an architecture.
bootstrap() {
    local arch=$1 mirror foreign=() list
    list=$(sources)
    mirror=$(awk '$3 == "bookworm" {print $2; exit}' <<<"$list")
    [[ $arch == "$native" ]] || foreign=(--foreign)
    debootstrap --variant=minbase --arch="$arch" --cache-dir="$roots/archives" "${foreign[@]}" \
        bookworm "$root" ${mirror:+"$mirror"} >"$root.log" 2>&1 ||
        { tail "$root.log" >&2; exit 1; }
    rm -f "$root.log"
    [[ $arch == "$native" ]] || inside_quietly /debootstrap/debootstrap --second-stage
    [[ -z $list ]] || printf '%s\n' "$list" >"$root/etc/apt/sources.list"
    apt-config dump | grep '^Acquire::' >"$root/etc/apt/apt.conf.d/00host"
    # Nothing in a root has to survive a loss of power.
    echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
    cp -L /etc/resolv.conf "$root/etc/"
}

# Whether $root is there, made by the recipe KEY, and not too old.
is_fresh() {
    [[ -e $root.key && $(<"$root.key") == "$1" && -z $(find "$root.key" -mtime +7) ]]
}

# prepare_root NAME PARENT FILL [ARGUMENT...]: makes the root unless the cache has it. FILL is a
# function that fills $root, which is a copy of the root PARENT, or empty when that is "".
prepare_root() {
    local name=$1 parent=$2 key
    shift 2
    root=$roots/$name
    key=$(sources; echo "$*"; declare -f bootstrap "$1"
        [[ -z $parent ]] || cat packaging/debian/control
        [[ -z $parent ]] || cat "$roots/$parent.key")
    [[ -v lock ]] || exec {lock}>"$roots/lock"
    flock --shared "$lock"
    if ! is_fresh "$key"; then
        flock "$lock"
    fi
    if ! is_fresh "$key"; then
        echo "Making the root $name in $roots ..." >&2
        rm -rf --one-file-system "$root" "$root.key"
        if [[ -n $parent ]]; then
            cp -a "$roots/$parent" "$root"
            mount_root
        else
            mkdir "$root"
        fi
        "$@"
        unmount_root
        printf '%s\n' "$key" >"$root.key"
    fi
    # Nobody makes roots anew as long as this script uses them.
    flock --shared "$lock"
}

# use_root NAME: makes $root a copy of the root that ends with the script.
use_root() {
    local layers
    layers=$(mktemp -d)
    mount -t tmpfs tmpfs "$layers"
    mkdir "$layers"/{upper,work,root}
    mount -t overlay overlay "$layers/root" \
        -o "lowerdir=$roots/$1,upperdir=$layers/upper,workdir=$layers/work"
    root=$layers/root
    mount_root
    # shellcheck disable=SC2064 # the name is gone when the trap runs
    trap "umount -R '$layers'; rmdir '$layers'" EXIT
}

fill_native() {
    bootstrap "$native"
    mount_root
    inside_quietly apt-get -qq update
    install_inside build-essential ccache
}

# What the package is built from, for an architecture.
fill_build() {
    local arch=$1
    if [[ $arch != "$native" ]]; then
        inside_quietly dpkg --add-architecture "$arch"
        inside_quietly apt-get -qq update
        install_inside "crossbuild-essential-$arch" "libc-dev:$arch" "libstdc++-12-dev:$arch"
    fi
    mkdir -p "$root/root/source"
    cp -r packaging/debian "$root/root/source/"
    inside_quietly apt-get -qq build-dep -y --no-install-recommends \
        --host-architecture "$arch" /root/source
}

# What the tests need besides.
fill_tests() {
    local arch=$1 package packages=()
    for package in $(scripts/install-dependencies --list tests); do
        case $package in
            lib*-dev) packages+=("$package:$arch") ;;
            *) packages+=("$package") ;;
        esac
    done
    install_inside "${packages[@]}"
}

prepare_build_root() {
    prepare_root native '' fill_native
    prepare_root "build-$1" native fill_build "$1"
}

prepare_tests_root() {
    prepare_build_root "$1"
    prepare_root "tests-$1" "build-$1" fill_tests "$1"
}

# Runs a command in the checkout, inside the root, as the owner of the checkout.
in_checkout() {
    local mounts=("$PWD") directory
    [[ -z ${CCACHE_DIR-} ]] || mounts+=("$CCACHE_DIR")
    for directory in "${mounts[@]}"; do
        mkdir -p "$root$directory"
        mountpoint -q "$root$directory" || mount --bind "$directory" "$root$directory"
    done
    # shellcheck disable=SC2016 # expanded inside
    chroot --userspec="$(stat -c %u:%g .)" "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        HOME=/tmp LC_ALL=C.UTF-8 CMAKE_CXX_COMPILER_LAUNCHER=ccache \
        ${CCACHE_DIR:+"CCACHE_DIR=$CCACHE_DIR"} \
        bash -c 'cd "$1" && shift && exec "$@"' - "$PWD" "$@"
}
