#!/usr/bin/env bash
# The built-in example: generates a 2 M-hit camera recording, inspects it, converts it and shows what came out.
# Usage: tools/example.sh [BUILD_DIR] [OUTPUT_DIR]
set -euo pipefail
build=${1:-build/release}
out=${2:-out/example}
mkdir -p "$out"
"$build/tools/tpx3gen" -o "$out/sample.tpx3" --hits 2000000 --rate 1e7 --disorder 2e-7 --seed 1
"$build/tools/kavot" info "$out/sample.tpx3"
"$build/vundrel" -i "$out/sample.tpx3" -o "$out/sample.kavotphot" --photImgPath "$out/sample_counts.raw" -T
"$build/tools/kavot" summary "$out/sample.kavotphot"
"$build/tools/kavot" image "$out/sample_counts.raw" "$out/sample_counts.png" 4
"$build/tools/kavot" image "$out/sample_counts.raw" "$out/sample_counts.tiff"
"$build/tools/kavot" export "$out/sample.kavotphot" "$out/sample.h5"
echo "example: photon file, raw image, a PNG and a TIFF of it, and an HDF5 export are in $out/"
