/* A small client of libtq.uvc the way an SDK's upper layer uses it: scan, walk
 * the pool, connect, read identity and a register, fetch the manifest,
 * configure four buffers with a ring lock table, stream frames, give buffers
 * back, stop, disconnect.
 *
 *   tq_uvc_stream [frames]     (default 10; exit status 0 when all arrived) */
#define _POSIX_C_SOURCE 200809L /* clock_gettime, nanosleep */

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <tq_uvc.h>

#define NBUF 4

static uint32_t lockTable[NBUF];
static uint32_t currentFrame;
static atomic_uint framesSeen;
static atomic_uint incompleteFrames;

/* Runs on the library's capture thread. */
static void onData(uint32_t index, uint32_t request, void* device, _tagTqUvcDataBlockInfo* info,
                   uint64_t context) {
  (void)device;
  (void)context;
  if (index >= NBUF) return;
  if (request == TQUVC_REQ_LOCK) {
    lockTable[index] = TQUVC_LOCKED; /* ours until we give it back */
    return;
  }
  if (info != NULL) {
    if (!info->Valid) atomic_fetch_add(&incompleteFrames, 1);
    if (atomic_fetch_add(&framesSeen, 1) < 3)
      printf("  block %llu in buffer %u: %ux%u at %u,%u, %u bytes%s\n", (unsigned long long)info->BlockId,
             (unsigned)info->BufferIdx, (unsigned)info->Width, (unsigned)info->Height,
             (unsigned)info->OffsetX, (unsigned)info->OffsetY, (unsigned)info->DataSize,
             info->Valid ? "" : " (incomplete)");
  }
  /* Done with the frame: hand the buffer back into the ring. */
  lockTable[index] = (index + 1) % NBUF;
}

static double now(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void sleepMs(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, NULL);
}

int main(int argc, char** argv) {
  unsigned wanted = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 10) : 10;
  int rc = 1;

  TqUvcLibraryInit();
  TqUvcScanDevices(0, 0, 1000); /* answers 0x8001 also after a good scan */

  _tagTqUvcDevInfo info;
  memset(&info, 0, sizeof info);
  info.Size = sizeof info;
  uint64_t device = 0;
  for (uint64_t h = TqUvcGetFirstPoolDev(0, &info); h != 0; h = TqUvcNextPoolDev(h, 0, &info)) {
    printf("camera %llu: %.32s %.32s serial %.16s (%04X:%04X)\n", (unsigned long long)h, info.ManfctName,
           info.ModName, info.SerialNr, (unsigned)info.Vid, (unsigned)info.Pid);
    if (device == 0) device = h;
  }
  if (device == 0) {
    fprintf(stderr, "no camera found\n");
    goto out;
  }

  uint32_t status = TqUvcConnect(device, 0);
  if (status != 0) {
    fprintf(stderr, "connect failed: 0x%08X\n", (unsigned)status);
    goto out;
  }

  char model[13] = {0};
  char serial[13] = {0};
  TqUvcReadMem(device, 0x44, (uint8_t*)model, 12);
  TqUvcReadMem(device, 0x144, (uint8_t*)serial, 12);
  uint32_t width = 0, height = 0, pitch = 0;
  TqUvcReadReg(device, 0x40A04, &width);
  TqUvcReadReg(device, 0x40A08, &height);
  TqUvcReadReg(device, 0x40708, &pitch);
  printf("model \"%s\", serial \"%s\", image %ux%u, %u bytes per line\n", model, serial, (unsigned)width,
         (unsigned)height, (unsigned)pitch);

  char path[256] = {0};
  char sha[41] = {0};
  uint32_t version = 0, address = 0;
  status = TqUvcGetManifestFileData(device, 0, &version, &address, (uint8_t*)path, sizeof path, NULL, 0, NULL,
                                    NULL, (uint8_t*)sha);
  if (status == 0) printf("manifest: %s\n", path);

  if (TqUvcOpenStrmChan(device, 0, 0, 0) != 0) {
    fprintf(stderr, "cannot open the stream channel\n");
    goto disconnect;
  }
  uint32_t size = pitch * height;
  uint64_t buffers[NBUF];
  uint32_t sizes[NBUF];
  for (int i = 0; i < NBUF; ++i) {
    buffers[i] = (uint64_t)(uintptr_t)malloc(size);
    sizes[i] = buffers[i] != 0 ? size : 0;
    lockTable[i] = (uint32_t)((i + 1) % NBUF);
  }
  _tagTqUvcBufDimension dim;
  memset(&dim, 0, sizeof dim);
  dim.LineIncrement = pitch;
  TqUvcCfgMemory(device, 0, buffers, sizes, NBUF);
  TqUvcCfgLockTable(device, 0, lockTable, (uint8_t*)&currentFrame);
  TqUvcCfgBufferDim(device, 0, &dim);
  TqUvcRegisterDataCallback(device, 0, onData, 0);

  TqUvcStreamStart(device, 0);
  double deadline = now() + 10.0;
  while (atomic_load(&framesSeen) < wanted && now() < deadline) sleepMs(10);
  TqUvcStreamStop(device, 0);
  TqUvcCloseStrmChan(device);
  for (int i = 0; i < NBUF; ++i) free((void*)(uintptr_t)buffers[i]);

  printf("%u frames received (%u incomplete)\n", atomic_load(&framesSeen), atomic_load(&incompleteFrames));
  rc = atomic_load(&framesSeen) >= wanted ? 0 : 1;

disconnect:
  TqUvcDisconnect(device);
out:
  TqUvcLibraryUninit();
  return rc;
}
