/* libtq.uvc: the USB Video Class transport of the Tarquel camera SDK.
 *
 * Plain C interface. Every function returns a 32-bit status word (0 = success,
 * GenCP-style codes otherwise) unless its comment says otherwise. Devices are
 * addressed by a 64-bit handle: 1 for the first camera found in the process,
 * counting up, never reused, valid until the last TqUvcLibraryUninit (also after
 * the camera was unplugged). 0 means "no device".
 *
 * Status codes seen at this interface:
 *   0x8001  not implemented, or no library / unknown handle (control functions)
 *   0x8002  null argument
 *   0x8007  busy, or connect refused
 *   0x8008  refused by state or arguments
 *   0x8FFF  generic failure, or no library / unknown handle (channel functions)
 *   negative values (as unsigned): errors of the camera transport
 *
 * Buffers, lock tables and records passed in remain owned by the caller. */
#ifndef TQ_UVC_H
#define TQ_UVC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(TQ_UVC_BUILDING)
#define TQ_UVC_API __attribute__((visibility("default")))
#else
#define TQ_UVC_API
#endif

/* ---------------------------------------------------------------- records */

/* What the library knows about one camera (648 bytes). Texts are fixed-width
 * and not necessarily terminated; readers force a zero into the last byte. */
typedef struct _tagTqUvccpDiscData {
  uint32_t UsbVersion;      /*   0 */
  uint32_t Reserved0;       /*   4 */
  uint32_t Vid;             /*   8 */
  uint32_t Pid;             /*  12 */
  uint32_t MI;              /*  16 */
  uint8_t Reserved1[12];    /*  20 */
  uint32_t Copied;          /*  32: 1 when built as a copy */
  uint32_t Reserved2;       /*  36 */
  uint32_t HIDCamIndex;     /*  40 */
  uint32_t AccessPrivilege; /*  44: 1 while a handle holds the camera (shared by all handles) */
  char ManfctName[32];      /*  48 */
  char ModName[32];         /*  80 */
  char DevVersion[32];      /* 112 */
  uint8_t Reserved3[32];    /* 144 */
  char ManfctSpecInf[48];   /* 176 */
  char SerialNr[16];        /* 224 */
  char Nickname[16];        /* 240 */
  char InterfaceText[128];  /* 256 */
  char InstanceID[128];     /* 384 */
  char DevicePath[128];     /* 512 */
  uint8_t Reserved4[8];     /* 640 */
} _tagTqUvccpDiscData;

/* The public device record (320 bytes). Set Size to sizeof(_tagTqUvcDevInfo)
 * before passing it in; a smaller Size is filled only as far as it reaches. */
typedef struct _tagTqUvcDevInfo {
  uint32_t Size;          /*   0 */
  uint32_t Flags;         /*   4: bit 0 location not reachable, bit 1 duplicate address */
  uint32_t DevMode;       /*   8 */
  uint32_t DevIndex;      /*  12: (handle - 1) & 255 */
  char ManfctName[32];    /*  16 */
  char ModName[32];       /*  48 */
  char DevVersion[32];    /*  80 */
  char ManfctSpecInf[48]; /* 112 */
  char SerialNr[16];      /* 160 */
  char Nickname[16];      /* 176 */
  uint32_t Reserved0;     /* 192 */
  uint32_t Vid;           /* 196 */
  uint32_t Pid;           /* 200 */
  uint32_t MI;            /* 204 */
  uint32_t HIDCamIndex;   /* 208 */
  uint8_t Reserved1[44];  /* 212 */
  uint32_t UsbVersion;    /* 256 */
  uint8_t Reserved2[60];  /* 260 */
} _tagTqUvcDevInfo;

/* Client buffer geometry (32 bytes); only LineIncrement is read. */
typedef struct _tagTqUvcBufDimension {
  uint32_t LineIncrement; /* bytes from one line to the next */
  uint8_t Reserved[28];
} _tagTqUvcBufDimension;

/* Describes one filled buffer to the data callback (80 bytes, packed). */
#pragma pack(push, 1)
typedef struct _tagTqUvcDataBlockInfo {
  uint32_t Flags;       /*  0 */
  uint32_t BlockIdx;    /*  4 */
  uint32_t BufferIdx;   /*  8: the buffer this block went into */
  uint64_t BlockId;     /* 12: counts notifications from 1 */
  uint32_t Incomplete;  /* 20: 1 when the frame had another size than expected */
  uint32_t Valid;       /* 24: 1 when it had the expected size */
  uint32_t LockStat;    /* 28: 1 lock requested, 2 notified */
  uint64_t Reserved0;   /* 32 */
  uint32_t DataSize;    /* 40: bytes written into the buffer */
  uint8_t Reserved1[8]; /* 44 */
  uint32_t Width;       /* 52 */
  uint32_t Height;      /* 56 */
  uint32_t OffsetX;     /* 60 */
  uint32_t OffsetY;     /* 64 */
  uint32_t Reserved2;   /* 68 */
  uint32_t PixelFormat; /* 72: 0x0210003B, YCbCr422_8 */
  uint32_t Reserved3;   /* 76 */
} _tagTqUvcDataBlockInfo;
#pragma pack(pop)

/* One device event. This transport never delivers events (the camera offers
 * no event registers), so the callback below is never called; the record is
 * defined for source compatibility with other transports. */
typedef struct _tagTqUvcEventInfo {
  uint32_t Size;      /* sizeof(_tagTqUvcEventInfo) */
  uint32_t EventId;   /* device-specific event number */
  uint64_t Timestamp; /* device ticks */
  uint32_t DataSize;  /* bytes of event data passed beside the record */
  uint32_t Reserved;
} _tagTqUvcEventInfo;

/* Lock-table words: TQUVC_LOCKED, or the index of the next buffer of the
 * client's ring (a free buffer). */
#define TQUVC_LOCKED 0x80000000u
/* The `request` values of the data callback. */
#define TQUVC_REQ_LOCK 0u
#define TQUVC_REQ_NOTIFY 0xFFFFFFFFu

/* Data callback, called on the capture thread. With request TQUVC_REQ_LOCK
 * (info NULL) the client marks buffer `bufferIndex` TQUVC_LOCKED in its lock
 * table; with TQUVC_REQ_NOTIFY the buffer holds a frame described by `info`
 * and belongs to the client until it writes a free value back into its word.
 * `deviceHandle` is the device handle, `context` the registered value. */
typedef void (*TqUvcDataCallback)(uint32_t bufferIndex, uint32_t request, void* deviceHandle,
                                  _tagTqUvcDataBlockInfo* info, uint64_t context);

/* Message (event) callback; see _tagTqUvcEventInfo. */
typedef void (*TqUvcMsgCallback)(_tagTqUvcEventInfo* info, unsigned char* data, uint32_t size, void* context,
                                 uint64_t userParam);

/* The layouts are part of the interface. */
#ifdef __cplusplus
#define TQ_UVC_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define TQ_UVC_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
TQ_UVC_STATIC_ASSERT(sizeof(_tagTqUvccpDiscData) == 648, "_tagTqUvccpDiscData is 648 bytes");
TQ_UVC_STATIC_ASSERT(sizeof(_tagTqUvcDevInfo) == 320, "_tagTqUvcDevInfo is 320 bytes");
TQ_UVC_STATIC_ASSERT(sizeof(_tagTqUvcBufDimension) == 32, "_tagTqUvcBufDimension is 32 bytes");
TQ_UVC_STATIC_ASSERT(sizeof(_tagTqUvcDataBlockInfo) == 80, "_tagTqUvcDataBlockInfo is 80 bytes");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvccpDiscData, HIDCamIndex) == 40, "HIDCamIndex at 40");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvccpDiscData, SerialNr) == 224, "SerialNr at 224");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvccpDiscData, DevicePath) == 512, "DevicePath at 512");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvcDevInfo, Vid) == 196, "Vid at 196");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvcDevInfo, UsbVersion) == 256, "UsbVersion at 256");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvcDataBlockInfo, BlockId) == 12, "BlockId at 12");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvcDataBlockInfo, DataSize) == 40, "DataSize at 40");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvcDataBlockInfo, Width) == 52, "Width at 52");
TQ_UVC_STATIC_ASSERT(offsetof(_tagTqUvcDataBlockInfo, PixelFormat) == 72, "PixelFormat at 72");
#undef TQ_UVC_STATIC_ASSERT

/* ---------------------------------------------------------------- library */

/* Reference-counted: the first call creates the device pool, the last
 * Uninit destroys it with every device. Not to be raced against other calls. */
TQ_UVC_API void TqUvcLibraryInit(void);
TQ_UVC_API void TqUvcLibraryUninit(void);
/* Writes Msg (used as a format without arguments) to the API trace. Returns 0. */
TQ_UVC_API uint32_t TqUvcTraceMsg(const char* Msg);

/* Scans for cameras: new ones get a handle, known ones keep theirs, missing ones
 * drop out of the walk below. Always answers 0x8001 (also after a good scan). */
TQ_UVC_API uint32_t TqUvcScanDevices(uint64_t Reserved, uint64_t UniCastScanAddr, uint64_t Timeout);
/* Walk of the cameras present at the last scan: each fills Info and returns a
 * handle, 0 at the end (or without a library / with an unknown hDev). */
TQ_UVC_API uint64_t TqUvcGetFirstPoolDev(uint64_t Reserved, _tagTqUvcDevInfo* Info);
TQ_UVC_API uint64_t TqUvcNextPoolDev(uint64_t hDev, uint64_t Reserved, _tagTqUvcDevInfo* Info);

/* ---------------------------------------------------------------- control */

/* Opens the camera's HID function and claims it. 0x8007 when already connected
 * (this handle is then left linked but not connected) or when the camera
 * cannot be opened. */
TQ_UVC_API uint32_t TqUvcConnect(uint64_t hDev, uint32_t Privilege);
/* Closes the message and stream channels, releases and closes the camera. 0. */
TQ_UVC_API uint32_t TqUvcDisconnect(uint64_t hDev);
/* *Status: 1 while connected (see the CheckConnectionStatus setting). */
TQ_UVC_API uint32_t TqUvcCheckConnectionStatus(uint64_t hDev, uint32_t* Status);
/* *Available: 1 when the camera answers. 0x8FFF when it cannot be opened. */
TQ_UVC_API uint32_t TqUvcCheckAvailablity(uint64_t hDev, uint32_t* Available, uint8_t* Data, uint32_t Size);
/* Block read at a bootstrap address; needs a connection or link. */
TQ_UVC_API uint32_t TqUvcReadMem(uint64_t hDev, uint32_t Address, uint8_t* Buffer, uint32_t Length);
/* Not supported: 0x8008. */
TQ_UVC_API uint32_t TqUvcWriteMem(uint64_t hDev, uint32_t Address, uint8_t* Buffer, uint32_t Length);
/* 32-bit register read (needs a link) and write (needs a connection). */
TQ_UVC_API uint32_t TqUvcReadReg(uint64_t hDev, uint32_t Address, uint32_t* Value);
TQ_UVC_API uint32_t TqUvcReadMultiReg(uint64_t hDev, uint32_t* Addresses, uint32_t* Values, uint32_t Count);
TQ_UVC_API uint32_t TqUvcWriteReg(uint64_t hDev, uint32_t Address, uint32_t Value);
TQ_UVC_API uint32_t TqUvcWriteMuliReg(uint64_t hDev, uint32_t* Addresses, uint32_t* Values, uint32_t Count);

/* ---------------------------------------------------------------- bootstrap */

/* The description-file location from the camera's URL registers; with Flags
 * bit 1 resolved to a cached local file path. */
TQ_UVC_API uint32_t TqUvcGetXMLFile(uint64_t hDev, uint32_t Which, uint8_t* Buffer, uint32_t BufferSize,
                                    uint32_t Flags);
/* Number of manifest entries: 1. */
TQ_UVC_API uint32_t TqUvcGetNrManifestFile(uint64_t hDev, uint32_t* Count);
/* Manifest entry 0: version, address, "local:" path of the description file
 * and its SHA-1 as 40 hex digits (Sha needs 41 bytes). Any pointer may be NULL
 * but Path and Sha not both. */
TQ_UVC_API uint32_t TqUvcGetManifestFileData(uint64_t hDev, uint32_t Index, uint32_t* Version,
                                             uint32_t* Address, uint8_t* Path, uint32_t PathSize,
                                             uint8_t* SecPath, uint32_t SecPathSize, uint32_t* Data0,
                                             uint32_t* Data1, uint8_t* Sha);
/* Not supported by the camera: 0x8008. */
TQ_UVC_API uint32_t TqUvcSetNickname(uint64_t hDev, uint8_t* Nickname);
/* Device capabilities: always 0 for these cameras. */
TQ_UVC_API uint32_t TqUvcGetDevCapabilty(uint64_t hDev, uint32_t* Capabilities);

/* ---------------------------------------------------------------- streaming */

/* Opens the video function (needs a connection). */
TQ_UVC_API uint32_t TqUvcOpenStrmChan(uint64_t hDev, uint64_t Reserved, uint32_t Arg0, uint32_t Arg1);
TQ_UVC_API uint32_t TqUvcCloseStrmChan(uint64_t hDev);
/* The client's buffers: Count addresses and sizes; the arrays must stay valid
 * until the stream channel is closed. */
TQ_UVC_API uint32_t TqUvcCfgMemory(uint64_t hDev, uint64_t Reserved, uint64_t* Buffers, uint32_t* Sizes,
                                   uint32_t Count);
/* The client's lock table (one word per buffer) and current-frame word (a
 * uint32_t the library writes the next buffer's index into); both may be NULL. */
TQ_UVC_API uint32_t TqUvcCfgLockTable(uint64_t hDev, uint64_t Reserved, uint32_t* LockTable,
                                      uint8_t* CurrFrame);
TQ_UVC_API uint32_t TqUvcCfgBufferDim(uint64_t hDev, uint64_t Reserved, _tagTqUvcBufDimension* Dim);
/* Starts and stops frame delivery into the configured buffers. */
TQ_UVC_API uint32_t TqUvcStreamStart(uint64_t hDev, uint32_t Arg);
TQ_UVC_API uint32_t TqUvcStreamStop(uint64_t hDev, uint32_t Arg);
/* Not supported: 0x8FFF. */
TQ_UVC_API uint32_t TqUvcStreamRestartAt(uint64_t hDev);
/* A mutex for the client's own lock-table updates (the frame path does not take it). */
TQ_UVC_API uint32_t TqUvcStreamLockTableAcquireDmaMutex(uint64_t hDev);
TQ_UVC_API uint32_t TqUvcStreamLockTableReleaseDmaMutex(uint64_t hDev);
TQ_UVC_API uint32_t TqUvcRegisterDataCallback(uint64_t hDev, uint64_t Reserved, TqUvcDataCallback Callback,
                                              uint64_t Context);

/* ---------------------------------------------------------------- events */

/* These cameras have no event registers: Open answers 0x8FFF. */
TQ_UVC_API uint32_t TqUvcOpenMsgChan(uint64_t hDev);
TQ_UVC_API uint32_t TqUvcCloseMsgChan(uint64_t hDev);
TQ_UVC_API uint32_t TqUvcRegisterMsgCallback(uint64_t hDev, TqUvcMsgCallback Callback, uint64_t Context,
                                             uint32_t Flags);

/* ---------------------------------------------------------------- host */

/* No filter driver on this transport: 0x8FFF. */
TQ_UVC_API uint32_t TqUvcIsFDAvailable(void);
/* Writes 4 to *Capability; returns 0. */
TQ_UVC_API uint32_t TqUvcGetHostCapability(uint32_t* Capability);

#ifdef __cplusplus
}
#endif

#endif
