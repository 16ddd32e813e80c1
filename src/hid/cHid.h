// One open hidraw node of a camera: output reports by write, feature reports
// by ioctl, and a reader thread that hands every input report to a callback.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

// Input report consumer, run on the reader thread with a 64-byte report.
typedef int (*cHidCallback)(unsigned char* report, void* ctx);

class cHid {
 public:
  explicit cHid(unsigned char index);
  // Closes the node if the owner forgot to (joins the reader thread).
  ~cHid();
  cHid(const cHid&) = delete;
  cHid& operator=(const cHid&) = delete;

  // 0 when the node is open (also when the reader thread could not be
  // started), 1 when open() failed.
  int _open(const std::string& path);
  // Stops and joins the reader thread, closes the node.
  void _close();
  // A descriptor of 0 counts as closed.
  bool IsOpen() const;
  // May be called while the reader thread runs.
  void setCallback(cHidCallback fn, void* ctx);

  // Writes reportId, cmd and len data bytes in one write. fd itself when not
  // open, 0 on success, 1 when write failed.
  int hidReport(uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len);
  // Reads feature report reportId (1024 bytes) and copies its first len bytes,
  // report id byte included. fd itself when not open, 0 on success, 1 when the
  // ioctl failed.
  int hidFeatureRd(uint8_t reportId, uint8_t* buf, uint16_t len);
  // Waits up to 1 s for one input report of at most 64 bytes. fd when not
  // open, 0 read, 1 select failed, 2 timed out (or woken to stop), 3 read failed.
  unsigned int read_report(uint8_t* buf);

  static void* cHidThreadRoutineStatic(void* self);

  unsigned int nIndex;
  int fd;
  pthread_t thread;
  std::atomic<int> bStop;
  void* pCallbackCtx;
  cHidCallback pCallback;

 private:
  void threadRoutine();
  void pauseAfterError();

  // Guards the callback pair so the reader never sees a new function with an
  // old context.
  std::mutex callbackLock_;
  // Lets _close wake the reader at once instead of after its select timeout.
  int wakeFd_ = -1;
};
