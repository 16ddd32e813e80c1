// Every camera a scan has found in this process, as a singly linked list of
// reference-counted nodes, each owning one device. Nodes are never removed
// while the pool lives, so a handle stays valid after its camera is unplugged.
#pragma once

#include <rkosdep.h>

#include <cstdint>

#include "pool/TqUvcDevice.h"

class TqUvcDiscPkt;

class TqUvcDevPoolNode {
 public:
  TqUvcDevPoolNode(TqUvcDevPoolNode* previous, TqUvcDiscPkt* pkt);
  // Destroys the whole tail first, then the device.
  ~TqUvcDevPoolNode();
  TqUvcDevPoolNode(const TqUvcDevPoolNode&) = delete;
  TqUvcDevPoolNode& operator=(const TqUvcDevPoolNode&) = delete;

  // 0, 0x8002 for null, 0x8008 when the new node is not linked afterwards.
  uint32_t Add(TqUvcDiscPkt* pkt);
  void AddRef();
  // Drops one reference; the node destroys itself at 0.
  void ReleaseRef();

  TqUvcDevPoolNode* next;
  TqUvcDevPoolNode* previous;
  volatile int32_t refCount;
  uint32_t present;
  uint32_t scanWord;
  TqUvcDevice device;
};

class TqUvcDevPool {
 public:
  TqUvcDevPool();
  ~TqUvcDevPool();
  TqUvcDevPool(const TqUvcDevPool&) = delete;
  TqUvcDevPool& operator=(const TqUvcDevPool&) = delete;

  // Creates the process-wide HID camera object. 0.
  uint32_t Init();
  uint32_t Add(TqUvcDiscPkt* pkt);
  // Each returns the node with a reference taken, or null.
  TqUvcDevPoolNode* GetNode(uint64_t hDev);
  TqUvcDevPoolNode* GetHead(uint32_t filter);
  TqUvcDevPoolNode* GetNext(TqUvcDevPoolNode* node, uint32_t filter);
  // Always 0x8001.
  uint32_t ScanDevices(uint64_t timeoutMs);

 private:
  TqUvcDevPoolNode* head;
  RkOsCriticalSection lock;  // "UVC:Pool"
};
