#include "video/KOR_UVC.h"

CaptureThread* capture_thread[KOR_UVC_MAX_CAMERAS] = {};

namespace {

// Numbers past the table are refused like numbers never opened.
CaptureThread* find(unsigned char index) {
  return index < KOR_UVC_MAX_CAMERAS ? capture_thread[index] : nullptr;
}

}  // namespace

int KOR_UVC_Init() { return 0; }

void KOR_UVC_DeInit() {}

int KOR_UVC_StreamOpen(unsigned char index, char* devicePath) {
  if (index >= KOR_UVC_MAX_CAMERAS) return -20;
  if (capture_thread[index]) return -21;
  // Owned by the table until KOR_UVC_StreamClose.
  capture_thread[index] = new CaptureThread();
  return capture_thread[index]->open(devicePath);
}

int KOR_UVC_StreamStart(unsigned char index) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  return capture->start();
}

int KOR_UVC_SetCallbackStream(unsigned char index, CaptureCallback fn, void* context) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  capture->setCallback(fn, context, index);
  return 0;
}

int KOR_UVC_StreamStop(unsigned char index) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  capture->close();
  return 0;
}

int KOR_UVC_StreamClose(unsigned char index) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  capture->close();
  delete capture;
  capture_thread[index] = nullptr;
  return 0;
}

int KOR_UVC_StreamGetResolutionList(unsigned char index, _Formats* list, int* count) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  const int listed = capture->frameSizeCount();
  if (count) *count = listed;
  if (!list) return 0;
  int n = listed > LIST_MAX_NUM + 1 ? LIST_MAX_NUM + 1 : listed;
  for (int i = 0; i < n; ++i) {
    list[i].width = capture->frameSize(i).width;
    list[i].height = capture->frameSize(i).height;
  }
  return 0;
}

int KOR_UVC_StreamGetFrameFormat(unsigned char index, int* width, int* height, int* lineBytes) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  int w = 0;
  int h = 0;
  capture->GetStreamingFormat(&w, &h);
  if (width) *width = w;
  if (height) *height = h;
  // Unsigned so that an absurd driver width wraps instead of overflowing.
  if (lineBytes) *lineBytes = static_cast<int>(static_cast<unsigned>(w) * 2u);
  return 0;
}

int KOR_UVC_StreamSetFrameFormat(unsigned char index, int width, int height) {
  CaptureThread* capture = find(index);
  if (!capture) return -20;
  return capture->SetStreamingFormat(width, height);
}
