// The camera's vendor command protocol over HID, for every camera at once:
// register reads and writes, identity strings, the description file (XML) and
// camera memory. One answer slot serves every camera, so each command holds
// the command lock from sending to the end of its answer wait.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "hid/HidProtocol.h"

class Vexa_HID {
 public:
  Vexa_HID();
  // Closes every camera still attached, then ends the HID layer if Init ran.
  ~Vexa_HID();
  Vexa_HID(const Vexa_HID&) = delete;
  Vexa_HID& operator=(const Vexa_HID&) = delete;

  // 0 when the HID layer is ready.
  uint8_t Init();
  // Enumerates the cameras of vid/pid; writes their number to *count (if not
  // null). Always 0.
  uint8_t Enumerate(uint16_t vid, uint16_t pid, uint8_t* count);
  void SetUvcIndex(uint8_t cam, uint8_t uvc);
  int IsLinked(uint8_t cam);
  // Set by a non-zero write to register 0x0650, cleared by DisableAcquisition.
  bool IsAcquisitionEnabled(uint8_t cam);
  void DisableAcquisition(uint8_t cam);
  // 0 opened, -101 node not opened, -102 answer callback not installed. The
  // second argument is accepted for the callers' sake and not used.
  int Open(uint8_t cam, int unused = 0);
  int Close(uint8_t cam);

  // Identity strings and node paths of an enumerated camera; 0.
  int GetSerialNumber(uint8_t cam, char* buf, int len);
  int GetManufacturer(uint8_t cam, char* buf, int len);
  int GetProduct(uint8_t cam, char* buf, int len);
  int GetDevicePath(uint8_t cam, char* buf, int len);
  int GetDevicePathUVC(uint8_t cam, char* buf, int len);

  // Sends command `id` with data[0..2] and copies len (at most 64) payload
  // bytes back into data. 0, the camera's status, -1 time-out, -2 wrong echo,
  // or the send result.
  int GetFunc(uint8_t cam, uint16_t id, uint8_t* data, int len);
  // Register read/write at a 16-bit HID address; results as GetFunc.
  int GetInt32(uint8_t cam, uint16_t adr, uint32_t* value);
  int SetInt32(uint8_t cam, uint16_t adr, uint32_t value);

  // Size of the description file (0 or a status as GetFunc).
  int GetXMLSize(uint8_t cam, int* size);
  // SHA-1 of the description file into buf (len must be 20): 1, else 0.
  uint8_t GetXMLSHA(uint8_t cam, char* buf, int len);
  // Zero-terminated string of at most min(len, 60) - 1 characters from camera
  // memory: 0, or a status as GetFunc (buf untouched).
  int ReadMem(uint8_t cam, int adr, char* buf, int len);
  // Downloads the description file into buf of len bytes: 0, a status of the
  // size query, -101 buffer too small, -102 chunk request failed, -103
  // feature read failed. Chunks copied before a failure stay in buf.
  int ReadXML(uint8_t cam, char* buf, int len);

  // Answer/event dispatch, run on the hidraw reader threads. Always 0.
  int ReceiveCallbackHid(const uint8_t* report);
  // -3 when ctx is null.
  static int ReceiveCallbackHidStatic(unsigned char* report, void* ctx);

  // The last event report's first 12 bytes.
  void LastEvent(uint8_t out[12]);

 private:
  // Arms the answer slot for `id`; payloadOffset < 0 keeps the current one.
  void expect(uint16_t id, int payloadOffset);
  int currentStatus();
  // Waits up to 5 s for the answer. False on time-out; otherwise *status is
  // the answer's status and, when it is 0, the first n payload bytes are in
  // out (copied under the lock, nothing else is).
  bool waitAnswer(int* status, uint8_t* out, size_t n);
  // Sends a register command and waits for its answer, logging failures as
  // "Vexa_HID::<name> ..."; returns 0, the status, the send result or -1.
  int registerCommand(const char* name, uint8_t cam, uint8_t cmd, const uint8_t* request, uint8_t len,
                      uint8_t* out, size_t n);

  uint8_t event[hidproto::kEventSize];
  int bInitialized;
  // 256 entries, not 255: the camera index is 8-bit, so 255 is a valid index.
  uint32_t uvcIndex[256];
  // Written by register writes, read by the streaming side on other threads.
  std::atomic<int> acquisitionEnabled[256];
  uint32_t nSeq;
  int32_t nPayloadOffset;
  uint32_t nExpectedId;
  int32_t nStatus;
  uint8_t payload[hidproto::kPayloadSize];
  uint8_t bAnswer;
  // Guards event, nPayloadOffset, nExpectedId, nStatus, payload and bAnswer
  // between the commanding thread and the hidraw reader threads. The reader
  // fills the slot under it and notifies `cond` after letting it go, so the
  // woken caller does not block on the lock again.
  std::mutex mutex;
  std::condition_variable cond;
  // One command at a time across all cameras (channels' request locks are per
  // camera). Recursive: ReadXML and GetXMLSize run GetFunc inside it. Taken
  // before `mutex`, never while holding it.
  std::recursive_mutex commandLock;
};
