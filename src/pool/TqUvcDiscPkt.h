// What the library knows about one camera: the discovery record (identity
// texts of fixed width, USB identity, HID camera index), plus the rule that
// tells whether two packets describe the same camera. Logs to "UVC".
#pragma once

#include <tq_uvc.h>

class TqUvcDiscPkt final {
 public:
  // With other: a copy of its whole record, marked copied. Without: zeroed.
  explicit TqUvcDiscPkt(TqUvcDiscPkt* other = nullptr);
  // Not virtual: the class is final, nothing derives from it.
  ~TqUvcDiscPkt();
  TqUvcDiscPkt(const TqUvcDiscPkt&) = delete;
  TqUvcDiscPkt& operator=(const TqUvcDiscPkt&) = delete;

  // 1 when other has the same Vid, Pid and serial number (first 16 characters).
  int ItsMe(TqUvcDiscPkt* other);

  uint32_t GetUsbVersion() const { return data_.UsbVersion; }
  uint32_t GetVid() const { return data_.Vid; }
  uint32_t GetPid() const { return data_.Pid; }
  uint32_t GetMI() const { return data_.MI; }
  uint32_t GetHIDCamIndex() const { return data_.HIDCamIndex; }
  // Each terminates its field in the last byte and returns it.
  char* GetManfctName();
  char* GetModelName();
  char* GetDevVersion();
  char* GetManfctSpecInf();
  char* GetSerialNr();
  char* GetNickName();

  // The record itself, handed to the control channel on connect/disconnect.
  _tagTqUvccpDiscData* GetDiscData() { return &data_; }
  // Overwrites the whole record with other's. A rescan does this while other
  // threads read the record: an unchanged record is not written at all, and a
  // changed one word by word, so the camera index is never read half-written.
  void CopyFrom(const TqUvcDiscPkt& other);

  virtual void DumpPktToLog(unsigned int unused);
  // One info line per differing field, own value first; nothing for null.
  virtual void LogDifferences(TqUvcDiscPkt* other);

 private:
  _tagTqUvccpDiscData data_;
};
