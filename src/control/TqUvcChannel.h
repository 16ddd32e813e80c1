// Base of the device's three channels: the owning device, nothing else.
#pragma once

class TqUvcDevice;

class TqUvcChannel {
 public:
  explicit TqUvcChannel(TqUvcDevice* owner) : device(owner) {}
  virtual ~TqUvcChannel() = default;
  TqUvcChannel(const TqUvcChannel&) = delete;
  TqUvcChannel& operator=(const TqUvcChannel&) = delete;

  TqUvcDevice* GetDevice() const { return device; }

 protected:
  TqUvcDevice* device;
};
