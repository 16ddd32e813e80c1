#!/bin/sh
# Runs the basic scenarios once per deliberately broken camera and checks that
# each fault shows as the failing scenario it belongs to (and no other). Exit 0
# when every fault was caught as expected.
SUITE="tq_vm_scenarios --gtest_color=no --rig usbcam --usbcam /vm/bin/tq-uvc-usbcam --config /vm/cameras.conf --xml /vm/EmuCamera.xml"
FILTER='VmScenario.ScanAndIdentity:VmScenario.RegistersAndMemory:VmScenario.XmlDownloadAndManifest:VmScenario.StreamingPixelsAndLockTable'
rc=0
for item in video-serial=VM-CAM-WRONG:ScanAndIdentity short-feature:XmlDownloadAndManifest \
  corrupt-frame:StreamingPixelsAndLockTable; do
  fault=${item%%:*}
  want=${item#*:}
  echo "=== broken camera: $fault (expected to fail: $want)"
  $SUITE --fault "$fault" --gtest_filter="$FILTER" >/tmp/broken.out 2>&1
  cat /tmp/broken.out
  failed=$(sed -n 's/^\[  FAILED  \] VmScenario\.\([A-Za-z]*\) (.*/\1/p' /tmp/broken.out | tr '\n' ' ')
  failed=${failed% }
  if [ "$failed" = "$want" ]; then
    echo "BROKEN-CHECK caught: $fault -> $want failed"
  else
    echo "BROKEN-CHECK missed: $fault: wanted exactly '$want' to fail, failed: '${failed:-none}'"
    rc=1
  fi
done
exit $rc
