#!/usr/bin/env bash
# Checks that a built libkelocam_aov_plat.so exports its interface and defines
# nothing of the host platform. Usage: check-exports.sh LIB [nm-tool]
set -euo pipefail
lib=$1
nm_tool=${2:-nm}

defined=$("$nm_tool" -DC --defined-only "$lib")
for symbol in 'IAOVSensor::getInstance()' 'IAOVDevice::getInstance()' 'typeinfo for EventObserver'; do
  if ! grep -qF "$symbol" <<<"$defined"; then
    echo "missing export: $symbol" >&2
    exit 1
  fi
done
# Host platform pieces live in their own library, never in this one.
if grep -E 'aovhost::|SystemCall::|property_get_int32|log_dbg_print|IHalSensorList::get|ULogger::s' <<<"$defined"; then
  echo "host platform symbols defined in $lib" >&2
  exit 1
fi
# Implementation classes stay hidden.
if grep -E '\b(AOVSensor|AOVDevice|DevControl)::' <<<"$defined"; then
  echo "implementation symbols exported from $lib" >&2
  exit 1
fi
echo "exports of $lib: ok ($(wc -l <<<"$defined") defined dynamic symbols)"
