// The bootstrap address space the SDK expects, mapped onto the camera's HID
// registers, HID memory and description file. Called by the control channel
// only, with the device's HID camera index. The trailing arguments (request id,
// time-out) are accepted and not used.
#pragma once

// 0, -101 for an unhandled address, else the HID status of the register read.
// Inside the HID register range *value is written also when the read fails.
int TqUvcReadReg4(unsigned int camIndex, unsigned int address, unsigned int* value, unsigned short requestId,
                  unsigned int timeout);
// 0, -101 for an unhandled address, else the HID status of the register write.
int TqUvcWriteReg4(unsigned int camIndex, unsigned int address, unsigned int value, unsigned short requestId,
                   unsigned int timeout);
// Always 0: an unhandled address or a failed transfer shows only in the buffer.
// The six identity strings always transfer 12 bytes, whatever the length.
int TqUvcReadMem(unsigned int camIndex, unsigned int address, char* buffer, int length,
                 unsigned short& requestId, unsigned int timeout, unsigned int unused);
