# install_packages PACKAGE...: installs what is missing, with sudo when not root.

install_packages() {
    local missing=() package sudo=
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q ' installed$' || missing+=("$package")
    done
    [[ ${#missing[@]} == 0 ]] && return
    [[ $EUID == 0 ]] || sudo=sudo
    echo "== installing: ${missing[*]}" >&2
    $sudo apt-get update -qq >&2
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}
