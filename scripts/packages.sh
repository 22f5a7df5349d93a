# Installs Debian packages where they miss. Sourced: install_packages LIST...

install_packages() {
    local missing=() package
    while read -r package; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done < <(grep -hv '^#' "$@")
    [ ${#missing[@]} -eq 0 ] && return 0

    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            echo "these Debian packages miss and only root can install them: ${missing[*]}" >&2
            return 1
        }
        sudo=(sudo)
    fi
    echo "installing ${missing[*]}"
    "${sudo[@]}" apt-get update -qq &&
        "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
