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
# A quad detector recording of 20 s (four chips, heartbeats every second, a stale one each, a 60 Hz trigger
# on every chip, hits up to 1 ms late), converted with continuous time and the chips in place.
"$build/tools/tpx3gen" -o "$out/quad.tpx3" --chips 4 --duration 20 --rate 200000 --heartbeat 1 --stale 1 \
    --tdc-rate 60 --disorder 1e-3 --max-chunk 8 --seed 1
"$build/tools/kavot" convert "$out/quad.tpx3" "$out/quad.h5" --image "$out/quad_counts.tiff"
"$build/tools/kavot" convert "$out/quad.tpx3" "$out/quad.kavotphot"
"$build/tools/kavot" image "$out/quad.kavotphot" "$out/quad_counts.png" 4
# The quad's conversion on one page: image, time of flight, rate and cluster sizes (Debian's python3 has matplotlib).
PYTHONPATH="$build/python" /usr/bin/python3 -m kavot.quicklook "$out/quad.h5" "$out/quad_quicklook.png"
echo "example: photon file, raw image, a PNG and a TIFF of it, and an HDF5 export are in $out/; the quad's"
echo "conversion (quad.h5, quad.kavotphot, quad_counts.tiff, quad_counts.png, quad_quicklook.png) too"
