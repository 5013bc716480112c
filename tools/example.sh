#!/usr/bin/env bash
# The built-in example: generates a 2 M-hit camera recording, converts it and shows what came out.
# Usage: tools/example.sh [BUILD_DIR] [OUTPUT_DIR]
set -euo pipefail
build=${1:-build/release}
out=${2:-out/example}
mkdir -p "$out"
"$build/tools/tpx3gen" -o "$out/sample.tpx3" --hits 2000000 --rate 1e7 --disorder 2e-7 --seed 1
"$build/vundrel" -i "$out/sample.tpx3" -o "$out/sample.kavotphot" --photImgPath "$out/sample_counts.raw" -T
"$build/tools/kavotphot_info" summary "$out/sample.kavotphot"
"$build/tools/kavotphot_info" png "$out/sample_counts.raw" "$out/sample_counts.png" 4
echo "example: photon file, raw image and a PNG of it are in $out/"
