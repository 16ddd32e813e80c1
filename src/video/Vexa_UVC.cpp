#include "video/Vexa_UVC.h"

#include "support/LibLogs.h"
#include "video/KOR_UVC.h"

Vexa_UVC::Vexa_UVC() : frameCount(0), streaming(false) {
  for (int i = 0; i < 256; ++i) {
    newBufferCallbacks[i] = nullptr;
    newBufferContexts[i] = nullptr;
  }
}

Vexa_UVC::~Vexa_UVC() {}

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
  frameCount = 0;
  streaming = true;
  int rc = KOR_UVC_SetCallbackStream(index, &Vexa_UVC::ReceiveCallbackStream, this);
  if (rc != 0) return rc;
  return KOR_UVC_StreamStart(index);
}

int Vexa_UVC::StopStreaming(unsigned char index) {
  streaming = false;
  return KOR_UVC_StreamStop(index);
}

void Vexa_UVC::CloseStreaming(unsigned char index) { KOR_UVC_StreamClose(index); }

int Vexa_UVC::RegisterNewBufferCallback(unsigned char index, NewBufferCallback callback, void* context) {
  // Context first: a capture thread that sees the new callback also sees its context.
  newBufferContexts[index] = context;
  newBufferCallbacks[index] = callback;
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
  NewBufferCallback fn = self->newBufferCallbacks[camera].load();
  if (!fn) {
    LIBLog.Error("Vexa_UVC::NewBufferCallBack: callback function not defned yet: %p\n",
                 static_cast<void*>(nullptr));
    return 0;
  }
  ++self->frameCount;
  // Called through its own three-argument type; a fourth argument would need a
  // cast to another function type.
  fn(reinterpret_cast<char*>(data), size, self->newBufferContexts[camera].load());
  return 0;
}
