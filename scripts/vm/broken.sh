#!/bin/sh
# Runs the basic scenarios once per deliberately broken camera and checks that
# each fault fails the scenario it belongs to, for its own reason. A camera
# with another serial on its video function is not found at all, so every
# scenario fails with it: there the reason must be the camera-not-found one.
# The other faults must fail exactly their scenario. Exit 0 when every fault
# was caught so.
SUITE="tq_vm_scenarios --gtest_color=no --rig usbcam --usbcam /vm/bin/tq-uvc-usbcam --config /vm/cameras.conf --xml /vm/EmuCamera.xml"
FILTER='VmScenario.ScanAndIdentity:VmScenario.RegistersAndMemory:VmScenario.XmlDownloadAndManifest:VmScenario.StreamingPixelsAndLockTable'
rc=0

# check FAULT SCENARIO only|any [TEXT]...: `only`: exactly SCENARIO fails;
# `any`: SCENARIO is among the failed ones. Each TEXT must be in the output.
check() {
  fault=$1
  want=$2
  how=$3
  shift 3
  echo "=== broken camera: $fault (expected to fail: $want)"
  $SUITE --fault "$fault" --gtest_filter="$FILTER" >/tmp/broken.out 2>&1
  cat /tmp/broken.out
  failed=$(sed -n 's/^\[  FAILED  \] VmScenario\.\([A-Za-z]*\) (.*/\1/p' /tmp/broken.out | tr '\n' ' ')
  failed=${failed% }
  case " $failed " in *" $want "*) hit=1 ;; *) hit=0 ;; esac
  [ "$how" = any ] || [ "$failed" = "$want" ] || hit=0
  missing=""
  for text in "$@"; do
    grep -qF -- "$text" /tmp/broken.out || missing="$missing '$text'"
  done
  [ -z "$missing" ] || hit=0
  if [ "$hit" -eq 1 ]; then
    echo "BROKEN-CHECK caught: $fault -> $want failed"
  else
    echo "BROKEN-CHECK missed: $fault: wanted '$want' to fail ($how), failed: '${failed:-none}'${missing:+; the output lacks$missing}"
    rc=1
  fi
}

check video-serial=VM-CAM-WRONG ScanAndIdentity any \
  "the nearest serial of the walk is not the camera's" "cameras found: none"
check short-feature XmlDownloadAndManifest only
check corrupt-frame StreamingPixelsAndLockTable only
exit $rc
