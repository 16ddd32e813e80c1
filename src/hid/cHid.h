// One open hidraw node of a camera: output reports by write, feature reports
// by ioctl, and a reader thread that hands every input report to a callback.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <memory>
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
  // Stops the reader thread and closes the node. From any thread but the
  // reader's it joins the reader. On the reader thread (from the callback) it
  // cannot wait for itself: the object is closed at once and may be deleted or
  // opened again, while the reader finishes the running callback, then ends
  // and closes the old node on its own.
  void _close();
  // A descriptor of 0 counts as closed.
  bool IsOpen() const;
  // May be called while the reader thread runs.
  void setCallback(cHidCallback fn, void* ctx);

  // Writes reportId, cmd and len data bytes in one write. -1 when not open, 0
  // on success, 1 when write failed.
  int hidReport(uint8_t reportId, uint8_t cmd, const uint8_t* data, uint8_t len);
  // Reads feature report reportId (1024 bytes) and copies its first len bytes,
  // report id byte included. -1 when not open, 0 on success, 1 when the ioctl
  // failed.
  int hidFeatureRd(uint8_t reportId, uint8_t* buf, uint16_t len);
  // Waits up to 1 s for one input report of at most 64 bytes. -1 (as unsigned)
  // when not open, 0 read, 1 poll failed, 2 timed out (or woken to stop), 3
  // read failed (errno tells why).
  unsigned int read_report(uint8_t* buf);

  // Thread entry; the argument is the reader's share of the node state.
  static void* cHidThreadRoutineStatic(void* arg);

  unsigned int index() const { return nIndex; }
  // The node's descriptor, -1 when closed.
  int descriptor() const;
  // A reader thread was started by _open and not yet joined or let go by
  // _close (it may have ended on its own after the node went away).
  bool hasReader() const { return thread != 0; }

 private:
  // What the reader thread uses, shared with it so that it stays valid while
  // a callback that closed (or deleted) this object is still running.
  struct Node;

  unsigned int nIndex;
  pthread_t thread = 0;
  std::shared_ptr<Node> node_;
};
