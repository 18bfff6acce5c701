# Run by scripts/check-package inside the throw-away root (chroot on an overlay), never on a
# machine's real root: installs, removes and purges the package and checks each step.
# Argument: the package file.
set -euo pipefail

deb=$1
failures=0
fail() { echo "FAILED: $*" >&2; failures=$((failures + 1)); }
ok() { echo "ok: $*"; }
skip() { echo "SKIPPED: $*"; }
expect_file() { if [ -e "$1" ]; then ok "$1"; else fail "$1 missing"; fi; }
expect_gone() { if [ ! -e "$1" ] && [ ! -L "$1" ]; then ok "$1 gone"; else fail "$1 still there"; fi; }

units=/lib/systemd/system
wants=/etc/systemd/system/multi-user.target.wants
built=()
# Listed once into a file: grep -q on the pipe would end dpkg-deb early with a broken pipe.
dpkg-deb -c "$deb" >/tmp/contents
for program in morvanecloud-dnsproxy morvanecloud-helper; do
    if grep -q "/usr/sbin/$program\$" /tmp/contents; then
        built+=("$program")
    else
        skip "$program is not in this package (not built in this tree): its unit, manual page and checks are left out"
    fi
done

echo "== install"
dpkg -i "$deb" >/tmp/dpkg.log 2>&1 || { cat /tmp/dpkg.log; fail "dpkg -i"; exit 1; }
expect_file /usr/bin/morvanecloud
expect_file /usr/share/man/man1/morvanecloud.1.gz
expect_file /usr/lib/morvanecloud/SystemExtensions/com.tarn.lorvaxHQ.TarnDNSProxy/Info.json
expect_file /etc/xdg/autostart/morvanecloud.desktop
expect_file /usr/share/polkit-1/actions/com.lorvex.tarnHelper.policy
expect_file /usr/share/polkit-1/rules.d/50-morvanecloud-dnsproxy.rules
expect_file /usr/lib/tmpfiles.d/morvanecloud.conf
expect_file /usr/share/icons/hicolor/scalable/apps/morvanecloud.svg
for size in 16 22 24 32 48 64 128 256; do
    expect_file /usr/share/icons/hicolor/${size}x${size}/apps/morvanecloud.png
done
# The tmpfiles entry is applied by the package's postinst.
if [ "$(stat -c '%a %U' /run/morvanecloud 2>/dev/null)" = "755 root" ]; then
    ok "/run/morvanecloud 0755 root"
else
    fail "/run/morvanecloud not made 0755 root by the tmpfiles entry"
fi
for program in "${built[@]}"; do
    expect_file /usr/sbin/$program
    expect_file /usr/share/man/man8/$program.8.gz
    expect_file $units/$program.service
    # Enabled on installation.
    if [ -L $wants/$program.service ]; then ok "$program.service enabled"; else fail "$program.service not enabled"; fi
    if out=$(SYSTEMD_LOG_LEVEL=notice systemd-analyze verify $units/$program.service 2>&1); then
        ok "systemd-analyze verify $program.service"
    else
        fail "systemd-analyze verify $program.service: $out"
    fi
done

if command -v desktop-file-validate >/dev/null; then
    if desktop-file-validate /etc/xdg/autostart/morvanecloud.desktop; then ok "desktop-file-validate"; else fail "desktop-file-validate"; fi
else
    skip "desktop-file-validate (package desktop-file-utils) is not installed"
fi
grep -qx 'Exec=env -u PWD -u SUDO_COMMAND morvanecloud' /etc/xdg/autostart/morvanecloud.desktop &&
    ok "autostart runs the agent without PWD and SUDO_COMMAND" || fail "autostart Exec line"

policy=/usr/share/polkit-1/actions/com.lorvex.tarnHelper.policy
dtd=/usr/share/polkit-1/policyconfig-1.dtd
if [ -f $dtd ] && command -v xmllint >/dev/null; then
    if xmllint --noout --dtdvalid $dtd $policy; then ok "polkit actions valid against their DTD"; else fail "polkit actions DTD"; fi
    actions=$(xmllint --xpath 'count(/policyconfig/action)' $policy)
    allowed=$(xmllint --xpath 'count(/policyconfig/action[defaults/allow_any="yes" and defaults/allow_inactive="yes" and defaults/allow_active="yes"])' $policy)
    [ "$actions" = 10 ] && [ "$allowed" = 10 ] && ok "ten rights, all allowed by default" ||
        fail "polkit rights: $actions actions, $allowed allowed"
else
    skip "polkit DTD check: needs $dtd (polkitd) and xmllint (libxml2-utils)"
fi

# Something for purge to delete, as the services would leave it.
mkdir -p /var/lib/morvanecloud
echo '{}' >/var/lib/morvanecloud/dnsproxy.json

echo "== remove"
dpkg -r morvanecloud >/tmp/dpkg.log 2>&1 || { cat /tmp/dpkg.log; fail "dpkg -r"; exit 1; }
expect_gone /usr/bin/morvanecloud
expect_gone /usr/share/polkit-1/actions/com.lorvex.tarnHelper.policy
for program in "${built[@]}"; do
    expect_gone /usr/sbin/$program
    expect_gone $units/$program.service
done
expect_file /etc/xdg/autostart/morvanecloud.desktop  # a conffile stays until purge
expect_file /var/lib/morvanecloud/dnsproxy.json

echo "== purge"
dpkg -P morvanecloud >/tmp/dpkg.log 2>&1 || { cat /tmp/dpkg.log; fail "dpkg -P"; exit 1; }
expect_gone /var/lib/morvanecloud
expect_gone /etc/xdg/autostart/morvanecloud.desktop
for program in "${built[@]}"; do
    expect_gone $wants/$program.service
done
if dpkg-query -W -f='${Status}' morvanecloud 2>/dev/null | grep -q installed; then
    fail "dpkg still lists the package"
else
    ok "package gone from the database"
fi

[ $failures -eq 0 ] && echo "== package checks passed" || { echo "== $failures package checks failed" >&2; exit 1; }
