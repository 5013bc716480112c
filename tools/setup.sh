#!/usr/bin/env bash
# Installs what building, testing and benchmarking need on Debian 12 (as root); only what is missing, so a
# machine that has everything needs no network. HDF5, TIFF and numpy/h5py/pytest serve kavot and the Python
# package, python3-dev and pybind11-dev its compiled engine, matplotlib its quick look and tqdm its progress bar;
# slurm-wlm and munge let the batch script be tested on a one-node cluster started on this machine.
set -euo pipefail
packages=(g++ cmake make libgtest-dev libgmock-dev libbenchmark-dev rapidjson-dev libcli11-dev libpng-dev clang-format time
    clang-19 libclang-rt-19-dev libhdf5-dev libtiff-dev python3-numpy python3-h5py python3-pytest python3-dev
    pybind11-dev python3-matplotlib python3-tqdm slurm-wlm munge)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
