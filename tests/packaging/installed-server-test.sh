#!/bin/sh
# Installs the build tree $1 into a prefix below $2 and looks at what a service needs.
set -eu
build=$1 work=$2 prefix=$2/prefix

fail() {
    echo "installed-server: $*" >&2
    exit 1
}
install_it() { DESTDIR='' cmake --install "$build" --prefix "$prefix" >/dev/null; }

rm -rf "$work"
install_it
for file in bin/GpioServer etc/default/gpio-server lib/systemd/system/gpio-server.service \
    lib/sysusers.d/gpio-board.conf lib/udev/rules.d/70-gpio-board.rules share/man/man8/GpioServer.8 \
    share/bash-completion/completions/GpioServer; do
    [ -f "$prefix/$file" ] || fail "$file is missing"
done

unit=$prefix/lib/systemd/system/gpio-server.service
grep -q "^ExecStart=.* $prefix/bin/GpioServer \$GPIO_SERVER_OPTIONS\$" "$unit" ||
    fail "the unit starts something else"
grep -qx "EnvironmentFile=-$prefix/etc/default/gpio-server" "$unit" || fail "the unit reads other options"
grep -qx 'IgnoreSIGPIPE=yes' "$unit" || fail "a client that leaves early would end the service"
if grep -q '@[A-Z]*@' "$unit"; then fail "a name was not filled in"; fi

"$prefix/bin/GpioServer" --help | grep -q '^GpioServer version: v2.0.0$' || fail "no help"

echo '# mine' >>"$prefix/etc/default/gpio-server"
install_it
grep -qx '# mine' "$prefix/etc/default/gpio-server" || fail "edited options were overwritten"
