#include "control/TqUvcHotPlugThread.h"

#include <pthread.h>
#include <rkosdep.h>

#include "control/TqUvcCtrlChan.h"
#include "control/TqUvcMsgChan.h"
#include "pool/TqUvcDevice.h"
#include "stream/TqUvcStrmChan.h"

namespace {

constexpr uint32_t kPollMs = 500;
constexpr unsigned kPeriodicCheck = 6;  // every 6th poll (3 s) while healthy
constexpr int kExtraChecks = 2;
constexpr uint32_t kRetrySleepMs = 20;

// Keeps a forced stop out of a check, disconnect, reconnect or channel open;
// restores the state it found.
class NoCancel {
 public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~NoCancel() { pthread_setcancelstate(previous_, nullptr); }
  NoCancel(const NoCancel&) = delete;
  NoCancel& operator=(const NoCancel&) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_ENABLE;
};

const char* yesNo(uint32_t available) { return available != 0 ? "yes" : "no"; }

}  // namespace

TqUvcHotPlugThread::TqUvcHotPlugThread() : TqUvcThread("HotPlugThread"), trigger(0), connectionGood(0) {}

TqUvcHotPlugThread::~TqUvcHotPlugThread() = default;

int TqUvcHotPlugThread::Execute(void* arg) {
  auto* chan = static_cast<TqUvcCtrlChan*>(arg);
  if (chan == nullptr || chan->GetDevice() == nullptr) return 0;
  TqUvcDevice* device = chan->GetDevice();
  rk::CLog& log = device->GetLog();

  log.Debug("TqUvcHotPlugThread:: thread start\n");
  unsigned polls = 0;
  bool lastCheckGood = true;
  bool lastReconnectGood = true;

  while (!ExitRequested()) {
    ++polls;
    uint32_t status = 0;
    chan->CheckConnectionStatus(&status);

    if (trigger != 0 || status == 0 || polls >= kPeriodicCheck) {
      uint32_t available = 0;
      bool exitDuringCheck = false;
      {
        const NoCancel noCancel;
        const bool silent = polls >= kPeriodicCheck || lastCheckGood;
        if (!silent) log.Debug("TqUvcHotPlugThread checking connection status...");
        chan->CheckAvailability(&available);
        if (!silent) log.Debug("TqUvcHotPlugThread Device available:%s (try:%d)", yesNo(available), 0);
        for (int attempt = 1; available == 0 && attempt <= kExtraChecks; ++attempt) {
          if (ExitRequested()) {
            exitDuringCheck = true;
            break;
          }
          RkOsSleep(kRetrySleepMs);
          if (ExitRequested()) {
            exitDuringCheck = true;
            break;
          }
          chan->CheckAvailability(&available);
          if (!silent)
            log.Debug("TqUvcHotPlugThread Device available:%s (try:%d)", yesNo(available), attempt);
        }
        if (available == 0 && !exitDuringCheck) RkOsSleep(kRetrySleepMs);
      }
      if (exitDuringCheck) {
        connectionGood = 0;
        break;
      }

      if (lastReconnectGood && available != 0) {
        if (!lastCheckGood) log.Info("TqUvcHotPlugThread connection available again");
        connectionGood = 1;
        lastCheckGood = true;
        polls = 0;
      } else {
        if (device->AutoConnect()) {
          log.Debug("TqUvcHotPlugThread try to reconnect...");
          {
            const NoCancel noCancel;
            chan->Disconnect(device->GetDiscData(), false);
          }
          connectionGood = 0;
          if (ExitRequested()) {
            lastCheckGood = false;
            lastReconnectGood = false;
            break;
          }
          const NoCancel noCancel;
          chan->ReConnect();
          uint32_t back = 0;
          chan->CheckAvailability(&back);
          if (back == 0) {
            lastCheckGood = false;
            lastReconnectGood = false;
            log.Info("TqUvcHotPlugThread cannot re-established the connection");
          } else {
            if (chan->Connect(device->GetDiscData(), false) != 0) {
              lastCheckGood = false;
              log.Info("TqUvcHotPlugThread::Error reconnecting to Usb device");
            } else {
              connectionGood = 0;
              lastCheckGood = true;
              log.Info("TqUvcHotPlugThread connection re-established");
            }
            lastReconnectGood = lastCheckGood;
            TqUvcStrmChan* strm = device->GetStrmChan();
            if (strm == nullptr || strm->Open(0, 0) != 0) {
              lastReconnectGood = false;
              log.Info("TqUvcHotPlugThread: cannot open stream channel");
            }
            TqUvcMsgChan* msg = device->GetMsgChan();
            if (msg == nullptr || msg->Open() != 0) {
              lastReconnectGood = false;
              log.Info("TqUvcHotPlugThread: cannot open message channel");
            }
          }
        } else {
          connectionGood = 0;
          // Remembered so that the camera's return is reported.
          lastCheckGood = false;
        }
        polls = 0;
      }
    }

    if (ExitRequested()) break;
    if (WaitForExitEvent(kPollMs) == 0) {
      if (!IsRunning()) {
        log.Debug("TqUvcHotPlugThread:: thread received exit event, exit\n");
        log.Debug("TqUvcHotPlugThread:: thread stop\n");
        return 0;
      }
      ResetExitEvent();
      // Stop clears keep-running before it signals; without this the reset
      // would swallow its request and the stop would end in a termination.
      if (ExitRequested() || !KeepRunning()) {
        log.Debug("TqUvcHotPlugThread:: thread stop\n");
        return 0;
      }
    }
  }

  log.Debug("TqUvcHotPlugThread:: thread stop\n");
  return 0;
}
