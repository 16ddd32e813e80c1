#!/bin/sh
# Runs the basic scenarios once per deliberately broken camera and checks that
# each fault fails the scenario it belongs to. A camera with another serial on
# its video function is not found at all, so every scenario fails with it; the
# other faults must fail exactly their scenario. Exit 0 when every fault was
# caught so.
SUITE="tq_vm_scenarios --gtest_color=no --rig usbcam --usbcam /vm/bin/tq-uvc-usbcam --config /vm/cameras.conf --xml /vm/EmuCamera.xml"
FILTER='VmScenario.ScanAndIdentity:VmScenario.RegistersAndMemory:VmScenario.XmlDownloadAndManifest:VmScenario.StreamingPixelsAndLockTable'
rc=0
for item in video-serial=VM-CAM-WRONG:ScanAndIdentity:any short-feature:XmlDownloadAndManifest:only \
  corrupt-frame:StreamingPixelsAndLockTable:only; do
  fault=${item%%:*}
  rest=${item#*:}
  want=${rest%%:*}
  how=${rest#*:}
  echo "=== broken camera: $fault (expected to fail: $want)"
  $SUITE --fault "$fault" --gtest_filter="$FILTER" >/tmp/broken.out 2>&1
  cat /tmp/broken.out
  failed=$(sed -n 's/^\[  FAILED  \] VmScenario\.\([A-Za-z]*\) (.*/\1/p' /tmp/broken.out | tr '\n' ' ')
  failed=${failed% }
  case " $failed " in *" $want "*) hit=1 ;; *) hit=0 ;; esac
  [ "$how" = any ] || [ "$failed" = "$want" ] || hit=0
  if [ "$hit" -eq 1 ]; then
    echo "BROKEN-CHECK caught: $fault -> $want failed"
  else
    echo "BROKEN-CHECK missed: $fault: wanted '$want' to fail ($how), failed: '${failed:-none}'"
    rc=1
  fi
done
exit $rc
