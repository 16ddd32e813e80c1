#include "video/Vexa_UVC.h"

#include "support/LibLogs.h"
#include "video/KOR_UVC.h"

Vexa_UVC::Vexa_UVC() = default;

Vexa_UVC::~Vexa_UVC() {
  // A capture object outlives this one in the table; whatever still points at
  // this object is stopped (joined, or ended after the callback when that is
  // where we are) and forgets it, so a later start cannot call in either.
  for (unsigned char i = 0; i < KOR_UVC_MAX_CAMERAS; ++i) {
    CaptureThread* capture = capture_thread[i];
    if (!capture || capture->callbackContext() != this) continue;
    capture->close();
    capture->setCallback(nullptr, nullptr, i);
  }
}

unsigned char Vexa_UVC::Init() { return static_cast<unsigned char>(KOR_UVC_Init()); }

int Vexa_UVC::OpenStreaming(unsigned char index, char* devicePath, _Formats* list, int* count) {
  int rc = KOR_UVC_StreamOpen(index, devicePath);
  if (rc != 0) return rc;
  return KOR_UVC_StreamGetResolutionList(index, list, count);
}

void Vexa_UVC::GetStreamingFrameFormat(unsigned char index, int* width, int* height, int* lineBytes) {
  KOR_UVC_StreamGetFrameFormat(index, width, height, lineBytes);
}

void Vexa_UVC::SetStreamingFrameFormat(unsigned char index, int width, int height) {
  KOR_UVC_StreamSetFrameFormat(index, width, height);
}

int Vexa_UVC::StartStreaming(unsigned char index) {
  frameCount_ = 0;
  streaming_ = true;
  int rc = KOR_UVC_SetCallbackStream(index, &Vexa_UVC::ReceiveCallbackStream, this);
  if (rc != 0) return rc;
  return KOR_UVC_StreamStart(index);
}

int Vexa_UVC::StopStreaming(unsigned char index) {
  streaming_ = false;
  return KOR_UVC_StreamStop(index);
}

void Vexa_UVC::CloseStreaming(unsigned char index) { KOR_UVC_StreamClose(index); }

int Vexa_UVC::RegisterNewBufferCallback(unsigned char index, NewBufferCallback callback, void* context) {
  std::lock_guard<std::mutex> lock(receiversLock_);
  receivers_[index] = Receiver{callback, context};
  return callback ? 0 : -1;
}

int Vexa_UVC::ReceiveCallbackStream(unsigned char* data, int size, int index, void* context) {
  auto* self = static_cast<Vexa_UVC*>(context);
  if (!self) {
    LIBLog.Error("Vexa_UVC::ReceiveCallbackStream: class context not defined: %p\n",
                 static_cast<void*>(nullptr));
    return 0;
  }
  const unsigned char camera = static_cast<unsigned char>(index & 0xFF);
  Receiver receiver;
  {
    std::lock_guard<std::mutex> lock(self->receiversLock_);
    receiver = self->receivers_[camera];
  }
  if (!receiver.callback) {
    LIBLog.Error("Vexa_UVC::NewBufferCallBack: callback function not defned yet: %p\n",
                 static_cast<void*>(nullptr));
    return 0;
  }
  ++self->frameCount_;
  // Called through its own three-argument type; a fourth argument would need a
  // cast to another function type. Nothing of `self` is touched after it: the
  // callback may stop the stream or destroy this object.
  receiver.callback(reinterpret_cast<char*>(data), size, receiver.context);
  return 0;
}
