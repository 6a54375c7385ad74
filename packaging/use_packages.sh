#!/bin/sh
# Run in a clean system with our packages in its /packages: installs them, runs an automation, and builds the host that
# knows nothing of our sources, by pkg-config and by CMake.
set -eu
cd /packages
apt-get -q update >/dev/null 2>&1 || true
apt-get -q install -y --no-install-recommends ./*.deb g++ cmake make pkgconf >apt.log 2>&1 || {
  tail -n 20 apt.log
  exit 1
}
vnjs --version
vnjs run thermostat.js 2>&1 | tail -n 1
g++ -std=c++17 host/main.cc host/host_functions.cc -o by_pkgconf $(pkgconf --cflags --libs vnjs)
cmake -S host -B cmake >cmake.log 2>&1 && cmake --build cmake >>cmake.log 2>&1 || {
  tail -n 20 cmake.log
  exit 1
}
./by_pkgconf 2>&1
cmake/main 2>&1
cmake/extension 2>&1
apt-get -q purge -y libvnjs1 vnjs libvnjs-dev >apt.log 2>&1
[ -z "$(find /usr -name '*vnjs*')" ] || find /usr -name '*vnjs*'
