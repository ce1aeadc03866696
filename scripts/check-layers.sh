#!/usr/bin/env bash
# Checks the floors of the source folders: a file of src/ may include headers of its own folder,
# of folders on lower floors and the public header (krx/krx.h), never of a higher floor. mesh and
# processing share a floor and include neither each other nor any other folder of their floor.
# Prints every offending include as "file:line: folder includes folder" and exits 1 if any.
# Usage: check-layers.sh [root]   (root holds src/; default: this script's project)
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}

# Floors from the ground up.
declare -A floor=([base]=0 [model]=1 [processing]=2 [mesh]=2 [format]=3 [inspect]=4 [host]=5)

if [ ! -d "$root/src" ]; then
  echo "check-layers: no src folder under $root"
  exit 2
fi

status=0
complain() {
  echo "$1"
  status=1
}

while IFS= read -r -d '' file; do
  relative=${file#"$root"/}
  folder=${relative#src/}
  folder=${folder%%/*}
  if [ -z "${floor[$folder]+set}" ]; then
    complain "$relative: folder $folder has no floor in scripts/check-layers.sh"
    continue
  fi
  while IFS= read -r hit; do
    line=${hit%%:*}
    target=$(sed -E 's/^[^"]*"([^"]*)".*/\1/' <<<"${hit#*:}")
    case $target in
      krx/*) continue ;;
      */*) ;;
      *)
        complain "$relative:$line: \"$target\" names no folder"
        continue
        ;;
    esac
    other=${target%%/*}
    [ "$other" = "$folder" ] && continue
    if [ -z "${floor[$other]+set}" ]; then
      complain "$relative:$line: $folder includes $target, a folder with no floor"
    elif [ "${floor[$other]}" -gt "${floor[$folder]}" ]; then
      complain "$relative:$line: $folder includes $target from a higher floor"
    elif [ "${floor[$other]}" -eq "${floor[$folder]}" ]; then
      complain "$relative:$line: $folder includes $target from its own floor"
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$file" || true)
done < <(find "$root/src" -type f \( -name '*.h' -o -name '*.cpp' \) -print0 | sort -z)

if [ "$status" -eq 0 ]; then echo "check-layers: every include runs down"; fi
exit "$status"
