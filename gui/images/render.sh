#!/bin/sh
# Renders the two pictures of the resource collection from their drawings.
# Needs rsvg-convert, ImageMagick and the font DejaVu Sans. The results are kept in the repository.
set -eu
cd "$(dirname "$0")"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

rsvg-convert --width=64 --height=64 velantrix-icon.svg --output="$scratch/icon.png"
rsvg-convert --width=160 --height=120 velantrix-logo.svg --output="$scratch/logo.png"

# 8-bit RGBA, and 32 bits per pixel with an alpha mask; no dates, so that equal drawings give
# equal files.
convert "$scratch/icon.png" -strip -depth 8 -define png:exclude-chunks=date,time \
    PNG32:vx-icon-sm.png
convert "$scratch/logo.png" -strip -depth 8 -define bmp:format=bmp4 BMP:win_bitmap.bmp
