// The capture functions by camera number: one CaptureThread per number in
// `capture_thread`. Results are 0 or the small negative capture codes:
// -20 not opened (or a number of 16 and above), -21 already opened, -22 node
// cannot be opened, -23 already running, -24 thread not created.
#pragma once

#include "video/CaptureThread.h"

#define KOR_UVC_MAX_CAMERAS 16

extern CaptureThread* capture_thread[KOR_UVC_MAX_CAMERAS];

int KOR_UVC_Init();
void KOR_UVC_DeInit();
// Creates the camera's capture object and lists its frame sizes. The object
// stays in the table also when the node cannot be opened (-22).
int KOR_UVC_StreamOpen(unsigned char index, char* devicePath);
int KOR_UVC_StreamStart(unsigned char index);
int KOR_UVC_SetCallbackStream(unsigned char index, CaptureCallback fn, void* context);
// Stops and joins the capture thread; the object stays.
int KOR_UVC_StreamStop(unsigned char index);
// Stops the thread and destroys the object.
int KOR_UVC_StreamClose(unsigned char index);
// `list` needs room for LIST_MAX_NUM + 1 entries: a camera with more than ten
// sizes reports eleven, the last one 0x0.
int KOR_UVC_StreamGetResolutionList(unsigned char index, _Formats* list, int* count);
// Width, height and bytes per line (two bytes per YUYV pixel) of the chosen size.
int KOR_UVC_StreamGetFrameFormat(unsigned char index, int* width, int* height, int* lineBytes);
int KOR_UVC_StreamSetFrameFormat(unsigned char index, int width, int height);
