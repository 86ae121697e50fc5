#!/bin/bash
# Installs the Debian packages that the project needs and that are missing.
#
#   packaging/install-deps.sh         what the build, the tests and the demo need
#   packaging/install-deps.sh --vm    also what the build for 32-bit ARM and the virtual machines of tests/vm need
#   packaging/install-deps.sh --ci    all that .ci/run needs: that too, clang, its tools, gcovr
#
# Runs as root or uses sudo. When nothing is missing it changes nothing and needs neither.
set -euo pipefail

packages=(
	g++ make cmake ninja-build pkg-config git
	libjson-c-dev uthash-dev libcli11-dev libssl-dev
	libmosquitto-dev mosquitto-dev mosquitto mosquitto-clients
	libgtest-dev libgmock-dev
	python3 python3-pytest python3-cryptography python3-paho-mqtt python3-can python3-scapy python3-jsonschema
)
vm_packages=(g++-arm-linux-gnueabihf qemu-user-static qemu-system-arm qemu-system-x86)
ci_packages=(clang libclang-rt-14-dev clang-format clang-tidy gcovr)

fail() {
	echo "install-deps: $*" >&2
	exit 1
}

case "${1:-}" in
'') ;;
--vm) packages+=("${vm_packages[@]}") ;;
--ci) packages+=("${vm_packages[@]}" "${ci_packages[@]}") ;;
*) fail "unknown argument \"$1\"; there are only --vm and --ci" ;;
esac

command -v dpkg-query >/dev/null ||
	fail "this is not a Debian system; install what these packages hold, by your system's names: ${packages[*]}"

missing=()
for package in "${packages[@]}"; do
	status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
	[ "$status" = installed ] || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
	exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
	command -v sudo >/dev/null ||
		fail "packages are missing and there is no sudo; as root, run: apt-get install ${missing[*]}"
	as_root=(sudo)
fi

# Debian starts a service when it installs it. A broker of its own on this machine is not what anybody asked for, so
# the policy file that the packages ask says no for that one service while they are installed.
policy=/usr/sbin/policy-rc.d
saved=$policy.before-quillet
restore_policy() {
	"${as_root[@]}" rm -f "$policy"
	if [ -e "$saved" ]; then
		"${as_root[@]}" mv "$saved" "$policy"
	fi
}
if [ -e "$policy" ] && ! grep -q before-quillet "$policy"; then
	"${as_root[@]}" mv "$policy" "$saved"
fi
trap restore_policy EXIT
"${as_root[@]}" tee "$policy" >/dev/null <<POLICY
#!/bin/sh
case "\$*" in *mosquitto*) exit 101 ;; esac
[ ! -x $saved ] || exec $saved "\$@"
exit 0
POLICY
"${as_root[@]}" chmod 755 "$policy"

echo "install-deps: installing ${missing[*]}"
apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300)
"${apt[@]}" update ||
	fail "apt-get update failed; look at the lines above, set this machine's package sources right and run this again"
"${apt[@]}" install -y --no-install-recommends "${missing[@]}" ||
	fail "apt-get install failed; look at the lines above, then run: apt-get install ${missing[*]}"
