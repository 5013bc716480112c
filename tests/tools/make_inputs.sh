#!/bin/sh
# Makes the inputs of kavot's end-to-end tests in DIR: generated recordings, their photon files, and small
# crafted recordings that break one rule each. Usage: make_inputs.sh TPX3GEN VUNDREL DIR
set -eu
tpx3gen=$1 vundrel=$2 dir=$3
rm -rf "$dir" && mkdir -p "$dir" && cd "$dir"
"$tpx3gen" -o sample.tpx3 --hits 20000 --seed 3 --tdc-rate 1e5 > /dev/null
"$vundrel" -i sample.tpx3 -o sample.kavotphot -T --photImgPath sample.raw > /dev/null
"$vundrel" -i sample.tpx3 -o notrig.kavotphot > /dev/null
# 2000 hits at 40 per second: 50 s, more than the 40 s after the first global timestamp that vundrel places.
"$tpx3gen" -o long.tpx3 --hits 2000 --rate 40 --global-interval 1 > /dev/null
# A quad detector: four chips in interleaved chunks of a few words, heartbeats per chip, one stale heartbeat each,
# a 60 Hz trigger carried by every chip, hits up to 1 ms late.
"$tpx3gen" -o quad.tpx3 --chips 4 --duration 30 --rate 4000 --heartbeat 1 --stale 1 --tdc-rate 60 --disorder 1e-3 \
    --max-chunk 8 > /dev/null
cp sample.tpx3 recording.kavotphot   # not a photon file, whatever its name
head -c 12 sample.tpx3 > incomplete.tpx3
printf 'ABCDEFGH' > noheader.tpx3
# Chunk headers: "TPX3", chip, mode, size in bytes (16-bit LE); then packets, little-endian. A pixel packet of
# type 0xB is 0xB0 in its last byte.
printf 'TPX3\000\000\020\000\000\000\000\000\000\000\000\260' > cut.tpx3                 # 16 bytes claimed, 8 there
printf 'TPX3\000\000\010\000\000\000\000\000\000\000\000\260TPX3\001\000\010\000\000\000\000\000\000\000\000\260' \
    > twochips.tpx3                                                                             # no global time
printf 'TPX3\000\000\010\000\000\000\000\000\000\000\000\260TPX3\005\000\010\000\000\000\000\000\000\000\000\260' \
    > chip5.tpx3                                                        # chips 0 and 5, which no default layout holds
