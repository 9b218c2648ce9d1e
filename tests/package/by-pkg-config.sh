#!/bin/bash
# by-pkg-config.sh PREFIX PKGCONFIG-DIRECTORY C++-COMPILER C-COMPILER [SANITIZE-FLAG]
#
# Builds the consumers with nothing but what pkg-config says about the copy installed in PREFIX, and runs them.

set -eu
prefix=$1 cxx=$3 cc=$4 sanitize=${5:-}
consumer=$(cd "$(dirname "${BASH_SOURCE[0]}")/consumer" && pwd)
export PKG_CONFIG_PATH=$2

read -ra compile < <(pkg-config --cflags tavronet)
read -ra link < <(pkg-config --libs tavronet)
link+=("-Wl,-rpath,$(pkg-config --variable=libdir tavronet)")

built=$prefix/../by-pkg-config
mkdir -p "$built"
"$cxx" -std=c++20 $sanitize "${compile[@]}" "$consumer/consumer.cpp" -o "$built/consumer_cpp" "${link[@]}"
"$cc" -std=c99 -pedantic-errors $sanitize "${compile[@]}" "$consumer/consumer.c" -o "$built/consumer_c" "${link[@]}"
"$built/consumer_cpp"
"$built/consumer_c"

if pkg-config --exists tavronet-openssl; then
    read -ra compile < <(pkg-config --cflags tavronet-openssl)
    read -ra link < <(pkg-config --libs tavronet-openssl)
    link+=("-Wl,-rpath,$(pkg-config --variable=libdir tavronet-openssl)")
    "$cxx" -std=c++20 $sanitize "${compile[@]}" "$consumer/consumer_openssl.cpp" -o "$built/consumer_openssl" "${link[@]}"
    "$built/consumer_openssl"
fi
