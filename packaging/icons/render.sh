#!/bin/sh
# Renders the icons of the hicolor theme from the drawing of the window's icon.
# Needs rsvg-convert and ImageMagick. The results are kept in the repository.
set -eu
cd "$(dirname "$0")"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for size in 16 22 24 32 48 64 128 256 512; do
    rsvg-convert --width="$size" --height="$size" ../../gui/images/velantrix-icon.svg \
        --output="$scratch/icon.png"
    convert "$scratch/icon.png" -strip -depth 8 -define png:exclude-chunks=date,time \
        "PNG32:velantrix-server-$size.png"
done
