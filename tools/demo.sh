#!/usr/bin/env bash
# A virtual camera takes a snap and a video of the sky. demo.sh BUILD_FOLDER
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$(realpath "$1")/tools
mkdir -p out
# The demonstration neither reads nor changes the settings of the user's own cameras.
XDG_CONFIG_HOME=$(mktemp -d)
export XDG_CONFIG_HOME
trap 'rm -rf "$XDG_CONFIG_HOME"' EXIT
camera=(--camera QuartzCol --scene sky)

printf '\033[1m==> the camera\033[0m\n'
"$bin/kovsim" run "${camera[@]}" -- kovcam info
printf '\033[1m==> a picture of 4 seconds\033[0m\n'
"$bin/kovsim" run "${camera[@]}" -- kovcam snap -e 4s -g 100 -o out/demo-snap
printf '\033[1m==> a video of 100 frames\033[0m\n'
"$bin/kovsim" run "${camera[@]}" -- kovcam video -n 100 -e 30ms -g 300 -o out/demo-video

here=$(realpath --relative-to="$PWD" "$bin")
cat <<TXT

The files:
  $PWD/out/demo-snap.fits    16 bits, with the keywords of astronomers' programs
  $PWD/out/demo-snap.png     the same, stretched for the eye
  $PWD/out/demo-video.ser    the video, with a time stamp a frame
  $PWD/out/demo-video.png    its last frame

Try next:
  $here/kovsim run --camera MarbleMono_C --rate 20 -- kovcam cool --to -10 --until-stable --plot out/cool.png
  $here/kovsim run --camera LapisMono --scene sky:83.8,-5.4 -- kovcam snap -e 2s -o out/orion
  $here/kovsim models
With a real camera leave out everything up to the two dashes: $here/kovcam list
TXT
