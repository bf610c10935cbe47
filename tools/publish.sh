#!/bin/sh
# Publishes a client directory as a signed release, on Linux, for teams whose key is on that machine:
#
#   tools/publish.sh CLIENT_DIR RELEASE_DIR --release ID --sequence N --key PRIVATE.pem
#     [--public-key PUBLIC.pem] [--old RELEASE_DIR]... [--old-key PUBLIC.pem]... [--client-key PUBLIC.pem]...
#     [--allow-development] [--allow-warnings] [--client-key-elsewhere]
#
# makes RELEASE_DIR, which must not exist yet, with manifest.txt, manifest.sig and the described files in
# files/. The public key is taken from the private one unless it is given. With --old, players with that release
# must be able to install this one; --old-key names a key that signed some of them, and --client-key one that the
# client has to hold besides. Needs TalvexPublish.exe (beside this script, in build/mingw-release, or in the folder
# that TALVEX_BUILD names), Wine and openssl, and room for two copies of the client below TMPDIR (/tmp). Windows
# programs run in the Wine of the environment, or, in a checkout, in that of tools/wine.sh when TALVEX_WINE_FOLDER
# names its folder.
set -eu
unset CDPATH  # cd would print where it has gone, into the paths below
export LC_ALL=C.UTF-8  # in a locale without UTF-8, Wine cannot find folders with names beyond ASCII

here=$(cd -- "$(dirname -- "$0")" && pwd)
root=$(dirname -- "$here")
build=$root/build/mingw-release
[ ! -e "$here/TalvexPublish.exe" ] || build=$here
build=$(realpath -m -- "${TALVEX_BUILD:-$build}")
wine_folder=${TALVEX_WINE_FOLDER:+$(realpath -m -- "$TALVEX_WINE_FOLDER")}

# Names come from the client directory, and must not steer the terminal.
say() {
  printf '%s\n' "$*" | cat -v
}

fail() {
  say "publish: $*" >&2
  exit 1
}

usage() {
  sed -n '2,/^set/s/^# \{0,1\}//p' "$0" >&2
  exit 2
}

# Runs in the private folder, so that the names of files in it need no quoting.
publisher() (
  cd -- "$private"
  if [ -n "$wine_folder" ]; then
    "$root/tools/wine.sh" "$wine_folder" run "$build/TalvexPublish.exe" "$@"
  else
    wine "$build/TalvexPublish.exe" "$@"
  fi
)

[ $# -ge 2 ] || usage
# Nobody else can reach this folder: a manifest that is exchanged before it is signed would be a release of
# somebody else's, with our signature.
private=$(mktemp -d)
landing=
clean_up() {
  rm -rf -- "$private" ${landing:+"$landing"}
}
trap clean_up EXIT
trap 'exit 1' INT TERM HUP

client=$1
release=$2
shift 2
release_id=
sequence=
key=
public_key=
development=
allowed=
client_keys=0
client_key_options=
left=$#
while [ "$left" -gt 0 ]; do
  case $1 in
    --allow-development) development=$1 ;;
    --allow-warnings | --client-key-elsewhere) allowed="$allowed $1" ;;
    *)
      [ "$left" -ge 2 ] || usage
      case $1 in
        --release) release_id=$2 ;;
        --sequence) sequence=$2 ;;
        --key) key=$2 ;;
        --public-key) public_key=$2 ;;
        # In the end, "$@" holds what compare is told about the older releases, and nothing else. Assignments
        # of their own, because a failure within another command would go unnoticed.
        --old)
          old=$(realpath -e -- "$2")
          set -- "$@" "Z:$old"
          ;;
        --old-key)
          old=$(realpath -e -- "$2")
          set -- "$@" --old-key "Z:$old"
          ;;
        --client-key)
          client_keys=$((client_keys + 1))
          cp -- "$2" "$private/client-key-$client_keys.pem"
          client_key_options="$client_key_options --client-key client-key-$client_keys.pem"
          ;;
        *) usage ;;
      esac
      shift
      left=$((left - 1))
      ;;
  esac
  shift
  left=$((left - 1))
done
if [ -z "$release_id" ] || [ -z "$sequence" ] || [ -z "$key" ]; then
  usage
fi

[ -e "$build/TalvexPublish.exe" ] || fail "there is no $build/TalvexPublish.exe: build first"
[ -d "$client" ] || fail "$client is not a directory"
if [ -e "$release" ] || [ -L "$release" ]; then
  fail "$release exists already; a release is never written over"
fi
client=$(realpath -- "$client")
release=$(realpath -m -- "$release")
case $release in
  "$client"/*) fail "$release lies inside the client directory; choose another place" ;;
esac
mkdir -p -- "$(dirname -- "$release")"

umask 077
if [ -n "$public_key" ]; then
  cp -- "$public_key" "$private/public.pem"
else
  openssl pkey -in "$key" -pubout -out "$private/public.pem"
fi

# Windows programs see a link as the file that it points to, and would publish that file. The copy keeps links,
# and nobody can put one there after this look.
cp -RP -- "$client" "$private/client"
links=$(cd "$private/client" && find . -type l)
[ -z "$links" ] || fail "a release cannot hold symbolic links:
$links"

# Order: everything is checked before the key signs. What is checked, described and signed is the copy in the
# private folder, whatever happens to the client directory meanwhile.
# shellcheck disable=SC2086 # the options are meant to be split
publisher release client --out release --name "$release_id" --sequence "$sequence" --key public.pem \
  $client_key_options $development $allowed
if [ $# != 0 ]; then
  # shellcheck disable=SC2086
  publisher compare release "$@" --unsigned --key public.pem $allowed
fi
openssl dgst -sha256 -sign "$key" -out "$private/manifest.sig" "$private/release/manifest.txt"
# shellcheck disable=SC2086
publisher finish release --signature manifest.sig --key public.pem $client_key_options $development $allowed

# Whole, or not at all: the move within the target's own file system is one step.
chmod -R u=rwX,go=rX "$private/release"
landing=$(mktemp -d "$release.XXXXXX")
mv -T -- "$private/release" "$landing/release"
mv -T -- "$landing/release" "$release"
rmdir -- "$landing"
landing=
say "Published $release"
